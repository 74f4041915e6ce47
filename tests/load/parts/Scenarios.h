#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

/// What happens to a service, each on a device and a bus of its own, in the amount that is asked for: a little for
/// those who wait, all of it for the deep checks. Each fails the test that calls it where the service does not hold.
namespace tarnwell::load {

/// So many connections at once, each of which asks something and leaves, most of them in the middle; several times.
void connectionsThatGo(std::size_t connections, int rounds);

/// So many calls that no well-behaved client makes, from a few connections.
void hostileMessages(std::size_t messages, std::uint64_t seed);

/// One client opens a document so often and takes none of the descriptors, another attaches descriptors of its own to
/// as many calls.
void descriptorFloods(std::size_t calls);

/// One client watches, asks for pages all the time, and reads nothing for so long.
void clientThatReadsNothing(std::chrono::seconds duration);

/// A desk makes some five thousand changes of documents a day: a few hundred saves of three steps each, a folder that
/// is synchronized, downloads, an archive that is unpacked. Somebody's day may have ten times that.
inline constexpr std::size_t kChangesOfABusyDay = 50'000;

/// So many changes of documents, some four hundred a second, while clients follow by anchors.
void busyDays(std::size_t changes, std::uint64_t seed);

/// The service is killed so often at random moments while clients ask, and started by the bus when they ask again.
void killedService(std::size_t kills, std::uint64_t seed);

}  // namespace tarnwell::load
