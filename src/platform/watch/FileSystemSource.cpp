#include "platform/watch/FileSystemSource.h"

#include <sys/fanotify.h>

#include <fcntl.h>

#include "platform/base/SystemCall.h"

namespace tarnwell::watch {

Result<std::unique_ptr<FileSystemSource>> FileSystemSource::create(const Directory& directory) {
    auto group = FanotifyGroup::create();
    if (!group) return failure(group.error());
    if (::fanotify_mark(group->descriptor(), FAN_MARK_ADD | FAN_MARK_FILESYSTEM, kFanotifyEvents, AT_FDCWD,
                        pathOfDescriptor(directory.descriptor).c_str()) != 0)
        return failedCall();
    return std::unique_ptr<FileSystemSource>(new FileSystemSource(std::move(*group)));
}

Result<void> FileSystemSource::watch(const Directory& directory, FileID number) {
    group_.remove(number);
    if (!directory.handle) return failure(posixError(EOPNOTSUPP, "the file system has no lasting file handles"));
    group_.put(*directory.handle, number, FanotifyGroup::Standing::watched);
    return {};
}

}  // namespace tarnwell::watch
