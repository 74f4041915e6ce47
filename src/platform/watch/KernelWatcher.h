#pragma once

#include <cstdint>
#include <memory>

#include "platform/base/Result.h"
#include "platform/watch/Watcher.h"

namespace tarnwell::watch {

/// Which sources a watcher may use.
enum class SourceChoice : std::uint8_t {
    automatic,
    directoryMarks,   ///< fanotify, a mark for each directory
    fileSystemMarks,  ///< fanotify, a mark for each file system
    inotify,
};

struct WatcherOptions {
    /// Other choices than the automatic one are for tests, measurements and machines that are known: where the chosen
    /// source refuses, nothing takes its place.
    SourceChoice source = SourceChoice::automatic;
};

/// A watcher that asks the kernel of this machine.
Result<std::unique_ptr<Watcher>> makeWatcher(const WatcherOptions& options = {});

}  // namespace tarnwell::watch
