#include "platform/watch/InotifySource.h"

#include <ranges>
#include <utility>

#include <sys/inotify.h>

#include "platform/base/SystemCall.h"
#include "platform/watch/QueueReading.h"

namespace tarnwell::watch {
namespace {

constexpr std::uint32_t kNameEvents = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;
// Not IN_EXCL_UNLINK: it drops events of files whose name the kernel's cache has let go of, which is not only the
// removed ones. A network file system lets go of names in use, and a file that was opened without a name and linked
// later is never found under one.
constexpr std::uint32_t kEvents = kNameEvents | IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE | IN_DELETE_SELF | IN_ONLYDIR;

// Each removal queues an event: this many are far from filling the queue.
constexpr std::size_t kRemovalsBetweenPasses = 1024;

}  // namespace

Result<std::unique_ptr<InotifySource>> InotifySource::create() {
    Descriptor queue(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (!queue.valid()) {
        if (errno == EMFILE) return failure(posixError(EMFILE, "no inotify instance or descriptor left"));
        return failedCall();
    }
    return std::unique_ptr<InotifySource>(new InotifySource(std::move(queue)));
}

Result<int> InotifySource::addWatch(const Directory& directory) {
    const std::string path = pathOfDescriptor(directory.descriptor);
    int wd = ::inotify_add_watch(queue_.get(), path.c_str(), kEvents);
    if (wd < 0 && errno == ENOSPC && !leaving_.empty()) {
        removeSomeLeaving();
        wd = ::inotify_add_watch(queue_.get(), path.c_str(), kEvents);
    }
    if (wd >= 0) return wd;
    if (errno == ENOSPC) return failure(posixError(ENOSPC, "no inotify watch left (fs.inotify.max_user_watches)"));
    return failedCall();
}

Result<void> InotifySource::watch(const Directory& directory, FileID number) {
    auto added = addWatch(directory);
    if (!added) {
        unwatch(number);
        return failure(added.error());
    }
    const int wd = *added;
    auto before = numbers_.find(number);
    if (before != numbers_.end() && before->second != wd) unwatch(number);

    auto [entry, isNew] = watches_.try_emplace(wd, Watch{number, directory.device, directory.inode});
    Watch& watch = entry->second;
    if (!isNew) {
        const bool isSame =
            watch.device == directory.device && watch.inode == directory.inode && watch.state != State::removed;
        if (watch.state == State::wanted && watch.number != number) {
            numbers_.erase(watch.number);
            if (!isSame) replaced_.push_back(watch.number);
        }
        const bool drops = watch.dropsOldEvents || !isSame;
        if (drops && !watch.dropsOldEvents) dropping_.push_back(wd);
        watch = Watch{number, directory.device, directory.inode, State::wanted, drops};
    }
    numbers_[number] = wd;
    return {};
}

void InotifySource::unwatch(FileID number) {
    auto found = numbers_.find(number);
    if (found == numbers_.end()) return;
    // Asking the kernel waits for the next drain: every removal queues an event, and those of a big tree at once would
    // fill the queue and cost the events of everything else.
    watches_.at(found->second).state = State::leaving;
    leaving_.push_back(found->second);
    numbers_.erase(found);
}

void InotifySource::removeSomeLeaving() {
    for (std::size_t count = 0; count < kRemovalsBetweenPasses && !leaving_.empty(); ++count) {
        const int wd = leaving_.back();
        leaving_.pop_back();
        auto found = watches_.find(wd);
        if (found == watches_.end() || found->second.state != State::leaving) continue;
        // Failing means that the kernel has ended it already.
        ::inotify_rm_watch(queue_.get(), wd);
        found->second.state = State::removed;
        removed_.push_back(wd);
    }
}

std::vector<FileID> InotifySource::numbers() const {
    auto keys = std::views::keys(numbers_);
    return {keys.begin(), keys.end()};
}

Result<void> InotifySource::drain(HintCollector& collector) {
    if (auto passed = pass(collector); !passed) return passed;
    while (!leaving_.empty()) {
        removeSomeLeaving();
        if (auto passed = pass(collector); !passed) return passed;
    }
    return {};
}

Result<void> InotifySource::pass(HintCollector& collector) {
    auto queued = queuedNow(queue_.get());
    if (!queued) return failure(queued.error());
    std::size_t read = 0;
    if (*queued > 0) {
        auto done = readQueue(queue_.get(), [&](ByteView bytes) {
            read += bytes.size();
            std::uint64_t events = 0;
            while (auto record = takeInotifyRecord(bytes)) {
                ++events;
                handle(*record, collector);
            }
            if (!bytes.empty()) collector.addOverflow();
            collector.addEvents(events);
            return read < *queued;
        });
        if (!done) return done;
    }
    for (int wd : std::exchange(removed_, {}))
        if (auto found = watches_.find(wd); found != watches_.end() && found->second.state == State::removed)
            watches_.erase(found);
    for (int wd : std::exchange(dropping_, {}))
        if (auto found = watches_.find(wd); found != watches_.end()) found->second.dropsOldEvents = false;
    for (FileID number : std::exchange(replaced_, {}))
        if (!isWatched(number)) collector.addUnwatched(number);
    return {};
}

void InotifySource::handle(const InotifyRecord& record, HintCollector& collector) {
    if ((record.mask & IN_Q_OVERFLOW) != 0) {
        collector.addOverflow();
        return;
    }
    auto found = watches_.find(record.watch);
    if (found == watches_.end()) return;
    Watch& watch = found->second;
    if (watch.dropsOldEvents) {
        if ((record.mask & IN_IGNORED) != 0) watch.dropsOldEvents = false;
        return;
    }
    if ((record.mask & IN_IGNORED) != 0) {
        if (watch.state == State::wanted) {
            numbers_.erase(watch.number);
            collector.addUnwatched(watch.number);
        }
        watches_.erase(found);
        return;
    }
    // What IN_DELETE_SELF and IN_UNMOUNT mean is told by the IN_IGNORED that follows.
    if (watch.state != State::wanted || (record.mask & (IN_DELETE_SELF | IN_UNMOUNT)) != 0) return;
    collector.add(watch.number, record.name, (record.mask & kNameEvents) != 0);
}

}  // namespace tarnwell::watch
