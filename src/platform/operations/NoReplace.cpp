#include "platform/operations/NoReplace.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "platform/base/Descriptor.h"
#include "platform/base/SystemCall.h"
#include "platform/operations/OpenFolder.h"

namespace tarnwell::operations {
namespace {

/// True where the file system has no second names, as those of sticks and cameras.
bool hasNoLinks(int error) { return error == EPERM || error == EOPNOTSUPP || error == ENOSYS || error == EINVAL; }

/// A file takes the place of an empty one that was made for it. Whoever finds that one and writes to it meanwhile keeps
/// it.
Result<void> renameOverEmptyFile(int folder, const char* name, int newFolder, const char* newName) {
    const Descriptor place(static_cast<int>(untilNotInterrupted(
        [&] { return ::openat(newFolder, newName, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600); })));
    if (place.get() < 0) return failedCall();
    const auto made = filesystem::statusOf(place.get());
    const auto isAsMade = [&] {
        const auto there = filesystem::statusAt(newFolder, newName);
        const auto now = filesystem::statusOf(place.get());
        return made && there && now && isSameObject(*there, *made) && now->size == 0;
    };
    Result<void> done = failure(posixError(EEXIST));
    if (isAsMade()) {
        if (untilNotInterrupted([&] { return ::renameat(folder, name, newFolder, newName); }) == 0) return {};
        done = failedCall();
    }
    if (isAsMade()) (void)::unlinkat(newFolder, newName, 0);
    return done;
}

Result<void> linkThenUnlink(int folder, const char* name, int newFolder, const char* newName) {
    if (untilNotInterrupted([&] { return ::linkat(folder, name, newFolder, newName, 0); }) != 0) {
        return hasNoLinks(errno) ? renameOverEmptyFile(folder, name, newFolder, newName) : failedCall();
    }
    // A first name that somebody gave to something else meanwhile is theirs; then this one is only a second name.
    const auto old = filesystem::statusAt(folder, name), put = filesystem::statusAt(newFolder, newName);
    if (old && put && !isSameObject(*old, *put)) return {};
    if (untilNotInterrupted([&] { return ::unlinkat(folder, name, 0); }) == 0) return {};
    auto failed = failedCall();
    // Only if it still is the second name of the same file: somebody may have put another one there.
    const auto first = filesystem::statusAt(folder, name), second = filesystem::statusAt(newFolder, newName);
    if (first && second && isSameObject(*first, *second)) (void)::unlinkat(newFolder, newName, 0);
    return failed;
}

Result<void> renameOverEmptyFolder(int folder, const char* name, int newFolder, const char* newName) {
    if (untilNotInterrupted([&] { return ::mkdirat(newFolder, newName, 0700); }) != 0) return failedCall();
    // A folder takes the place of an empty one only, so that nothing can be lost here.
    if (untilNotInterrupted([&] { return ::renameat(folder, name, newFolder, newName); }) == 0) return {};
    auto failed = failedCall();
    (void)::unlinkat(newFolder, newName, AT_REMOVEDIR);
    return failed;
}

}  // namespace

Result<void> renameWithoutReplacing(int folder, const std::string& name, int newFolder, const std::string& newName,
                                    bool isFolder) {
    const int done = untilNotInterrupted(
        [&] { return ::renameat2(folder, name.c_str(), newFolder, newName.c_str(), RENAME_NOREPLACE); });
    if (done == 0) return {};
    if (errno != EINVAL && errno != ENOSYS && errno != EOPNOTSUPP) return failedCall();
    return isFolder ? renameOverEmptyFolder(folder, name.c_str(), newFolder, newName.c_str())
                    : linkThenUnlink(folder, name.c_str(), newFolder, newName.c_str());
}

}  // namespace tarnwell::operations
