#pragma once

#include <sys/inotify.h>

#include <memory>
#include <unordered_map>
#include <vector>

#include "platform/base/Descriptor.h"
#include "platform/watch/InotifyRecords.h"
#include "platform/watch/Source.h"

namespace tarnwell::watch {

/// Directories of any file system, each with an inotify watch of its own.
///
/// The kernel names a watch by a small number (wd) that it may give again once the watch has ended, while the queue
/// still holds events of the old one. What keeps the two apart: W1  What was queued before a pass over the queue began
/// is not in it any more when the pass is over. W2  A watch that we end stays in `watches_`, unwanted, until the next
/// pass is over; its events are dropped. W3  A number that comes back for another object is followed by the old one's
/// IN_IGNORED in the queue, unless that was
///     lost: until it comes, and at most to the end of the next pass, events of that number are dropped.
class InotifySource : public Source {
public:
    static Result<std::unique_ptr<InotifySource>> create();

    std::string_view name() const override { return "inotify"; }
    int descriptor() const override { return queue_.get(); }
    Result<void> watch(const Directory& directory, FileID number) override;
    void unwatch(FileID number) override;
    bool isWatched(FileID number) const override { return numbers_.contains(number); }
    std::size_t watches() const override { return numbers_.size(); }
    std::size_t bytesOfEvent() const override { return sizeof(inotify_event) + 16; }
    std::vector<FileID> numbers() const override;
    Result<void> drain(HintCollector& collector) override;

private:
    enum class State : std::uint8_t { wanted, leaving, removed };
    struct Watch {
        FileID number;
        dev_t device;
        ino_t inode;
        State state = State::wanted;
        bool dropsOldEvents = false;  // W3
    };

    explicit InotifySource(Descriptor queue) : queue_(std::move(queue)) {}
    Result<int> addWatch(const Directory& directory);
    void removeSomeLeaving();
    Result<void> pass(HintCollector& collector);
    void handle(const InotifyRecord& record, HintCollector& collector);

    Descriptor queue_;
    std::unordered_map<int, Watch> watches_;
    std::unordered_map<FileID, int> numbers_;  // of the wanted ones
    std::vector<int> leaving_;                 // may name ones that are wanted again
    std::vector<int> removed_;
    std::vector<int> dropping_;
    std::vector<FileID> replaced_;  // numbers whose watch the kernel had ended when its wd came back
};

}  // namespace tarnwell::watch
