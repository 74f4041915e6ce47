#pragma once

#include <cstdint>

namespace tarnwell::bus {

/// What the service is called on the session bus. The number in the names is the interface's version: what is added to
/// it leaves the name, what changes it does not.
inline constexpr const char* kServiceName = "org.tarnwell.Host1";
inline constexpr const char* kObjectPath = "/org/tarnwell/Host1";
inline constexpr const char* kInterface = "org.tarnwell.Host1";
inline constexpr const char* kJobPrefix = "/org/tarnwell/Host1/jobs";
inline constexpr const char* kJobInterface = "org.tarnwell.Job1";
/// Grows with what is added.
inline constexpr std::uint32_t kInterfaceVersion = 3;

/// The first version with EnumeratePacked and ChangesPacked as they are.
inline constexpr std::uint32_t kPackedSince = 3;

/// The most that one request may name; more is refused.
inline constexpr std::size_t kMostPerRequest = 1000;
/// The longest name, path, identifier, label or token that is read, in bytes.
inline constexpr std::size_t kLongestText = 64 * 1024;
/// The longest packed answer that is read; half of what a D-Bus array may hold.
inline constexpr std::size_t kLongestPacked = 32 * 1024 * 1024;
/// The most that is read of one request, in bytes: a thousand of the longest paths of the kernel.
inline constexpr std::size_t kLargestRequest = 4 * 1024 * 1024;

}  // namespace tarnwell::bus
