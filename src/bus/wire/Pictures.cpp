#include "bus/wire/Pictures.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "bus/wire/Dictionary.h"
#include "bus/wire/Errors.h"

namespace tarnwell::bus {
namespace {

/// An icon is never larger.
constexpr std::size_t kLargestPicture = std::size_t{64} << 20;
constexpr int kSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL;

Result<Bytes> contentsOf(const Descriptor& file) {
    struct stat status{};
    // What is not sealed could become shorter while it is read.
    if ((::fcntl(file.get(), F_GET_SEALS) & kSeals) != kSeals) return failure(posixError(EPERM));
    if (::fstat(file.get(), &status) != 0) return failure(posixError(errno));
    if (status.st_size < 0 || std::size_t(status.st_size) > kLargestPicture) return failure(posixError(EFBIG));
    Bytes contents(std::size_t(status.st_size));
    for (std::size_t at = 0; at < contents.size();) {
        const auto got = ::pread(file.get(), contents.data() + at, contents.size() - at, off_t(at));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return failure(posixError(got < 0 ? errno : EIO));
        at += std::size_t(got);
    }
    return contents;
}

}  // namespace

Result<Descriptor> sealedFile(ByteView contents) {
    Descriptor file(::memfd_create("tarnwell-picture", MFD_CLOEXEC | MFD_ALLOW_SEALING));
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

void writePictures(Writer& writer, const std::vector<Result<Descriptor>>& files) {
    std::uint32_t index = 0;
    writer.open('a', "a{sv}");
    for (const auto& file : files) {
        writer.open('a', "{sv}");
        if (file) {
            writer.open('e', "sv").string("file").open('v', "u").uint32(index++).close().close();
        } else {
            writeError(writer, file.error());
        }
        writer.close();
    }
    writer.close().open('a', "h");
    for (const auto& file : files) {
        if (file) writer.descriptor(*file);
    }
    writer.close();
}

session::Session::Each<Bytes> readPictures(Reader& reader) {
    struct Entry {
        std::optional<std::uint32_t> file;
        std::string error, message;
    };
    std::vector<Entry> entries;
    reader.enter('a', "a{sv}");
    while (reader.more()) {
        Entry entry;
        readDictionary(reader, [&](std::string_view key, std::string_view contents) {
            if (key == "file" && contents == "u") return entry.file = reader.uint32(), true;
            if (key == "error" && contents == "s") return entry.error = reader.string(), true;
            return key == "message" && contents == "s" && (entry.message = reader.string(), true);
        });
        entries.push_back(std::move(entry));
    }
    reader.exit();
    std::vector<Descriptor> files;
    reader.enter('a', "h");
    while (reader.more()) files.push_back(reader.descriptor());
    reader.exit();

    session::Session::Each<Bytes> pictures;
    for (Entry& entry : entries) {
        if (!entry.file) {
            pictures.push_back(failure(errorOfName(entry.error, std::move(entry.message))));
        } else if (*entry.file < files.size()) {
            pictures.push_back(contentsOf(files[*entry.file]));
        } else {
            pictures.push_back(failure(posixError(EPROTO)));
        }
    }
    return pictures;
}

}  // namespace tarnwell::bus
