#include "platform/operations/NoReplace.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "platform/base/SystemCall.h"
#include "platform/operations/OpenFolder.h"

namespace tarnwell::operations {
namespace {

Result<void> linkThenUnlink(int folder, const char* name, int newFolder, const char* newName) {
    if (untilNotInterrupted([&] { return ::linkat(folder, name, newFolder, newName, 0); }) != 0) return failedCall();
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
