#include "bus/wire/SealedFile.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace tarnwell::bus {
namespace {

constexpr int kSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL;

}  // namespace

Result<Descriptor> sealedFile(const char* name, ByteView contents) {
    Descriptor file(::memfd_create(name, MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!file.valid()) return failure(posixError(errno));
    for (std::size_t at = 0; at < contents.size();) {
        const auto put = ::pwrite(file.get(), contents.data() + at, contents.size() - at, off_t(at));
        if (put < 0 && errno == EINTR) continue;
        if (put <= 0) return failure(posixError(put < 0 ? errno : EIO));
        at += std::size_t(put);
    }
    if (::fcntl(file.get(), F_ADD_SEALS, kSeals) != 0) return failure(posixError(errno));
    return file;
}

Result<Bytes> contentsOfSealedFile(const Descriptor& file, std::size_t most) {
    struct stat status{};
    // What is not sealed could become shorter while it is read. A file of another kind has no seals at all: -1.
    const int seals = ::fcntl(file.get(), F_GET_SEALS);
    if (seals < 0 || (seals & kSeals) != kSeals) return failure(posixError(EPERM));
    if (::fstat(file.get(), &status) != 0) return failure(posixError(errno));
    if (status.st_size < 0 || std::size_t(status.st_size) > most) return failure(posixError(EFBIG));
    Bytes contents(std::size_t(status.st_size));
    for (std::size_t at = 0; at < contents.size();) {
        const auto got = ::pread(file.get(), contents.data() + at, contents.size() - at, off_t(at));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return failure(posixError(got < 0 ? errno : EIO));
        at += std::size_t(got);
    }
    return contents;
}

}  // namespace tarnwell::bus
