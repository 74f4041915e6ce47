#pragma once

#include <cstdint>

namespace tarnwell::watch {

/// What the kernel grants each user; 0 where it does not say.
struct KernelLimits {
    std::uint64_t inotifyWatches = 0;
    std::uint64_t inotifyInstances = 0;
    std::uint64_t inotifyQueuedEvents = 0;  ///< of one instance
    std::uint64_t fanotifyMarks = 0;
    std::uint64_t fanotifyGroups = 0;
    std::uint64_t fanotifyQueuedEvents = 0;  ///< of one group
};

/// For status displays; a watch may still be refused before, since all programs of the user share these.
KernelLimits limits();

}  // namespace tarnwell::watch
