#pragma once

#include <sys/fanotify.h>

#include <vector>

#include "platform/watch/FanotifyGroup.h"
#include "platform/watch/Source.h"

namespace tarnwell::watch {

/// A source that is one fanotify group; what differs is how a directory comes to be told of.
class GroupSource : public Source {
public:
    int descriptor() const override { return group_.descriptor(); }
    void unwatch(FileID number) override { group_.remove(number); }
    bool isWatched(FileID number) const override { return group_.isWatched(number); }
    std::size_t watches() const override { return group_.watches(); }
    /// The head of an event, whatever names follow it.
    std::size_t bytesOfEvent() const override { return FAN_EVENT_METADATA_LEN; }
    std::vector<FileID> numbers() const override { return group_.numbers(); }
    Result<void> drain(HintCollector& collector) override { return group_.drain(collector); }

protected:
    explicit GroupSource(FanotifyGroup group) : group_(std::move(group)) {}
    FanotifyGroup group_;
};

}  // namespace tarnwell::watch
