#include "platform/watch/KernelWatcher.h"

#include <array>
#include <map>
#include <mutex>
#include <optional>
#include <span>
#include <utility>

#include <sys/epoll.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "platform/base/Descriptor.h"
#include "platform/base/SystemCall.h"
#include "platform/watch/FanotifySource.h"
#include "platform/watch/FileSystemSource.h"
#include "platform/watch/InotifySource.h"
#include "platform/watch/QueueReading.h"
#include "platform/watch/Source.h"
#include "platform/watch/UnmountNotice.h"

namespace tarnwell::watch {
namespace {

/// What is known of the fanotify sources of one file system.
struct FileSystem {
    std::unique_ptr<FanotifySource> marks;
    std::unique_ptr<FileSystemSource> whole;
    bool marksUnsupported = false;
    bool marksWereFull = false;
    bool wholeUnsupported = false;
};

enum class Kind : std::uint8_t { marks, whole, inotify };

/// Chooses a source for each directory. Directory marks come first: they tell of our directories only, name them in a
/// way that no later directory can be taken for, and merge events of one name in the kernel. Where they are used up,
/// one mark for the file system has no such limit, for those who may set it; it is not the first choice, since it makes
/// us read the events of every program on that file system. Inotify works on nearly everything, so it takes what
/// fanotify refuses: file systems without an identity or lasting handles (overlays, FUSE, network), and kernels that
/// keep fanotify to the privileged.
///
/// A directory is watched in one source only. Once marks were used up, a directory that has none goes to the other
/// sources first and gets a mark only when they have no room; as a directory that one of them holds needs no room
/// there, this one is held by none.
class KernelWatcher : public Watcher {
public:
    KernelWatcher(const WatcherOptions& options, Descriptor readiness)
        : options_(options), readiness_(std::move(readiness)) {}

    Result<void> watch(int directory, FileID number) override;
    void unwatch(FileID number) override;
    bool isWatched(FileID number) const override;
    std::size_t watches() const override;
    std::vector<SourceStatus> sources() const override;
    Result<Drained> drain() override;
    int descriptor() const override { return readiness_.get(); }

private:
    Result<Directory> examined(int descriptor) const;
    Result<void> watchBest(const Directory& directory, FileID number);
    Result<Source*> sourceOf(Kind kind, const Directory& directory, FileSystem& fileSystem);
    template <typename Made>
    Result<Source*> adopt(std::unique_ptr<Made>& place, Result<std::unique_ptr<Made>> made);
    Result<void> addToReadiness(int descriptor);
    void noteRefusal(Kind kind, Refusal refusal, FileSystem& fileSystem);
    void waitForUnmount(const Directory& directory);
    void unwatchExcept(FileID number, const Source* source);
    void dropUnmounted(HintCollector& collector);
    void forEachSource(const auto& body) const;

