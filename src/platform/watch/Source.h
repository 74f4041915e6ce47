#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include <sys/types.h>

#include "platform/base/Ids.h"
#include "platform/base/Result.h"
#include "platform/watch/FileHandle.h"
#include "platform/watch/HintCollector.h"

namespace tarnwell::watch {

/// A directory that is to be watched, and what tells it from others.
struct Directory {
    int descriptor;
    dev_t device;
    ino_t inode;
    std::optional<FileHandle> handle;  ///< nothing where the file system has none
};

/// What a source's refusal means for the directory.
enum class Refusal : std::uint8_t {
    limit,        ///< the kernel's limit is reached: another source may have room
    unsupported,  ///< this source cannot watch it: another may
    final,        ///< no other source can do better: no permission, no directory
};
Refusal refusalOf(const Error& error);

/// One queue of the kernel and the directories that it tells of. Not thread-safe: the watcher has a lock.
class Source {
public:
    virtual ~Source() = default;

    virtual std::string_view name() const = 0;
    /// Readable when there is something to drain.
    virtual int descriptor() const = 0;
    /// On failure neither the number nor the directory is watched here.
    virtual Result<void> watch(const Directory& directory, FileID number) = 0;
    virtual void unwatch(FileID number) = 0;
    virtual bool isWatched(FileID number) const = 0;
    virtual std::size_t watches() const = 0;
    /// What the kernel counts for an event when it says how much its queue holds.
    virtual std::size_t bytesOfEvent() const = 0;
    virtual std::vector<FileID> numbers() const = 0;
    /// Reads what was queued when this began, and not for longer, whatever is queued meanwhile.
    virtual Result<void> drain(HintCollector& collector) = 0;
};

}  // namespace tarnwell::watch
