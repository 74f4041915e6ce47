#include "platform/watch/UnmountNotice.h"

#include <algorithm>
#include <utility>

#include <sys/inotify.h>
#include <sys/stat.h>

#include <fcntl.h>
#include <unistd.h>

#include "platform/base/SystemCall.h"
#include "platform/watch/InotifyRecords.h"
#include "platform/watch/QueueReading.h"

namespace tarnwell::watch {
namespace {

/// The highest directory above this one that is on the same file system and can be reached; not valid when it is this
/// one.
Descriptor highestAbove(const Directory& directory) {
    constexpr int kMostLevels = 1000;
    Descriptor highest;
    ino_t inode = directory.inode;
    for (int level = 0; level < kMostLevels; ++level) {
        Descriptor parent(untilNotInterrupted([&] {
            return ::openat(highest.valid() ? highest.get() : directory.descriptor, "..",
                            O_PATH | O_DIRECTORY | O_CLOEXEC);
        }));
        struct stat status{};
        if (!parent.valid() || ::fstat(parent.get(), &status) != 0) break;
        if (status.st_dev != directory.device || status.st_ino == inode) break;
        inode = status.st_ino;
        highest = std::move(parent);
    }
    return highest;
}

}  // namespace

Result<std::unique_ptr<UnmountNotice>> UnmountNotice::create() {
    Descriptor queue(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (!queue.valid()) return failedCall();
    return std::unique_ptr<UnmountNotice>(new UnmountNotice(std::move(queue)));
}

void UnmountNotice::waitFor(const Directory& directory) {
    auto [entry, isNew] = watches_.try_emplace(directory.device, -1);
    if (!isNew) return;
    // IN_UNMOUNT comes unasked; some event must be asked for.
    const auto watch = [&](int descriptor) {
        return ::inotify_add_watch(queue_.get(), pathOfDescriptor(descriptor).c_str(), IN_DELETE_SELF | IN_ONLYDIR);
    };
    if (Descriptor highest = highestAbove(directory); highest.valid()) entry->second = watch(highest.get());
    if (entry->second < 0) entry->second = watch(directory.descriptor);
}

std::vector<dev_t> UnmountNotice::drain() {
    std::vector<dev_t> unmounted;
    auto queued = queuedNow(queue_.get());
    if (!queued || *queued == 0) return unmounted;
    // The few events that this queue ever holds fit in one reading. That it cannot be read is the same as no notice.
    (void)readQueue(queue_.get(), [&](ByteView bytes) {
        while (auto record = takeInotifyRecord(bytes)) {
            auto found = std::ranges::find(watches_, record->watch, &std::pair<const dev_t, int>::second);
            if (found == watches_.end()) continue;
            if ((record->mask & IN_UNMOUNT) != 0) unmounted.push_back(found->first);
            // Ended without an unmount, the directory is gone: the next one that is watched serves.
            if ((record->mask & (IN_UNMOUNT | IN_IGNORED)) != 0) watches_.erase(found);
        }
        return false;
    });
    return unmounted;
}

}  // namespace tarnwell::watch
