#include "platform/filesystem/Access.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

#include "platform/base/SystemCall.h"
#include "platform/filesystem/Beneath.h"

namespace tarnwell::filesystem {
namespace {

/// What the kernel shows for an owner that this user namespace does not know.
constexpr std::uint32_t kOverflowID = 65534;

bool kernelAllows(int folder, const char* name, int how) {
    return untilNotInterrupted([&] { return ::faccessat(folder, name, how, AT_EACCESS | AT_SYMLINK_NOFOLLOW); }) == 0;
}

/// The three bits of the mode that count for the credentials.
unsigned bitsFor(const Credentials& credentials, const Status& status) {
    if (status.user == credentials.user) return (status.mode >> 6) & 7;
    if (status.group == credentials.group || std::ranges::binary_search(credentials.groups, status.group)) {
        return (status.mode >> 3) & 7;
    }
    return status.mode & 7;
}

}  // namespace

Credentials Credentials::read() {
    Credentials credentials;
    credentials.user = ::geteuid();
    credentials.group = ::getegid();
    const int count = ::getgroups(0, nullptr);
    if (count > 0) {
        credentials.groups.resize(static_cast<std::size_t>(count));
        const int filled = ::getgroups(count, credentials.groups.data());
        credentials.groups.resize(static_cast<std::size_t>(std::max(filled, 0)));
        std::ranges::sort(credentials.groups);
    }
    __user_cap_header_struct header{};
    header.version = _LINUX_CAPABILITY_VERSION_3;
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3]{};
    if (::syscall(SYS_capget, &header, data) == 0) {
        credentials.overridesAll = (data[0].effective & (1U << CAP_DAC_OVERRIDE)) != 0;
        credentials.overridesReading = (data[0].effective & (1U << CAP_DAC_READ_SEARCH)) != 0;
    }
    return credentials;
}

const Credentials& Credentials::ofProcess() {
    static const Credentials credentials = read();
    return credentials;
}

Result<MountState> mountStateOf(int descriptor) {
    struct statvfs status{};
    if (untilNotInterrupted([&] { return ::fstatvfs(descriptor, &status); }) != 0) return failedCall();
    return (status.f_flag & ST_RDONLY) != 0 ? MountState::readOnly : MountState::writable;
}

Access accessOf(const Credentials& credentials, const Status& status, MountState mount, int folder, const char* name,
                AccessList list) {
    const bool foreignOwner = credentials.overridesAll && (status.user == kOverflowID || status.group == kOverflowID);
    if (list == AccessList::present || foreignOwner) {
        return {kernelAllows(folder, name, R_OK), kernelAllows(folder, name, W_OK)};
    }
    const unsigned bits = bitsFor(credentials, status);
    Access access{(bits & 4) != 0, (bits & 2) != 0};
    if (credentials.overridesAll) access = {true, true};
    if (credentials.overridesReading) access.readable = true;
    // A mount that takes no changes still lets data pass through FIFOs, sockets and devices.
    const bool holdsData = S_ISREG(status.mode) || S_ISDIR(status.mode) || S_ISLNK(status.mode);
    if ((mount == MountState::readOnly && holdsData) || status.immutable) access.writable = false;
    return access;
}

Access accessOf(const Status& status, MountState mount, int folder, const char* name, AccessList list) {
    return accessOf(Credentials::ofProcess(), status, mount, folder, name, list);
}

}  // namespace tarnwell::filesystem
