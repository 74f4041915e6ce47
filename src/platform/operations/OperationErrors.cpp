#include "platform/operations/OperationErrors.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace tarnwell::operations {
namespace {

#ifndef __NR_faccessat2
#define __NR_faccessat2 439
#endif

Error make(ErrorDomain domain, std::int64_t code, std::string message, const std::string& path) {
    return Error{domain, code, {{kErrorMessage, std::move(message)}, {kErrorPath, path}}};
}

bool isRefusal(std::int64_t code) { return code == EACCES || code == EPERM || code == EROFS; }

std::string reasonFor(std::int64_t code) {
    switch (code) {
        case EACCES:
            return "you have no permission for it";
        case EPERM:
            return "it is protected, or you have no permission for it";
        case EROFS:
            return "its file system is read-only";
        case ENOENT:
            return "it is not there any more";
        case ENOTDIR:
            return "it is no folder";
        case ELOOP:
            return "a link stands in its path, and links are not followed";
        case ENOSPC:
            return "there is no room left";
        case EDQUOT:
            return "your share of the disk is used up";
        case EMFILE:
        case ENFILE:
            return "too many files are open; try again";
        case ENOMEM:
            return "there is not enough memory; try again";
        case EBUSY:
            return "it is in use, or another file system is mounted there";
        case ESTALE:
            return "it was moved or replaced meanwhile";
        case ENAMETOOLONG:
            return "the name is too long for its file system";
        case EIO:
            return "the disk reports an error";
        case EMLINK:
            return "the folder holds as many folders as its file system allows";
        case EFBIG:
            return "it is larger than its file system allows";
        default:
            return std::strerror(static_cast<int>(code));
    }
}

bool mayBeChanged(const OpenFolder& folder) {
    return ::syscall(__NR_faccessat2, folder.get(), "", W_OK | X_OK, AT_EMPTY_PATH | AT_EACCESS) == 0;
}

}  // namespace

Error collision(const Place& taken) {
    return make(ErrorDomain::generalFile, kFileExists, "there is something named \"" + realPath(taken) + "\" already",
                urlPath(taken));
}

Error explained(const Error& error, const std::string& cannot, const std::string& path) {
    if (const auto found = error.userInfo.find(kErrorMessage); found != error.userInfo.end()) {
        if (!found->second.starts_with("it ")) return error;
        Error named = error;
        named.userInfo[kErrorMessage].replace(0, 2, "\"" + path + "\"");
        named.userInfo.emplace(kErrorPath, path);
        return named;
    }
    if (error.domain != ErrorDomain::posix) return error;
    std::string message = "\"" + path + "\" cannot " + cannot;
    if (cannot.find(", because ") == std::string::npos) message += ": " + reasonFor(error.code);
    if (isRefusal(error.code)) return make(ErrorDomain::generalFile, kWriteNotPermitted, std::move(message), path);
    return make(ErrorDomain::posix, error.code, std::move(message), path);
}

Error explained(const Error& error, const std::string& cannot, const std::string& path, const OpenFolder& folder) {
    if (error.domain != ErrorDomain::posix || error.userInfo.contains(kErrorMessage)) {
        return explained(error, cannot, path);
    }
    const std::string named = realPath(folder.place);
    const auto because = [&](const std::string& reason) { return "\"" + path + "\" cannot " + cannot + ": " + reason; };
    if (error.code == EROFS) {
        return make(ErrorDomain::generalFile, kWriteNotPermitted,
                    because("the file system of the folder \"" + named + "\" is read-only"), path);
    }
    if (isRefusal(error.code) && !mayBeChanged(folder)) {
        return make(ErrorDomain::generalFile, kWriteNotPermitted,
                    because("you may not change the folder \"" + named + "\""), path);
    }
    if (error.code == EDQUOT) {
        return make(ErrorDomain::posix, EDQUOT,
                    because("your share of the file system of the folder \"" + named + "\" is used up"), path);
    }
    if (error.code == ENOSPC) {
        struct statfs room{};
        // Some file systems count no inodes and tell 0 for both.
        const bool hasRoom = ::fstatfs(folder.get(), &room) == 0 && room.f_bavail > 0;
        const bool lacksInodes = hasRoom && room.f_files > 0 && room.f_ffree == 0;
        return make(ErrorDomain::posix, ENOSPC,
                    because(std::string(lacksInodes ? "no further file can be made" : "there is no room left") +
                            " on the file system of the folder \"" + named + "\""),
                    path);
    }
    return explained(error, cannot, path);
}

}  // namespace tarnwell::operations
