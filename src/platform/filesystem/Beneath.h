#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base/Descriptor.h"
#include "platform/base/Ids.h"
#include "platform/base/Result.h"
#include "platform/filesystem/Access.h"
#include "platform/filesystem/Roots.h"

/// System calls below an open folder. Nothing here follows a link or leaves the folder it is given; one wrapper a call,
/// EINTR settled inside. Errors are POSIX errors with the call's errno and no user info. A name that is empty, "." or
/// "..", or that holds a slash, is EINVAL where a direct entry is asked for. /proc has to be mounted. Any thread may
/// call.
namespace tarnwell::filesystem {

/// What statx(2) tells of one object, links not followed.
struct Status {
    std::uint64_t device = 0;  ///< of this mount of the file system; changes between mounts
    std::uint64_t inode = 0;
    std::int64_t birth = 0;  ///< birth time, nanoseconds since 1970. Times that do not fit 64 bits (past the year 2262)
                             ///< become the nearest that does. Where the file system keeps none: see isBirthTime
    std::uint32_t mode = 0;  ///< st_mode, type bits included
    std::uint32_t links = 0;
    std::uint32_t user = 0;
    std::uint32_t group = 0;
    std::uint64_t size = 0;
    std::int64_t modified = 0;  ///< nanoseconds since 1970
    std::int64_t changed = 0;   ///< nanoseconds since 1970
    bool immutable = false;     ///< nobody may change it, root included
    std::uint64_t mount = 0;    ///< number of the mount that it was reached through; 0 where the kernel tells none
};

/// False for what stands for the birth time where a file system keeps none: 0 for a file, a small negative number for
/// each other kind of object. There an inode number may be used again at once, and a folder that got a removed file's
/// number is at least not taken for that file.
constexpr bool isBirthTime(std::int64_t birth) { return birth > 0 || birth < -std::int64_t{S_IFMT >> 12}; }

/// Opens `relative` ("" is the folder itself) below the folder: openat2(2) with RESOLVE_BENEATH, RESOLVE_NO_SYMLINKS
/// and RESOLVE_NO_MAGICLINKS, O_CLOEXEC and O_NONBLOCK added. ELOOP where a link stands on the way (also at the end,
/// unless flags hold O_PATH | O_NOFOLLOW: then the link itself is opened), EXDEV where the path would leave the folder.
/// A path of any length will do: one longer than the kernel takes is opened in parts.
Result<Descriptor> openBeneath(int folder, const std::string& relative, int flags, unsigned mode = 0);

/// The status of an open object (O_PATH will do).
Result<Status> statusOf(int descriptor);
/// The status of a direct entry of the folder; `name` holds no slash.
Result<Status> statusAt(int folder, const char* name);
/// The status of a place below the folder; no link is followed.
Result<Status> statusBeneath(int folder, const std::string& relative);

/// One entry as getdents64(2) gives it; "." and ".." are left out. The name lives until the next call of `next`.
struct DirectoryEntry {
    std::string_view name;  ///< followed by a NUL
    std::uint64_t inode = 0;
    std::uint8_t type = 0;  ///< DT_…
};

/// Reads the entries of an open folder (opened for reading, and not owned) from its beginning. One thread at a time.
class DirectoryReader {
public:
    explicit DirectoryReader(int descriptor);
    /// Fills `entry`; false at the end. The buffer is 64 KiB.
    Result<bool> next(DirectoryEntry& entry);
    /// Starts over.
    Result<void> rewind();

private:
    int descriptor_;
    std::unique_ptr<char[]> buffer_;
    std::size_t filled_ = 0, position_ = 0;
    bool atBeginning_ = false;
};

/// The number of entries of an open folder, "." and ".." left out, counted up to `limit`. The folder is open for
/// reading; its position is at its beginning afterwards.
Result<std::uint32_t> countEntries(int folder, std::uint32_t limit);

inline constexpr std::size_t kMaxAttributeBytes = 64 * 1024;

/// Names of the extended attributes in the "user." space, without that prefix, and whether there is a POSIX ACL
/// ("system.posix_acl_access"). Links are not followed.
struct AttributeNames {
    std::vector<std::string> user;
    bool hasAccessList = false;
};
/// Of a direct entry of the folder: listxattrat(2) where the kernel has it, else llistxattr of "/proc/self/fd/N/name".
Result<AttributeNames> attributeNamesAt(int folder, const char* name);
Result<AttributeNames> attributeNamesOf(int descriptor);

/// The attribute "user.<name>" of a direct entry / of an open object (O_PATH will do). An empty buffer asks for the
/// size. ENODATA where there is none, ERANGE where the buffer is too small, E2BIG past kMaxAttributeBytes, EINVAL for
/// an empty name or one with a NUL, ENAMETOOLONG past 250 bytes of name.
Result<std::size_t> getAttributeAt(int folder, const char* entry, const std::string& name,
                                   std::span<std::uint8_t> buffer);
Result<std::size_t> getAttributeOf(int descriptor, const std::string& name, std::span<std::uint8_t> buffer);
/// The descriptor must be open for real (not O_PATH).
Result<void> setAttributeOf(int descriptor, const std::string& name, ByteView value);
/// The same for an attribute that is not there yet: EEXIST where it is.
Result<void> addAttributeOf(int descriptor, const std::string& name, ByteView value);
Result<void> removeAttributeOf(int descriptor, const std::string& name);

/// A stored identity of the file system that an open folder or regular file lies on, the same after every mount:
/// "uuid:<its UUID>" where the kernel tells it (FS_IOC_GETFSUUID, 6.9), else "fsid:<number>" of file systems that make
/// that number from their UUID (ext2 to ext4, btrfs); on btrfs followed by "/subvolume:<number>". Empty where there is
/// none. A tmpfs has the UUID of this one mount, with which it also goes. The object must be readable: EACCES rather
/// than a second identity for one file system; EINVAL for objects of other kinds. `keepsChangeTimes` is true for local
/// file systems whose folders' change time moves with every change of their entries (ext2 to ext4, xfs, btrfs, tmpfs,
/// f2fs).
struct FileSystemIdentity {
    std::string identity;
    bool keepsChangeTimes = false;
};
Result<FileSystemIdentity> fileSystemIdentityOf(int descriptor);

/// True for an object on a file system that others change without this kernel telling of it: FUSE and those of
/// networks, whose files another machine, or what serves them, writes to. False where the kernel does not say; O_PATH
/// will do.
bool isChangedElsewhere(int descriptor);

/// The place that a place leads to when links are followed, each link's target interpreted as the real path it names
/// and kept only if it lies below one of the roots. ENOENT for a link that leads out of the roots or nowhere, ELOOP
/// past 40 links. Outside of the roots only the folders that lead to one may be passed, and nothing is opened there.
/// The answer tells what stood there during the call: whoever opens it does so through `openBeneath` again.
Result<Place> followLinks(const Roots& roots, const Place& place);

/// The parent folder of a place, opened with O_PATH | O_DIRECTORY, and the last component ("" for a root itself: then
/// the folder is the root).
struct OpenParent {
    Descriptor folder;
    std::string name;
};
Result<OpenParent> openParent(const Place& place);

}  // namespace tarnwell::filesystem
