#pragma once

#include <memory>

#include "platform/watch/FanotifyGroup.h"
#include "platform/watch/Source.h"

namespace tarnwell::watch {

/// Directories of one file system under a single fanotify mark of the whole of it; needs CAP_SYS_ADMIN where the file
/// system was mounted. Watching a directory is remembering its handle, and no limit of the kernel counts it; in
/// exchange the kernel tells of every change on the file system, and those outside our directories are read and
/// dropped.
class FileSystemSource : public Source {
public:
    /// `directory` is any directory of the file system.
    static Result<std::unique_ptr<FileSystemSource>> create(const Directory& directory);

    std::string_view name() const override { return "fanotify on file system"; }
    int descriptor() const override { return group_.descriptor(); }
    Result<void> watch(const Directory& directory, FileID number) override;
    void unwatch(FileID number) override { group_.remove(number); }
    bool isWatched(FileID number) const override { return group_.isWatched(number); }
    std::size_t watches() const override { return group_.watches(); }
    std::vector<FileID> numbers() const override { return group_.numbers(); }
    Result<void> drain(HintCollector& collector) override { return group_.drain(collector); }

private:
    explicit FileSystemSource(FanotifyGroup group) : group_(std::move(group)) {}
    FanotifyGroup group_;
};

}  // namespace tarnwell::watch
