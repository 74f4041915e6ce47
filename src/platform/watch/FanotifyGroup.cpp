#include "platform/watch/FanotifyGroup.h"

#include <sys/fanotify.h>

#include <fcntl.h>

#include "platform/base/SystemCall.h"
#include "platform/watch/QueueReading.h"

namespace tarnwell::watch {
namespace {

constexpr std::uint64_t kNameEvents = FAN_CREATE | FAN_DELETE | FAN_MOVED_FROM | FAN_MOVED_TO;

}  // namespace

// FAN_RENAME would tell both names of a move in one event; two hints are all that is made of it.
const std::uint64_t kFanotifyEvents =
    kNameEvents | FAN_MODIFY | FAN_ATTRIB | FAN_CLOSE_WRITE | FAN_DELETE_SELF | FAN_ONDIR;

Result<FanotifyGroup> FanotifyGroup::create() {
    // The object's own handle (FAN_REPORT_TARGET_FID) is not asked for: a hint is a directory and a name, and events of
    // one name merge better without. The queue keeps its limit: a consumer that falls behind compares, which has an
    // end, while the memory of an unlimited queue has none.
    Descriptor queue(
        ::fanotify_init(FAN_CLASS_NOTIF | FAN_REPORT_DFID_NAME | FAN_NONBLOCK | FAN_CLOEXEC, O_RDONLY | O_LARGEFILE));
    if (!queue.valid()) {
        if (errno == EMFILE) return failure(posixError(EMFILE, "no fanotify group or descriptor left"));
        return failedCall();
    }
    return FanotifyGroup(std::move(queue));
}

bool FanotifyGroup::isWatched(FileID number) const {
    auto found = numbers_.find(number);
    return found != numbers_.end() && found->second->second.standing == Standing::watched;
}

bool FanotifyGroup::isWatched(const FileHandle& handle) const {
    auto found = entries_.find(handle.bytes());
    return found != entries_.end() && found->second.standing == Standing::watched;
}

void FanotifyGroup::put(const FileHandle& handle, FileID number, Standing standing) {
    if (auto before = entries_.find(handle.bytes()); before != entries_.end()) erase(before);
    auto entry = entries_.emplace(handle.bytes(), Entry{number, standing}).first;
    numbers_[number] = &*entry;
    if (standing == Standing::watched) ++watches_;
}

void FanotifyGroup::remove(FileID number) {
    if (auto found = numbers_.find(number); found != numbers_.end()) erase(entries_.find(found->second->first));
}

void FanotifyGroup::erase(Entries::iterator entry) {
    if (entry->second.standing == Standing::watched) --watches_;
    numbers_.erase(entry->second.number);
    entries_.erase(entry);
}

std::vector<FileID> FanotifyGroup::numbers() const {
    std::vector<FileID> numbers;
    numbers.reserve(watches_);
    for (const auto& [handle, entry] : entries_)
        if (entry.standing == Standing::watched) numbers.push_back(entry.number);
    return numbers;
}

Result<void> FanotifyGroup::drain(HintCollector& collector) {
    auto queued = queuedNow(descriptor());
    if (!queued) return failure(queued.error());
    if (*queued == 0) return {};
    // The kernel counts the fixed part of each event, so this is how many there are, or more.
    std::size_t left = *queued / sizeof(fanotify_event_metadata);
    return readQueue(descriptor(), [&](ByteView bytes) {
        std::uint64_t events = 0;
        while (auto record = takeFanotifyRecord(bytes)) {
            ++events;
            handle(*record, collector);
        }
        if (!bytes.empty()) collector.addOverflow();
        collector.addEvents(events);
        if (events >= left) return false;
        left -= events;
        return true;
    });
}

void FanotifyGroup::handle(const FanotifyRecord& record, HintCollector& collector) {
    if ((record.mask & FAN_Q_OVERFLOW) != 0) {
        collector.addOverflow();
        return;
    }
    auto found = entries_.find(record.directory);
    if (found == entries_.end()) return;
    const Entry entry = found->second;
    if ((record.mask & FAN_DELETE_SELF) != 0) {
        erase(found);
        if (entry.standing == Standing::watched) collector.addUnwatched(entry.number);
        return;
    }
    collector.add(entry.number, record.name, (record.mask & kNameEvents) != 0);
}

}  // namespace tarnwell::watch
