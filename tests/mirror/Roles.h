#pragma once

#include <string>

#include "host/Settings.h"
#include "testing/RandomChanges.h"

/// What the processes that the test starts do. They answer one message on standard input with one on standard output,
/// until there is none any more; the result is the exit status.
namespace tarnwell::mirror {

inline constexpr const char* kHostRole = "--host-provider";
/// How the host finds changes, its second argument.
inline constexpr const char* kWatching = "watching";
inline constexpr const char* kComparing = "comparing";
inline constexpr const char* kLimited = "limited";  ///< watching, with too few watches for all folders
inline constexpr const char* kServing = "serving";  ///< for changers only: watching, behind a bus
inline constexpr const char* kServeRole = "--serve";
inline constexpr const char* kChangerRole = "--change-files";

/// Hosts the provider of the device in that home.
///
/// | message                      | answer                                                                            |
/// |------------------------------|-----------------------------------------------------------------------------------|
/// | anchor, container            | ok, anchor                                                                        |
/// | list, container              | ok, the items of it and of the folders below it                                   |
/// | item, path                   | ok, the item that stands there; ok alone where none does                          |
/// | identify, paths              | ok, the identifier of what stands at each, "" where none does                     |
/// | do, verb, its arguments      | ok; the verbs are those of the program, an item is its identifier                 |
/// | status                       | ok, how often the kernel dropped events, how many folders are polled, "limited"   |
/// |                              | where few can be watched                                                          |
/// | changes, container, anchor   | ok, anchor, "more" or "", then each report: "-", identifier or "+", item          |
///
/// A failure is answered with "error", its domain, its code and a text.
int hostProvider(const std::string& home, const std::string& finding);

/// Serves the device in that home on a bus. Says "ready" once, then waits for the end of its input.
int serveProvider(const std::string& home, const std::string& busAddress);

/// Changes files below the root at random, from a seed; `links` is where links that it makes lead. The message is the
/// number of steps and the microseconds of rest after each, the answer says what was done, a step each.
/// `finding` is how the host finds changes: what nobody watches is not changed behind the back of one who watches.
int changeFiles(const std::string& root, const std::string& seed, const std::string& links, const std::string& finding);

/// Settings of a device in a home of its own.
host::Settings settingsOf(const std::string& home);
/// The folders below a home in which files are changed; the last one is outside of the storage.
testing::RandomChanges::Options changesBelow(const std::string& links, const std::string& finding);

}  // namespace tarnwell::mirror
