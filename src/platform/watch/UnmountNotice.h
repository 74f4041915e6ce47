#pragma once

#include <map>
#include <memory>
#include <vector>

#include <sys/types.h>

#include "platform/base/Descriptor.h"
#include "platform/base/Result.h"
#include "platform/watch/Source.h"

namespace tarnwell::watch {

/// Tells when a file system was unmounted, which fanotify keeps to itself: an inotify watch on one directory of each,
/// the highest that can be reached, because it lasts. Holds no file system back from being unmounted. Not thread-safe.
class UnmountNotice {
public:
    static Result<std::unique_ptr<UnmountNotice>> create();

    int descriptor() const { return queue_.get(); }
    /// Sees to it that the file system of the directory is waited for. Where that cannot be, its end is never told.
    void waitFor(const Directory& directory);
    /// Takes the file systems, by device number, that were unmounted since; they are waited for no longer.
    std::vector<dev_t> drain();

private:
    explicit UnmountNotice(Descriptor queue) : queue_(std::move(queue)) {}
    Descriptor queue_;
    std::map<dev_t, int> watches_;  // -1: tried in vain
};

}  // namespace tarnwell::watch
