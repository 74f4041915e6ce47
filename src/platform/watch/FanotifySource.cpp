#include "platform/watch/FanotifySource.h"

#include <sys/fanotify.h>

#include <fcntl.h>

#include "platform/base/SystemCall.h"

namespace tarnwell::watch {
namespace {

Result<void> mark(int group, int directory) {
    const std::uint64_t events = kFanotifyEvents | FAN_EVENT_ON_CHILD;
    // Through "." where the directory may be searched: half the time of a look-up in /proc.
    if (::fanotify_mark(group, FAN_MARK_ADD | FAN_MARK_ONLYDIR, events, directory, ".") == 0) return {};
    if (errno == EACCES && ::fanotify_mark(group, FAN_MARK_ADD | FAN_MARK_ONLYDIR, events, AT_FDCWD,
                                           pathOfDescriptor(directory).c_str()) == 0)
        return {};
    if (errno == ENOSPC) return failure(posixError(ENOSPC, "no fanotify mark left (fs.fanotify.max_user_marks)"));
    return failedCall();
}

}  // namespace

Result<std::unique_ptr<FanotifySource>> FanotifySource::create() {
    auto group = FanotifyGroup::create();
    if (!group) return failure(group.error());
    return std::unique_ptr<FanotifySource>(new FanotifySource(std::move(*group)));
}

Result<void> FanotifySource::watch(const Directory& directory, FileID number) {
    group_.remove(number);
    if (!directory.handle) return failure(posixError(EOPNOTSUPP, "the file system has no lasting file handles"));
    auto marked = mark(group_.descriptor(), directory.descriptor);
    if (!marked && refusalOf(marked.error()) != Refusal::final) return marked;
    group_.put(*directory.handle, number, marked ? FanotifyGroup::Standing::watched : FanotifyGroup::Standing::refused);
    return marked;
}

}  // namespace tarnwell::watch
