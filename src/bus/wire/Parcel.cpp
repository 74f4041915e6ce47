#include "bus/wire/Parcel.h"

#include <cerrno>
#include <utility>

#include "bus/wire/Names.h"
#include "bus/wire/SealedFile.h"

namespace tarnwell::bus {

Parcel::Parcel(Bytes packed) : inMessage_(std::move(packed)) {
    if (inMessage_.size() <= kMostInMessage) return;
    if (auto file = sealedFile("tarnwell-list", inMessage_)) {
        file_ = std::move(*file);
        inMessage_ = {};
    }
}

void Parcel::write(Writer& writer) const {
    writer.bytes(inMessage_).open('a', "h");
    if (file_.valid()) writer.descriptor(file_);
    writer.close();
}

Bytes Parcel::read(Reader& reader) {
    Bytes packed = reader.bytes(kLongestPacked);
    reader.enter('a', "h");
    if (reader.more()) {
        auto contents = contentsOfSealedFile(reader.descriptor(), kLongestPacked);
        if (contents) {
            packed = std::move(*contents);
        } else {
            reader.fail(-EBADMSG);
        }
        if (reader.more()) reader.fail(-EBADMSG);
    }
    reader.exit();
    return packed;
}

}  // namespace tarnwell::bus
