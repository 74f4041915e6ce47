#include "platform/registry/ParsedFileCache.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <ctime>

#include "platform/filesystem/Beneath.h"
#include "platform/filesystem/PlainFile.h"

namespace tarnwell::registry {
namespace {

constexpr std::int64_t kSettlingTime = 2'000'000'000;  // FAT keeps times to 2 s
constexpr std::int64_t kSomeTicks = 25'000'000;        // of a clock that ticks every 1 to 10 ms

std::int64_t nanoseconds(const timespec& time) { return time.tv_sec * std::int64_t{1'000'000'000} + time.tv_nsec; }

Result<struct stat> statusAt(const std::string& path) {
    struct stat status{};
    int failed;
    do {
        failed = stat(path.c_str(), &status);
    } while (failed != 0 && errno == EINTR);
    if (failed != 0) return failure(posixError(errno));
    return status;
}

FileStamp stampFrom(const struct stat& status) {
    return {status.st_dev, status.st_ino, static_cast<std::uint64_t>(status.st_size), nanoseconds(status.st_mtim),
            nanoseconds(status.st_ctim)};
}

}  // namespace

Result<FileStamp> stampOf(const std::string& path) {
    const auto status = statusAt(path);
    if (!status) return failure(status.error());
    if (!S_ISREG(status->st_mode)) return failure(posixError(EINVAL, "not a regular file"));
    if (status->st_size > static_cast<off_t>(kMaxParsedFileBytes)) {
        return failure(posixError(EFBIG, "more than " + std::to_string(kMaxParsedFileBytes) + " bytes"));
    }
    return stampFrom(*status);
}

Result<FileStamp> stampOfFolder(const std::string& path) {
    const auto status = statusAt(path);
    if (!status) return failure(status.error());
    if (!S_ISDIR(status->st_mode)) return failure(posixError(ENOTDIR));
    return stampFrom(*status);
}

bool isSettledFolder(const FileStamp& stamp, int descriptor) {
    if (isSettled(stamp)) return true;
    const auto identity = filesystem::fileSystemIdentityOf(descriptor);
    if (!identity || !identity->keepsChangeTimes) return false;
    timespec now{};
    clock_gettime(CLOCK_REALTIME_COARSE, &now);
    return std::max(stamp.modified, stamp.changed) + kSomeTicks < nanoseconds(now);
}

bool isSettled(const FileStamp& stamp) {
    const auto now =
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch())
            .count();
    // A time in the future is one that a set clock left behind: it says nothing about how long ago the change was.
    return std::max(stamp.modified, stamp.changed) + kSettlingTime < now;
}

Result<std::string> readParsedFile(const std::string& path) {
    const auto content = filesystem::readFile(path, kMaxParsedFileBytes);
    if (!content) return failure(content.error());
    return std::string(textOf(*content));
}

}  // namespace tarnwell::registry
