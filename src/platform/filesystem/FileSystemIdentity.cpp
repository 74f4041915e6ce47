#include <fcntl.h>
#include <linux/btrfs.h>
#include <linux/btrfs_tree.h>
#include <linux/magic.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "platform/base/SystemCall.h"
#include "platform/filesystem/Beneath.h"

namespace tarnwell::filesystem {
namespace {

constexpr std::uint64_t kXFS = 0x58465342;
constexpr std::uint64_t kSharedFolders = 0x786f4256;  // of a virtual machine
constexpr std::uint64_t kGFS2 = 0x01161970;
constexpr std::uint64_t kCIFS = 0xFF534D42;
constexpr std::uint64_t kSMB2 = 0xFE534D42;
constexpr std::uint64_t kCeph = 0x00C36400;

/// The answer of FS_IOC_GETFSUUID.
struct KernelUUID {
    std::uint8_t length;
    std::array<std::uint8_t, 16> bytes;
};
constexpr unsigned long kGetUUID = _IOR(0x15, 0, KernelUUID);

constexpr unsigned kSubvolumeWanted = 0x8000;
/// Where struct statx holds the subvolume; headers older than kernel 6.10 call the place spare.
constexpr std::size_t kSubvolumeOffset = 160;
static_assert(sizeof(struct statx) == 256);

std::string hexadecimal(std::span<const std::uint8_t> bytes) {
    static constexpr std::string_view kDigits = "0123456789abcdef";
    std::string text;
    for (const std::uint8_t byte : bytes) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
    }
    return text;
}

/// A descriptor that takes ioctls, for one that may only stand for a place.
Result<Descriptor> reopen(int descriptor) {
    struct stat status{};
    if (::fstat(descriptor, &status) != 0) return failedCall();
    if (!S_ISDIR(status.st_mode) && !S_ISREG(status.st_mode)) return failure(posixError(EINVAL));
    const int flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | (S_ISDIR(status.st_mode) ? O_DIRECTORY : 0);
    const int fd = untilNotInterrupted([&] { return ::open(pathOfDescriptor(descriptor).c_str(), flags); });
    if (fd < 0) return failedCall();
    return Descriptor(fd);
}

std::string storedIdentity(int descriptor, const struct statfs& about) {
    KernelUUID uuid{};
    const bool told = untilNotInterrupted([&] { return ::ioctl(descriptor, kGetUUID, &uuid); }) == 0;
    if (told && uuid.length > 0 && uuid.length <= uuid.bytes.size() &&
        std::ranges::any_of(uuid.bytes, [](std::uint8_t byte) { return byte != 0; })) {
        return "uuid:" + hexadecimal(std::span(uuid.bytes).first(uuid.length));
    }
    // Elsewhere the number is made from the device's number, which is another after the next start.
    const auto type = static_cast<std::uint64_t>(about.f_type);
    if (type != EXT4_SUPER_MAGIC && type != BTRFS_SUPER_MAGIC) return {};
    std::array<std::uint8_t, sizeof about.f_fsid> number{};
    std::memcpy(number.data(), &about.f_fsid, number.size());
    return "fsid:" + hexadecimal(number);
}

Result<std::uint64_t> subvolumeOf(int descriptor) {
    struct statx status{};
    const int done = untilNotInterrupted(
        [&] { return ::statx(descriptor, "", AT_EMPTY_PATH | AT_NO_AUTOMOUNT, kSubvolumeWanted, &status); });
    if (done == 0 && (status.stx_mask & kSubvolumeWanted) != 0) {
        std::uint64_t subvolume = 0;
        std::memcpy(&subvolume, reinterpret_cast<const char*>(&status) + kSubvolumeOffset, sizeof subvolume);
        return subvolume;
    }
    btrfs_ioctl_ino_lookup_args lookup{};
    lookup.objectid = BTRFS_FIRST_FREE_OBJECTID;
    if (untilNotInterrupted([&] { return ::ioctl(descriptor, BTRFS_IOC_INO_LOOKUP, &lookup); }) != 0) {
        return failedCall();
    }
    return lookup.treeid;
}

}  // namespace

Result<FileSystemIdentity> fileSystemIdentityOf(int descriptor) {
    auto open = reopen(descriptor);
    if (!open) return failure(open.error());
    struct statfs about{};
    if (untilNotInterrupted([&] { return ::fstatfs(open->get(), &about); }) != 0) return failedCall();
    const auto type = static_cast<std::uint64_t>(about.f_type);
    FileSystemIdentity result;
    result.identity = storedIdentity(open->get(), about);
    if (type == BTRFS_SUPER_MAGIC && !result.identity.empty()) {
        const auto subvolume = subvolumeOf(open->get());
        if (!subvolume) return failure(subvolume.error());
        result.identity += "/subvolume:" + std::to_string(*subvolume);
    }
    constexpr std::array<std::uint64_t, 5> kKeepingChangeTimes{EXT4_SUPER_MAGIC, kXFS, BTRFS_SUPER_MAGIC, TMPFS_MAGIC,
                                                               F2FS_SUPER_MAGIC};
    result.keepsChangeTimes = std::ranges::find(kKeepingChangeTimes, type) != kKeepingChangeTimes.end();
    return result;
}

bool isChangedElsewhere(int descriptor) {
    struct statfs about{};
    if (untilNotInterrupted([&] { return ::fstatfs(descriptor, &about); }) != 0) return false;
    constexpr std::array<std::uint64_t, 13> kShared{FUSE_SUPER_MAGIC,
                                                    NFS_SUPER_MAGIC,
                                                    SMB_SUPER_MAGIC,
                                                    kCIFS,
                                                    kSMB2,
                                                    V9FS_MAGIC,
                                                    AFS_SUPER_MAGIC,
                                                    AFS_FS_MAGIC,
                                                    CODA_SUPER_MAGIC,
                                                    kCeph,
                                                    OCFS2_SUPER_MAGIC,
                                                    kGFS2,
                                                    kSharedFolders};
    // The field is signed: a number with its highest bit set comes as a negative one.
    const auto type = static_cast<std::uint64_t>(about.f_type) & 0xFFFFFFFF;
    return std::ranges::find(kShared, type) != kShared.end();
}

}  // namespace tarnwell::filesystem
