#pragma once

#include <memory>

#include "platform/watch/FanotifyGroup.h"
#include "platform/watch/Source.h"

namespace tarnwell::watch {

/// Directories of one file system, each with a fanotify mark of its own; needs no privilege.
///
/// A mark can only be taken off an open directory, and `unwatch` has none: the mark then stays until the directory is
/// removed or the source is destroyed, its events are dropped, and watching the directory again uses it.
class FanotifySource : public Source {
public:
    static Result<std::unique_ptr<FanotifySource>> create();

    std::string_view name() const override { return "fanotify"; }
    int descriptor() const override { return group_.descriptor(); }
    /// True when the directory is watched here, under whichever number.
    bool knows(const Directory& directory) const { return directory.handle && group_.isWatched(*directory.handle); }
    Result<void> watch(const Directory& directory, FileID number) override;
    void unwatch(FileID number) override { group_.remove(number); }
    bool isWatched(FileID number) const override { return group_.isWatched(number); }
    std::size_t watches() const override { return group_.watches(); }
    std::vector<FileID> numbers() const override { return group_.numbers(); }
    Result<void> drain(HintCollector& collector) override { return group_.drain(collector); }

private:
    explicit FanotifySource(FanotifyGroup group) : group_(std::move(group)) {}
    FanotifyGroup group_;
};

}  // namespace tarnwell::watch
