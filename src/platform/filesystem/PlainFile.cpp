#include "platform/filesystem/PlainFile.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "platform/base/Descriptor.h"
#include "platform/base/SystemCall.h"

namespace tarnwell::filesystem {
namespace {

constexpr std::size_t kLongestName = 255;
constexpr int kMaxNames = 16;

std::string folderOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return path.substr(0, std::max<std::size_t>(slash, 1));
}

Result<std::string> temporaryPath(const std::string& path) {
    std::array<std::uint8_t, 8> random{};
    const ssize_t count = untilNotInterrupted([&] { return ::getrandom(random.data(), random.size(), 0); });
    if (count != static_cast<ssize_t>(random.size())) return failedCall();
    std::string suffix = ".tmp-";
    for (const std::uint8_t byte : random) {
        suffix += "0123456789abcdef"[byte >> 4];
        suffix += "0123456789abcdef"[byte & 15];
    }
    const std::size_t slash = path.rfind('/');
    const std::size_t begin = slash == std::string::npos ? 0 : slash + 1;
    const std::size_t kept = std::min(path.size() - begin, kLongestName - suffix.size());
    return path.substr(0, begin + kept) + suffix;
}

Result<void> synchronizeFolder(const std::string& path) {
    const int fd = untilNotInterrupted([&] { return ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); });
    if (fd < 0) return failedCall();
    const Descriptor folder(fd);
    // Some file systems have nothing to synchronize in a folder and say so.
    if (untilNotInterrupted([&] { return ::fsync(folder.get()); }) != 0 && errno != EINVAL) return failedCall();
    return {};
}

}  // namespace

Result<PendingFile> PendingFile::create(const std::string& path, mode_t mode) {
    for (int attempt = 1;; ++attempt) {
        auto name = temporaryPath(path);
        if (!name) return failure(name.error());
        const int fd = untilNotInterrupted(
            [&] { return ::open(name->c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode); });
        if (fd >= 0) return PendingFile(std::move(*name), Descriptor(fd));
        if (errno != EEXIST || attempt == kMaxNames) return failedCall();
    }
}

PendingFile::~PendingFile() {
    if (!path_.empty()) ::unlink(path_.c_str());
}

Result<void> PendingFile::write(ByteView bytes, Durability durability) {
    while (!bytes.empty()) {
        const ssize_t count =
            untilNotInterrupted([&] { return ::write(descriptor_.get(), bytes.data(), bytes.size()); });
        if (count < 0) return failedCall();
        bytes = bytes.subspan(static_cast<std::size_t>(count));
    }
    if (durability == Durability::none) return {};
    if (untilNotInterrupted([&] { return ::fsync(descriptor_.get()); }) != 0) return failedCall();
    return {};
}

Result<Bytes> readFile(const std::string& path, std::size_t limit) {
    const int fd = untilNotInterrupted([&] { return ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC); });
    if (fd < 0) return failedCall();
    const Descriptor file(fd);
    struct stat status{};
    if (::fstat(fd, &status) != 0) return failedCall();
    if (!S_ISREG(status.st_mode)) return failure(posixError(EINVAL));
    if (static_cast<std::uint64_t>(status.st_size) > limit) return failure(posixError(EFBIG));
    Bytes bytes;
    std::size_t filled = 0;
    // One byte more than the file has, so that its end is met without another turn. Kernel files claim to be empty and
    // some give all of their text to the first call only.
    bytes.resize(std::max<std::size_t>(static_cast<std::size_t>(status.st_size) + 1, 4096));
    for (;;) {
        const ssize_t count =
            untilNotInterrupted([&] { return ::read(fd, bytes.data() + filled, bytes.size() - filled); });
        if (count < 0) return failedCall();
        filled += static_cast<std::size_t>(count);
        if (filled > limit) return failure(posixError(EFBIG));
        if (count == 0) break;
        if (filled == bytes.size()) bytes.resize(bytes.size() * 2);
    }
    bytes.resize(filled);
    return bytes;
}

Result<void> writeFileAtomically(const std::string& path, ByteView bytes, Durability durability) {
    auto file = PendingFile::create(path, 0600);
    if (!file) return failure(file.error());
    if (auto written = file->write(bytes, durability); !written) return written;
    if (::rename(file->path().c_str(), path.c_str()) != 0) return failedCall();
    file->keep();
    if (durability == Durability::none) return {};
    return synchronizeFolder(folderOf(path));
}

Result<void> createDirectories(const std::string& path) {
    if (path.empty()) return failure(posixError(ENOENT));
    for (std::size_t end = 0; end < path.size();) {
        end = std::min(path.find('/', end + 1), path.size());
        const std::string folder = path.substr(0, end);
        if (::mkdir(folder.c_str(), 0700) == 0) continue;
        const int reason = errno;
        // Whatever the reason, a folder that stands is fine: a read-only file system says so before it looks.
        struct stat status{};
        if (::stat(folder.c_str(), &status) != 0) return failure(posixError(reason));
        if (!S_ISDIR(status.st_mode)) return failure(posixError(ENOTDIR));
    }
    return {};
}

}  // namespace tarnwell::filesystem
