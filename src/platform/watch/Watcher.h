#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/base/Ids.h"
#include "platform/base/Result.h"

/// What the kernel tells of changes in directories. Hints only: they merge and lose order, so whoever gets one looks at
/// the disk.
namespace tarnwell::watch {

/// Something happened to an entry of a watched directory. What happens to a watched directory's own attributes is told
/// under its own number and no name; only some sources tell it under its parent's, too. Of an object with several names
/// the one is told by which it was reached. A name that is not there is a reason to look at the whole directory: a file
/// that was opened before it had a name keeps being told under one that it never had. What is stored through a memory
/// map is told when the map and its descriptor are gone.
struct Hint {
    FileID directory{};  ///< as it was called when it was watched
    std::string name;    ///< of the entry; empty for the directory itself
    /// True when an object may have come to that name, left it, or been exchanged; false when only the object under
    /// the name changed (content, attributes).
    bool namesChanged = false;
};

/// What one reading of the kernel's queues gave.
struct Drained {
    std::vector<Hint> hints;
    /// Events were lost: nothing is known of any watched directory, not even whether its watch has ended. Whoever looks
    /// at all of them then watches each again, which costs little where the watch is still there.
    bool overflowed = false;
    std::vector<FileID> unwatched;  ///< directories whose watch the kernel ended (removed, unmounted)
    std::uint64_t events = 0;       ///< how many events were read, also such as gave no hint
};

/// One kind of source, for status displays.
struct SourceStatus {
    std::string name;        ///< "inotify", "fanotify", "fanotify on file system"
    std::string fileSystem;  ///< a text that tells its file system from others; empty for a source of all
    std::size_t watches = 0;
    /// Events in the kernel's queue. Of inotify, which tells bytes only, as many as they are with names of medium
    /// length.
    std::size_t queued = 0;
};

/// Watches directories, one by one, with the best source that the kernel offers for each: the caller watches every
/// directory of a tree. Moving a directory moves its watch along. Any thread may call any operation.
class Watcher {
public:
    virtual ~Watcher() = default;

    /// Watches the open directory (O_PATH suffices) under a number of the caller's, never 0. Everything that happens
    /// after this returned to the directory's entries is told by a later `drain`. Again under the same number is fine;
    /// an object that is watched under another number changes to this one. Fails with ENOSPC at a limit of the kernel,
    /// with EOPNOTSUPP where no source can watch it, and with EACCES where the directory may not be read; the number is
    /// not watched then. A directory refused for EACCES is told of, by one of both names, when its attributes change
    /// while its parent is watched.
    virtual Result<void> watch(int directory, FileID number) = 0;
    virtual void unwatch(FileID number) = 0;
    virtual bool isWatched(FileID number) const = 0;
    virtual std::size_t watches() const = 0;
    virtual std::vector<SourceStatus> sources() const = 0;

    /// Reads what the kernel has queued by now, and returns: what happened before the call is in the answer. What a
    /// failed one had read is lost, and the next one says `overflowed`.
    virtual Result<Drained> drain() = 0;
    /// Becomes readable (poll) when there is something to drain; owned by the watcher.
    virtual int descriptor() const = 0;
};

}  // namespace tarnwell::watch
