#include "platform/archive/PropertyListDocument.h"

namespace tarnwell::archive {

std::expected<PropertyListDocument, Refusal> PropertyListDocument::open(ByteView file) {
    PropertyListDocument document(file);
    if (const Refusal why = document.readLayout()) return std::unexpected(why);
    if (const Refusal why = document.checkTree()) return std::unexpected(why);
    return document;
}

Refusal PropertyListDocument::readLayout() {
    using namespace format;
    if (file_.size() > kMaxPlistBytes) return "too many bytes";
    if (file_.size() < kMagic.size() + kTrailerSize) return "too short";
    if (textOf(file_.first(kMagic.size())) != kMagic) return "another format or version";

    const std::uint8_t* trailer = file_.last(kTrailerSize).data();
    const std::size_t trailerStart = file_.size() - kTrailerSize;
    const std::uint64_t count = numberAt(trailer + kTrailerObjectCount, 8);
    const std::uint64_t top = numberAt(trailer + kTrailerTopObject, 8);
    const std::uint64_t table = numberAt(trailer + kTrailerOffsetTable, 8);
    const std::size_t offsetSize = trailer[kTrailerOffsetSize];
    const std::size_t referenceSize = trailer[kTrailerReferenceSize];
    if (offsetSize < 1 || offsetSize > 8 || referenceSize < 1 || referenceSize > 8) return "sizes in the trailer";
    if (count > kMaxPlistObjects) return "too many objects";
    if (count == 0 || top >= count) return "no top object";
    if (table < kMagic.size() || table > trailerStart) return "offset table outside";
    if (count * offsetSize > trailerStart - table) return "offset table cut";
    objectCount_ = static_cast<std::size_t>(count);
    topObject_ = static_cast<std::size_t>(top);
    offsets_ = NumberReader(offsetSize);
    references_ = NumberReader(referenceSize);
    objectsEnd_ = file_.data() + table;
    for (std::size_t number = 0; number < objectCount_; ++number) {
        // One comparison for both ends: an offset in the magic wraps to one far outside.
        const std::uint64_t offset = offsets_.at(objectsEnd_, number);
        if (offset - kMagic.size() >= table - kMagic.size()) return "offset outside";
    }
    return nullptr;
}

std::string messageOf(Refusal refusal) { return std::string("not a property list: ") + refusal; }

}  // namespace tarnwell::archive
