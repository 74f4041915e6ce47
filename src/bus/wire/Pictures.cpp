#include "bus/wire/Pictures.h"

#include <cerrno>

#include "bus/wire/Dictionary.h"
#include "bus/wire/Errors.h"
#include "bus/wire/SealedFile.h"

namespace tarnwell::bus {
namespace {

/// An icon is never larger.
constexpr std::size_t kLargestPicture = std::size_t{64} << 20;

}  // namespace

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
            pictures.push_back(contentsOfSealedFile(files[*entry.file], kLargestPicture));
        } else {
            pictures.push_back(failure(posixError(EPROTO)));
        }
    }
    return pictures;
}

}  // namespace tarnwell::bus
