#pragma once

#include <memory>

#include "platform/watch/GroupSource.h"

namespace tarnwell::watch {

/// Directories of one file system, each with a fanotify mark of its own; needs no privilege.
///
/// A mark can only be taken off an open directory, and `unwatch` has none: the mark then stays until the directory is
/// removed or the source is destroyed, its events are dropped, and watching the directory again uses it.
class FanotifySource : public GroupSource {
public:
    static Result<std::unique_ptr<FanotifySource>> create();

    std::string_view name() const override { return "fanotify"; }
    /// True when the directory is watched here, under whichever number.
    bool knows(const Directory& directory) const { return directory.handle && group_.isWatched(*directory.handle); }
    Result<void> watch(const Directory& directory, FileID number) override;

private:
    explicit FanotifySource(FanotifyGroup group) : GroupSource(std::move(group)) {}
};

}  // namespace tarnwell::watch
