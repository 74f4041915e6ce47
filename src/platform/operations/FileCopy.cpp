#include "platform/operations/FileCopy.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <memory>

#include "platform/base/SystemCall.h"
#include "platform/operations/OpenFolder.h"

namespace tarnwell::operations {
namespace {

constexpr std::uint64_t kMostBetweenLooks = 8 << 20;
constexpr std::size_t kBuffer = 1 << 20;

Result<void> advance(TransferMonitor* monitor, std::uint64_t bytes) {
    return monitor != nullptr ? monitor->advance(bytes, 0) : Result<void>();
}

Error changedError() { return posixError(EBUSY, "it is being changed"); }

Result<void> writeAll(int target, const char* bytes, std::size_t count, std::uint64_t at) {
    while (count > 0) {
        const ssize_t written =
            untilNotInterrupted([&] { return ::pwrite(target, bytes, count, static_cast<off_t>(at)); });
        if (written < 0) return failedCall();
        if (written == 0) return failure(posixError(EIO));
        bytes += written;
        at += static_cast<std::uint64_t>(written);
        count -= static_cast<std::size_t>(written);
    }
    return {};
}

/// Copies ranges, in the kernel for as long as that works for this pair of files.
class RangeCopy {
public:
    RangeCopy(int source, int target, TransferMonitor* monitor) : source_(source), target_(target), monitor_(monitor) {}

    Result<void> copy(std::uint64_t from, std::uint64_t end) {
        while (from < end) {
            const auto moved = step(from, std::min(end - from, kMostBetweenLooks));
            if (!moved) return failure(moved.error());
            // Shorter than it was said to be.
            if (*moved == 0) return failure(changedError());
            from += *moved;
            if (auto told = advance(monitor_, *moved); !told) return told;
        }
        return {};
    }

private:
    Result<std::uint64_t> step(std::uint64_t from, std::uint64_t count) {
        if (inKernel_) {
            off64_t in = static_cast<off64_t>(from), out = in;
            const ssize_t copied =
                untilNotInterrupted([&] { return ::copy_file_range(source_, &in, target_, &out, count, 0); });
            if (copied > 0) return static_cast<std::uint64_t>(copied);
            // Refused for these two, or nothing to be had this way: the plain way tells what is the matter.
            inKernel_ = false;
        }
        if (!buffer_) buffer_ = std::make_unique_for_overwrite<char[]>(kBuffer);
        const std::size_t wanted = std::min<std::uint64_t>(count, kBuffer);
        const ssize_t got =
            untilNotInterrupted([&] { return ::pread(source_, buffer_.get(), wanted, static_cast<off_t>(from)); });
        if (got < 0) return failedCall();
        if (auto written = writeAll(target_, buffer_.get(), static_cast<std::size_t>(got), from); !written) {
            return failure(written.error());
        }
        return static_cast<std::uint64_t>(got);
    }

