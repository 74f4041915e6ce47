#include "platform/filesystem/Beneath.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstring>
#include <limits>

#include "platform/base/SystemCall.h"
#include "platform/filesystem/EntryName.h"

namespace tarnwell::filesystem {
namespace {

constexpr std::size_t kLongestPath = PATH_MAX - 1;
constexpr int kMaxAttempts = 64;

Result<Descriptor> openOnce(int folder, const char* relative, int flags, unsigned mode) {
    open_how how{};
    // The kernel refuses flags that mean nothing for a descriptor that only stands for a place.
    how.flags = static_cast<std::uint64_t>(flags) | O_CLOEXEC | ((flags & O_PATH) != 0 ? 0 : O_NONBLOCK);
    how.mode = mode;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    for (int attempt = 1;; ++attempt) {
        const long fd = untilNotInterrupted([&] { return ::syscall(SYS_openat2, folder, relative, &how, sizeof how); });
        if (fd >= 0) return Descriptor(static_cast<int>(fd));
        // A rename elsewhere can keep the kernel from being sure that the path stayed below the folder.
        if (errno != EAGAIN || attempt == kMaxAttempts) return failedCall();
    }
}

std::int64_t nanoseconds(const statx_timestamp& time) {
    std::int64_t result = 0;
    if (__builtin_mul_overflow(std::int64_t{time.tv_sec}, std::int64_t{1'000'000'000}, &result) ||
        __builtin_add_overflow(result, std::int64_t{time.tv_nsec}, &result)) {
        return time.tv_sec < 0 ? std::numeric_limits<std::int64_t>::min() : std::numeric_limits<std::int64_t>::max();
    }
    return result;
}

std::int64_t inPlaceOfBirth(std::uint32_t mode) { return S_ISREG(mode) ? 0 : -std::int64_t{(mode & S_IFMT) >> 12}; }

Result<Status> statusBy(int descriptor, const char* name, int flags) {
    struct statx from{};
    const int done = untilNotInterrupted([&] {
        return ::statx(descriptor, name, flags | AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT,
                       STATX_BASIC_STATS | STATX_BTIME | STATX_MNT_ID, &from);
    });
    if (done != 0) return failedCall();
    Status status;
    status.device = makedev(from.stx_dev_major, from.stx_dev_minor);
    status.inode = from.stx_ino;
    status.birth = (from.stx_mask & STATX_BTIME) != 0 ? nanoseconds(from.stx_btime) : inPlaceOfBirth(from.stx_mode);
    status.mode = from.stx_mode;
    status.links = from.stx_nlink;
    status.user = from.stx_uid;
    status.group = from.stx_gid;
    status.size = from.stx_size;
    status.modified = nanoseconds(from.stx_mtime);
    status.changed = nanoseconds(from.stx_ctime);
    status.immutable = (from.stx_attributes & STATX_ATTR_IMMUTABLE) != 0;
    if ((from.stx_mask & STATX_MNT_ID) != 0) status.mount = from.stx_mnt_id;
    return status;
}

constexpr std::size_t kDirectoryBuffer = 64 * 1024;

/// The head of one record of getdents64(2); the name follows it.
struct RecordHead {
    std::uint64_t inode;
    std::int64_t offset;
    std::uint16_t length;
    std::uint8_t type;
};
constexpr std::size_t kNameOffset = 19;

}  // namespace

Result<Descriptor> openBeneath(int folder, const std::string& relative, int flags, unsigned mode) {
    if (relative.find('\0') != std::string::npos) return failure(posixError(EINVAL));
    if (relative.size() <= kLongestPath) {
        return openOnce(folder, relative.empty() ? "." : relative.c_str(), flags, mode);
    }
    Descriptor held;
    int at = folder;
    std::size_t begin = 0;
    while (relative.size() - begin > kLongestPath) {
        const std::size_t slash = relative.rfind('/', begin + kLongestPath);
        if (slash == std::string::npos || slash <= begin) return failure(posixError(ENAMETOOLONG));
        const std::string part = relative.substr(begin, slash - begin);
        auto next = openOnce(at, part.c_str(), O_PATH | O_DIRECTORY, 0);
        if (!next) return next;
        held = std::move(*next);
        at = held.get();
        begin = slash + 1;
    }
    return openOnce(at, relative.c_str() + begin, flags, mode);
}

Result<Status> statusOf(int descriptor) { return statusBy(descriptor, "", AT_EMPTY_PATH); }

Result<Status> statusAt(int folder, const char* name) {
    if (!isEntryName(name)) return failure(posixError(EINVAL));
    return statusBy(folder, name, 0);
}

Result<Status> statusBeneath(int folder, const std::string& relative) {
    if (relative.empty()) return statusOf(folder);
    if (isEntryName(relative) && relative.find('\0') == std::string::npos) return statusBy(folder, relative.c_str(), 0);
    auto object = openBeneath(folder, relative, O_PATH | O_NOFOLLOW);
    if (!object) return failure(object.error());
    return statusOf(object->get());
}

DirectoryReader::DirectoryReader(int descriptor)
    : descriptor_(descriptor), buffer_(std::make_unique_for_overwrite<char[]>(kDirectoryBuffer)) {}

Result<bool> DirectoryReader::next(DirectoryEntry& entry) {
    if (!atBeginning_) {
        auto begun = rewind();
        if (!begun) return failure(begun.error());
    }
    for (;;) {
        if (position_ >= filled_) {
            const long count = untilNotInterrupted(
                [&] { return ::syscall(SYS_getdents64, descriptor_, buffer_.get(), kDirectoryBuffer); });
            if (count < 0) return failedCall();
            filled_ = static_cast<std::size_t>(count);
            position_ = 0;
            if (count == 0) return false;
        }
        RecordHead head{};
        const char* record = buffer_.get() + position_;
        std::memcpy(&head, record, kNameOffset);
        const char* name = record + kNameOffset;
        position_ += head.length;
        if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) continue;
        entry = {std::string_view(name), head.inode, head.type};
        return true;
    }
}

Result<void> DirectoryReader::rewind() {
    if (::lseek(descriptor_, 0, SEEK_SET) < 0) return failedCall();
    atBeginning_ = true;
    filled_ = position_ = 0;
    return {};
}

Result<std::uint32_t> countEntries(int folder, std::uint32_t limit) {
    DirectoryReader reader(folder);
    DirectoryEntry entry;
    std::uint32_t count = 0;
    while (count < limit) {
        auto more = reader.next(entry);
        if (!more) return failure(more.error());
        if (!*more) break;
        ++count;
    }
    auto back = reader.rewind();
    if (!back) return failure(back.error());
    return count;
}

Result<OpenParent> openParent(const Place& place) {
    const std::size_t slash = place.relative.rfind('/');
    const bool direct = slash == std::string::npos;
    auto folder = openBeneath(place.root->directory.get(), direct ? std::string() : place.relative.substr(0, slash),
                              O_PATH | O_DIRECTORY);
    if (!folder) return failure(folder.error());
    return OpenParent{std::move(*folder), direct ? place.relative : place.relative.substr(slash + 1)};
}

}  // namespace tarnwell::filesystem
