#include "platform/caller/ProcessFolder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "platform/base/SystemCall.h"

namespace tarnwell::caller {
namespace {

constexpr std::size_t kFirstRead = 4096;

Result<Descriptor> openBelow(int folder, const char* name, int flags) {
    const int fd = untilNotInterrupted([&] { return ::openat(folder, name, flags | O_CLOEXEC); });
    if (fd < 0) return failedCall();
    return Descriptor(fd);
}

/// Files of procfs claim to be empty, so their end is where reading ends.
Result<std::string> readAll(int file, std::size_t limit) {
    std::string text(std::min(limit + 1, kFirstRead), '\0');
    std::size_t filled = 0;
    for (;;) {
        const ssize_t count =
            untilNotInterrupted([&] { return ::read(file, text.data() + filled, text.size() - filled); });
        if (count < 0) return failedCall();
        if (count == 0) break;
        filled += static_cast<std::size_t>(count);
        if (filled > limit) return failure(posixError(EFBIG));
        if (filled == text.size()) text.resize(std::min(text.size() * 2, limit + 1));
    }
    text.resize(filled);
    return text;
}

}  // namespace

Result<ObjectHandle> ObjectHandle::open(int folder, const char* name, Links links) {
    auto descriptor = openBelow(folder, name, O_PATH | (links == Links::refuse ? O_NOFOLLOW : 0));
    if (!descriptor) return failure(descriptor.error());
    // Without a question to the file system: one that runs as a process of the sandbox might never answer.
    struct statx status{};
    if (::statx(descriptor->get(), "", AT_EMPTY_PATH | AT_STATX_DONT_SYNC, STATX_INO | STATX_MNT_ID, &status) != 0) {
        return failedCall();
    }
    if ((status.stx_mask & STATX_MNT_ID) == 0) return failure(posixError(EOPNOTSUPP));
    const std::uint64_t device = (std::uint64_t{status.stx_dev_major} << 32) | status.stx_dev_minor;
    return ObjectHandle(std::move(*descriptor), {device, status.stx_ino}, status.stx_mnt_id);
}

Result<ProcessFolder> ProcessFolder::open(const std::string& path) {
    auto folder = openBelow(AT_FDCWD, path.c_str(), O_RDONLY | O_DIRECTORY);
    if (!folder) return failure(folder.error());
    return ProcessFolder(std::move(*folder));
}

Result<std::string> ProcessFolder::read(const char* name, std::size_t limit) const {
    const auto file = openBelow(folder_.get(), name, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW);
    if (!file) return failure(file.error());
    return readAll(file->get(), limit);
}

Result<ObjectNumber> ProcessFolder::namespaceNumber(const std::string& kind) const {
    const auto handle = ObjectHandle::open(folder_.get(), ("ns/" + kind).c_str(), ObjectHandle::Links::follow);
    if (!handle) return failure(handle.error());
    return handle->number();
}

Result<ObjectHandle> ProcessFolder::root() const {
    return ObjectHandle::open(folder_.get(), "root", ObjectHandle::Links::follow);
}

Result<std::string> readRegularFile(const ObjectHandle& file, std::size_t limit) {
    struct stat status{};
    if (::fstat(file.descriptor(), &status) != 0) return failedCall();
    if (!S_ISREG(status.st_mode)) return failure(posixError(EINVAL));
    const std::string path = pathOfDescriptor(file.descriptor());
    const auto open = openBelow(AT_FDCWD, path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY);
    if (!open) return failure(open.error());
    return readAll(open->get(), limit);
}

}  // namespace tarnwell::caller