    const WatcherOptions options_;
    const Descriptor readiness_;
    mutable std::mutex mutex_;  // over all that follows
    std::unique_ptr<InotifySource> inotify_;
    std::unique_ptr<UnmountNotice> unmounts_;
    std::map<dev_t, FileSystem> fileSystems_;
    bool lostEvents_ = false;  // a drain failed with what it had read
};

std::string textOf(dev_t device) { return std::to_string(major(device)) + ":" + std::to_string(minor(device)); }

/// In which order the sources are asked for a directory.
std::span<const Kind> orderOf(SourceChoice choice, bool prefersMarks) {
    static constexpr std::array kMarks{Kind::marks, Kind::whole, Kind::inotify};
    static constexpr std::array kOthers{Kind::whole, Kind::inotify, Kind::marks};
    switch (choice) {
        case SourceChoice::automatic:
            return prefersMarks ? std::span(kMarks) : std::span(kOthers);
        case SourceChoice::directoryMarks:
            return std::span(kMarks).first(1);
        case SourceChoice::fileSystemMarks:
            return std::span(kOthers).first(1);
        case SourceChoice::inotify:
            return std::span(kMarks).last(1);
    }
    return {};
}

void KernelWatcher::forEachSource(const auto& body) const {
    if (inotify_) body(*inotify_, std::string());
    for (const auto& [device, fileSystem] : fileSystems_) {
        if (fileSystem.marks) body(*fileSystem.marks, textOf(device));
        if (fileSystem.whole) body(*fileSystem.whole, textOf(device));
    }
}

Result<Directory> KernelWatcher::examined(int descriptor) const {
    struct stat status{};
    if (::fstat(descriptor, &status) != 0) return failedCall();
    if (!S_ISDIR(status.st_mode)) return failure(posixError(ENOTDIR));
    Directory directory{descriptor, status.st_dev, status.st_ino, std::nullopt};
    if (options_.source == SourceChoice::inotify) return directory;
    if (auto handle = FileHandle::of(descriptor)) directory.handle = std::move(*handle);
    return directory;
}

Result<void> KernelWatcher::watch(int descriptor, FileID number) {
    TARNWELL_CHECK(raw(number) != 0);
    auto directory = examined(descriptor);
    std::lock_guard lock(mutex_);
    if (!directory) {
        unwatchExcept(number, nullptr);
        return failure(directory.error());
    }
    return watchBest(*directory, number);
}

Result<void> KernelWatcher::watchBest(const Directory& directory, FileID number) {
    FileSystem& fileSystem = fileSystems_[directory.device];
    const bool prefersMarks = !fileSystem.marksWereFull || (fileSystem.marks && fileSystem.marks->knows(directory));
    std::optional<Error> atLimit;
    for (Kind kind : orderOf(options_.source, prefersMarks)) {
        // The mark of the whole file system only stands in for marks that are used up.
        if (kind == Kind::whole && options_.source == SourceChoice::automatic && !fileSystem.marksWereFull) continue;
        auto source = sourceOf(kind, directory, fileSystem);
        Result<void> watched = source ? (*source)->watch(directory, number) : failure(source.error());
        if (watched) {
            unwatchExcept(number, *source);
            if (kind != Kind::inotify) waitForUnmount(directory);
            return {};
        }
        const Refusal refusal = refusalOf(watched.error());
        if (refusal == Refusal::final) {
            unwatchExcept(number, source ? *source : nullptr);
            return watched;
        }
        noteRefusal(kind, refusal, fileSystem);
        if (refusal == Refusal::limit) atLimit = watched.error();
    }
    unwatchExcept(number, nullptr);
    if (!atLimit) return failure(posixError(EOPNOTSUPP, "no source of change events for this file system"));
    atLimit->code = ENOSPC;
    return failure(*atLimit);
}

Result<Source*> KernelWatcher::sourceOf(Kind kind, const Directory& directory, FileSystem& fileSystem) {
    const bool isUnsupported = (kind == Kind::marks && fileSystem.marksUnsupported) ||
                               (kind == Kind::whole && fileSystem.wholeUnsupported) ||
                               (kind != Kind::inotify && !directory.handle);
    if (isUnsupported) return failure(posixError(EOPNOTSUPP));
    switch (kind) {
        case Kind::marks:
            if (fileSystem.marks) return fileSystem.marks.get();
            return adopt(fileSystem.marks, FanotifySource::create());
        case Kind::whole:
            if (fileSystem.whole) return fileSystem.whole.get();
            return adopt(fileSystem.whole, FileSystemSource::create(directory));
        case Kind::inotify:
            if (inotify_) return inotify_.get();
            return adopt(inotify_, InotifySource::create());
    }
    return failure(posixError(EOPNOTSUPP));
}

template <typename Made>
Result<Source*> KernelWatcher::adopt(std::unique_ptr<Made>& place, Result<std::unique_ptr<Made>> made) {
    if (!made) return failure(made.error());
    if (auto added = addToReadiness((*made)->descriptor()); !added) return failure(added.error());
    place = std::move(*made);
    return place.get();
}

Result<void> KernelWatcher::addToReadiness(int descriptor) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = descriptor;
    if (::epoll_ctl(readiness_.get(), EPOLL_CTL_ADD, descriptor, &event) != 0) return failedCall();
    return {};
}

void KernelWatcher::noteRefusal(Kind kind, Refusal refusal, FileSystem& fileSystem) {
    if (kind == Kind::marks && refusal == Refusal::limit) fileSystem.marksWereFull = true;
    if (refusal != Refusal::unsupported) return;
    if (kind == Kind::whole) fileSystem.wholeUnsupported = true;
    // A source that serves other directories refused this one only.
    if (kind == Kind::marks && (!fileSystem.marks || fileSystem.marks->watches() == 0)) {
        fileSystem.marksUnsupported = true;
        fileSystem.marks.reset();
    }
}

void KernelWatcher::waitForUnmount(const Directory& directory) {
    if (!unmounts_) {
        auto made = UnmountNotice::create();
        if (!made || !addToReadiness((*made)->descriptor())) return;
        unmounts_ = std::move(*made);
    }
    unmounts_->waitFor(directory);
}

void KernelWatcher::unwatchExcept(FileID number, const Source* source) {
    forEachSource([&](Source& other, const std::string&) {
        if (&other != source) other.unwatch(number);
    });
}

void KernelWatcher::unwatch(FileID number) {
    std::lock_guard lock(mutex_);
    unwatchExcept(number, nullptr);
}

bool KernelWatcher::isWatched(FileID number) const {
    std::lock_guard lock(mutex_);
    bool isWatched = false;
    forEachSource([&](const Source& source, const std::string&) { isWatched |= source.isWatched(number); });
    return isWatched;
}

std::size_t KernelWatcher::watches() const {
    std::lock_guard lock(mutex_);
    std::size_t count = 0;
    forEachSource([&](const Source& source, const std::string&) { count += source.watches(); });
    return count;
}

std::vector<SourceStatus> KernelWatcher::sources() const {
    std::lock_guard lock(mutex_);
    std::vector<SourceStatus> statuses;
    forEachSource([&](const Source& source, std::string fileSystem) {
        const std::size_t queued = queuedNow(source.descriptor()).value_or(0) / source.bytesOfEvent();
        statuses.push_back({std::string(source.name()), std::move(fileSystem), source.watches(), queued});
    });
    return statuses;
}

Result<Drained> KernelWatcher::drain() {
    std::lock_guard lock(mutex_);
    HintCollector collector;
    std::optional<Error> failed;
    // Every queue is asked, not only those that epoll calls ready: an event that merges into one that another process
    // is just queueing is there before anybody is woken.
    forEachSource([&](Source& source, const std::string&) {
        if (auto drained = source.drain(collector); !drained) failed = drained.error();
    });
    dropUnmounted(collector);
    if (failed) {
        lostEvents_ = true;
        return failure(*failed);
    }
    if (std::exchange(lostEvents_, false)) collector.addOverflow();
    return collector.take();
}

void KernelWatcher::dropUnmounted(HintCollector& collector) {
    if (!unmounts_) return;
    for (dev_t device : unmounts_->drain()) {
        auto found = fileSystems_.find(device);
        if (found == fileSystems_.end()) continue;
        for (const Source* source : {static_cast<const Source*>(found->second.marks.get()),
                                     static_cast<const Source*>(found->second.whole.get())}) {
            if (!source) continue;
            for (FileID number : source->numbers()) collector.addUnwatched(number);
        }
        fileSystems_.erase(found);
    }
}

}  // namespace

Result<std::unique_ptr<Watcher>> makeWatcher(const WatcherOptions& options) {
    Descriptor readiness(::epoll_create1(EPOLL_CLOEXEC));
    if (!readiness.valid()) return failedCall();
    return std::make_unique<KernelWatcher>(options, std::move(readiness));
}

}  // namespace tarnwell::watch
