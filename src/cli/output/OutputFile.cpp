#include "cli/output/OutputFile.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>

#include "platform/base/Descriptor.h"
#include "platform/base/SystemCall.h"
#include "platform/operations/NoReplace.h"

namespace tarnwell::cli {
namespace {

/// A name that nobody else has.
std::string temporaryName() {
    std::uint64_t random = 0;
    if (::getrandom(&random, sizeof random, 0) != sizeof random) random = static_cast<std::uint64_t>(::getpid());
    return ".tarnwell-" + std::to_string(random);
}

Result<void> writeAll(int descriptor, ByteView bytes) {
    while (!bytes.empty()) {
        const ssize_t count = untilNotInterrupted([&] { return ::write(descriptor, bytes.data(), bytes.size()); });
        if (count < 0) return failedCall();
        bytes = bytes.subspan(static_cast<std::size_t>(count));
    }
    return {};
}

Result<void> takePlace(int folder, const std::string& temporary, const std::string& name, IfThere ifThere) {
    if (ifThere == IfThere::refuse) return operations::renameWithoutReplacing(folder, temporary, folder, name, false);
    if (::renameat(folder, temporary.c_str(), folder, name.c_str()) != 0) return failedCall();
    return {};
}

}  // namespace

Result<void> writeOutputFile(const std::string& path, ByteView bytes, IfThere ifThere) {
    const std::size_t slash = path.rfind('/');
    const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    const std::string parent = slash == std::string::npos ? "." : path.substr(0, std::max<std::size_t>(slash, 1));
    if (name.empty() || name == "." || name == "..") return failure(posixError(EISDIR));
    const int folderDescriptor =
        untilNotInterrupted([&] { return ::open(parent.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC); });
    if (folderDescriptor < 0) return failedCall();
    const Descriptor folder(folderDescriptor);
    const std::string temporary = temporaryName();
    const int fd = untilNotInterrupted([&] {
        return ::openat(folder.get(), temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
    });
    if (fd < 0) return failedCall();
    const Descriptor file(fd);
    auto written = writeAll(fd, bytes);
    if (written) written = takePlace(folder.get(), temporary, name, ifThere);
    if (!written) ::unlinkat(folder.get(), temporary.c_str(), 0);
    return written;
}

}  // namespace tarnwell::cli
