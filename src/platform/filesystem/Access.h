#pragma once

#include <sys/types.h>

#include <vector>

#include "platform/base/Result.h"

namespace tarnwell::filesystem {

struct Status;

/// As whom the kernel sees this process when it asks for access. Read once for the process: it does not change its
/// user.
struct Credentials {
    uid_t user = 0;
    gid_t group = 0;
    std::vector<gid_t> groups;      ///< supplementary ones, sorted
    bool overridesAll = false;      ///< CAP_DAC_OVERRIDE is effective, as for root
    bool overridesReading = false;  ///< CAP_DAC_READ_SEARCH is effective

    static const Credentials& ofProcess();
    /// Asks the kernel anew.
    static Credentials read();
};

/// What access(2) would say.
struct Access {
    bool readable = false;
    bool writable = false;
    friend bool operator==(const Access&, const Access&) = default;
};

enum class MountState { writable, readOnly };

/// Whether the mount that an open object lies on takes changes (O_PATH will do). One call serves all entries of a
/// folder.
Result<MountState> mountStateOf(int descriptor);

enum class AccessList { absent, present };

/// What access(2) would say to the credentials about a direct entry of the folder, itself if it is a link: from the
/// mode bits, the immutable flag and the state of the mount. Asks the kernel (faccessat2, for the process's own
/// effective user) only where an ACL or an owner unknown to this user namespace may change the answer. What network
/// file systems and security modules decide beyond that is not foreseen.
Access accessOf(const Credentials& credentials, const Status& status, MountState mount, int folder, const char* name,
                AccessList list);

/// The same for this process.
Access accessOf(const Status& status, MountState mount, int folder, const char* name, AccessList list);

}  // namespace tarnwell::filesystem
