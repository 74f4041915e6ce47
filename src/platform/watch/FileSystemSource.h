#pragma once

#include <memory>

#include "platform/watch/GroupSource.h"

namespace tarnwell::watch {

/// Directories of one file system under a single fanotify mark of the whole of it; needs CAP_SYS_ADMIN where the file
/// system was mounted. Watching a directory is remembering its handle, and no limit of the kernel counts it; in
/// exchange the kernel tells of every change on the file system, and those outside our directories are read and
/// dropped.
class FileSystemSource : public GroupSource {
public:
    /// `directory` is any directory of the file system.
    static Result<std::unique_ptr<FileSystemSource>> create(const Directory& directory);

    std::string_view name() const override { return "fanotify on file system"; }
    Result<void> watch(const Directory& directory, FileID number) override;

private:
    explicit FileSystemSource(FanotifyGroup group) : GroupSource(std::move(group)) {}
};

}  // namespace tarnwell::watch
