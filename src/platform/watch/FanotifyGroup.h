#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/base/Descriptor.h"
#include "platform/watch/FanotifyRecords.h"
#include "platform/watch/Source.h"

namespace tarnwell::watch {

/// A fanotify group that reports directories by handle and entries by name, and the numbers of the directories by their
/// handles. Which marks feed it is the affair of the two sources that have one. A handle is never another object's, so
/// an event is never told under a wrong number, however old it is.
class FanotifyGroup {
public:
    /// Fails with EMFILE at the limit of groups, and where the kernel has no such groups for this process.
    static Result<FanotifyGroup> create();

    int descriptor() const { return queue_.get(); }
    std::size_t watches() const { return watches_; }
    bool isWatched(FileID number) const;
    bool isWatched(const FileHandle& handle) const;

    enum class Standing : std::uint8_t {
        watched,
        /// Has no watch, but its parent may have one, which tells what happens to the directory's own attributes under
        /// the directory's handle.
        refused,
    };
    /// Gives the handle that number, which stands for nothing yet; another number of the handle stands for nothing
    /// then.
    void put(const FileHandle& handle, FileID number, Standing standing);
    void remove(FileID number);
    std::vector<FileID> numbers() const;  ///< of the watched ones
    Result<void> drain(HintCollector& collector);

private:
    struct Entry {
        FileID number;
        Standing standing;
    };
    using Entries = std::unordered_map<std::string, Entry>;

    explicit FanotifyGroup(Descriptor queue) : queue_(std::move(queue)) {}
    void erase(Entries::iterator entry);
    void handle(const FanotifyRecord& record, HintCollector& collector);

    Descriptor queue_;
    Entries entries_;                                             // by the handle's bytes
    std::unordered_map<FileID, Entries::const_pointer> numbers_;  // into entries_, whose elements stay where they are
    std::size_t watches_ = 0;
};

/// What is asked of a mark, of either kind.
extern const std::uint64_t kFanotifyEvents;

}  // namespace tarnwell::watch