    const int source_, target_;
    TransferMonitor* const monitor_;
    bool inKernel_ = true;
    std::unique_ptr<char[]> buffer_;
};

Result<void> copyRanges(int source, int target, std::uint64_t size, TransferMonitor* monitor) {
    RangeCopy ranges(source, target, monitor);
    std::uint64_t at = 0, reached = 0;
    while (at < size) {
        std::uint64_t begin = at, end = size;
        const off_t data = ::lseek(source, static_cast<off_t>(at), SEEK_DATA);
        if (data >= 0) {
            begin = std::min<std::uint64_t>(static_cast<std::uint64_t>(data), size);
            const off_t hole = ::lseek(source, data, SEEK_HOLE);
            if (hole > data) end = std::min<std::uint64_t>(static_cast<std::uint64_t>(hole), size);
        } else if (errno == ENXIO) {
            begin = size;
        }
        // A hole is done as soon as it is known.
        if (auto told = advance(monitor, begin - at); !told) return told;
        if (begin < size) {
            if (auto copied = ranges.copy(begin, end); !copied) return copied;
            reached = end;
        }
        at = begin < size ? end : size;
    }
    if (reached == size) return {};
    // A hole at the end.
    if (untilNotInterrupted([&] { return ::ftruncate(target, static_cast<off_t>(size)); }) != 0) return failedCall();
    return {};
}

/// Files of the kernel's have content that their size does not tell.
Result<void> checkEnd(int source, std::uint64_t size) {
    char byte;
    const ssize_t more = untilNotInterrupted([&] { return ::pread(source, &byte, 1, static_cast<off_t>(size)); });
    if (more < 0) return failedCall();
    return more == 0 ? Result<void>() : failure(changedError());
}

bool isCopiedAttribute(std::string_view name) {
    return name.starts_with("user.") || name == "system.posix_acl_access" || name == "system.posix_acl_default";
}

/// The names, each ended by a NUL. The kernel gives no longer list than that of values.
Result<std::string> attributeList(int source) {
    std::array<char, 1024> few;
    const ssize_t size = untilNotInterrupted([&] { return ::flistxattr(source, few.data(), few.size()); });
    if (size >= 0) return std::string(few.data(), static_cast<std::size_t>(size));
    if (errno == EOPNOTSUPP) return std::string();
    if (errno != ERANGE) return failedCall();
    std::string list(filesystem::kMaxAttributeBytes, '\0');
    const ssize_t got = untilNotInterrupted([&] { return ::flistxattr(source, list.data(), list.size()); });
    if (got < 0) return failedCall();
    list.resize(static_cast<std::size_t>(got));
    return list;
}

Result<void> copyAttributes(int source, int target) {
    const auto list = attributeList(source);
    if (!list) return failure(list.error());
    std::string value;
    for (std::size_t at = 0; at < list->size(); at += std::char_traits<char>::length(list->c_str() + at) + 1) {
        const char* name = list->c_str() + at;
        if (!isCopiedAttribute(name)) continue;
        value.resize(filesystem::kMaxAttributeBytes);
        const ssize_t size = untilNotInterrupted([&] { return ::fgetxattr(source, name, value.data(), value.size()); });
        if (size < 0) {
            if (errno == ENODATA) continue;
            return failedCall();
        }
        const int set = untilNotInterrupted(
            [&] { return ::fsetxattr(target, name, value.data(), static_cast<std::size_t>(size), 0); });
        if (set == 0 || errno == EOPNOTSUPP) continue;
        const int code = errno;
        return failure(posixError(code, std::string("its attribute \"") + name +
                                            "\" cannot be kept at its new place: " +
                                            (code == ENOSPC ? "there is no room for it" : errnoName(code))));
    }
    return {};
}

}  // namespace

Result<void> copyContent(int source, int target, std::uint64_t size, TransferMonitor* monitor) {
    if (monitor != nullptr) {
        if (auto asked = monitor->check(); !asked) return asked;
    }
    if (size > 0 && untilNotInterrupted([&] { return ::ioctl(target, FICLONE, source); }) == 0) {
        return advance(monitor, size);
    }
    if (auto copied = copyRanges(source, target, size, monitor); !copied) return copied;
    return checkEnd(source, size);
}

Result<void> copyMetadata(int source, int target, CopiedOwner owner) {
    struct stat status{};
    if (::fstat(source, &status) != 0) return failedCall();
    mode_t mode = status.st_mode & 07777;
    const bool isOwned = owner == CopiedOwner::ofSource && ::fchown(target, status.st_uid, status.st_gid) == 0;
    // Another owner must not come by the rights of a program.
    if (!isOwned && !S_ISDIR(status.st_mode)) mode &= ~static_cast<mode_t>(S_ISUID | S_ISGID);
    if (::fchmod(target, mode) != 0) return failedCall();
    if (auto copied = copyAttributes(source, target); !copied) return copied;
    const std::array<struct timespec, 2> times{status.st_atim, status.st_mtim};
    if (::futimens(target, times.data()) != 0) return failedCall();
    return {};
}

Result<void> copyFile(int source, int target, CopiedOwner owner, TransferMonitor* monitor) {
    const TransferProgress begin = monitor != nullptr ? monitor->progress() : TransferProgress();
    for (int attempt = 1;; ++attempt) {
        const auto before = filesystem::statusOf(source);
        if (!before) return failure(before.error());
        auto copied = copyContent(source, target, before->size, monitor);
        if (copied) copied = copyMetadata(source, target, owner);
        if (!copied && !copied.error().is(ErrorDomain::posix, EBUSY)) return copied;
        const auto after = filesystem::statusOf(source);
        if (!after) return failure(after.error());
        if (copied && isUnchanged(*before, *after)) return {};
        if (attempt == 2) return failure(changedError());
        if (untilNotInterrupted([&] { return ::ftruncate(target, 0); }) != 0) return failedCall();
        if (monitor != nullptr) monitor->rewindTo(begin);
    }
}

}  // namespace tarnwell::operations
