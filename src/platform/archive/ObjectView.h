#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/archive/PropertyList.h"
#include "platform/archive/PropertyListFormat.h"
#include "platform/archive/TextEncoding.h"
#include "platform/base/Ids.h"
#include "platform/base/Result.h"

namespace tarnwell::archive {

/// Why bytes are no property list; null for "they are one".
using Refusal = const char*;

struct DataView {
    ByteView bytes;
};

/// A string in the encoding that it has in the file.
struct TextView {
    enum class Encoding : std::uint8_t { ascii, utf16 };
    ByteView bytes;
    Encoding encoding = Encoding::ascii;

    /// Bytes or UTF-16 units.
    std::size_t units() const { return encoding == Encoding::ascii ? bytes.size() : bytes.size() / 2; }
    /// The size as UTF-8; nothing for bytes that are not in the encoding.
    std::optional<std::size_t> sizeAsUtf8() const {
        if (encoding == Encoding::utf16) return utf8SizeOfUtf16(bytes);
        return isAscii(textOf(bytes)) ? std::optional(bytes.size()) : std::nullopt;
    }
    /// As UTF-8. The bytes must be in the encoding.
    std::string utf8() const;
};

/// References to objects, from the start of `rest`. Whether so many lie there is not known here: the size of a
/// reference is the file's matter.
struct ReferencesView {
    std::uint64_t count = 0;
    ByteView rest;
};
/// An array or a set: `count` references.
struct ArrayView : ReferencesView {};
/// A dictionary: `count` references of keys, then as many of values.
struct DictionaryView : ReferencesView {};

/// An object of a property list's table where it lies in the file: a marker and what follows.
class ObjectView {
public:
    enum class Kind : std::uint8_t { null, boolean, integer, real, date, data, text, uid, array, dictionary, unknown };

    /// `end` is where all objects end; as many bytes as a trailer has must lie past it.
    ObjectView(const std::uint8_t* marker, const std::uint8_t* end) : marker_(marker), end_(end) {}

    Kind kind() const { return kKinds[*marker_]; }

    /// True for a string of less than 15 ASCII characters, as most objects are, that is good in every way; `size` is
    /// its length then.
    bool isGoodShortAscii(std::size_t& size) const {
        size = *marker_ ^ format::kAscii;
        return size < format::kCountFollows && size <= contentSize() && asciiRun(marker_ + 1) >= size;
    }

    /// True for null, a Boolean, an integer, a real, a date or a UID that is good. False for those of 16 bytes, which
    /// may be good: only their marker does not tell.
    bool isGoodScalar() const {
        const std::uint8_t size = kScalarSizes[*marker_];
        return size != kNoScalar && size <= contentSize();
    }

    /// True when the object, which is known to be good, is the same text as `ascii`, which must be ASCII.
    bool isText(std::string_view ascii) const {
        const std::size_t size = *marker_ ^ format::kAscii;
        if (size >= format::kCountFollows) return isLongOrWideText(*this, ascii);
        return size == ascii.size() && textOf({marker_ + 1, size}) == ascii;
    }

    /// Each reads an object of its kind and says what is wrong with it. Neither a string's encoding nor a container's
    /// references are looked at.
    Refusal read(bool& flag) const;
    Refusal read(Integer& integer) const;
    Refusal read(double& real) const;
    Refusal read(PlistDate& date) const;
    Refusal read(Uid& uid) const;
    Refusal read(DataView& data) const;
    Refusal read(TextView& text) const;
    Refusal read(ReferencesView& references) const;

    /// The value of an object that is known to be good; nothing when it is of another kind.
    template <typename T>
    std::optional<T> as() const {
        std::optional<T> value;
        if (kind() != kindOf(T())) return value;
        value.emplace();
        TARNWELL_CHECK(!read(*value));
        return value;
    }

private:
    static constexpr Kind kindOf(Integer) { return Kind::integer; }
    static constexpr Kind kindOf(double) { return Kind::real; }
    static constexpr Kind kindOf(PlistDate) { return Kind::date; }
    static constexpr Kind kindOf(bool) { return Kind::boolean; }
    static constexpr Kind kindOf(Uid) { return Kind::uid; }
    static constexpr Kind kindOf(DataView) { return Kind::data; }
    static constexpr Kind kindOf(TextView) { return Kind::text; }
    static constexpr Kind kindOf(ArrayView) { return Kind::array; }
    static constexpr Kind kindOf(DictionaryView) { return Kind::dictionary; }

    /// By marker.
    static const std::array<Kind, 256> kKinds;
    /// Bytes after the marker, of scalars that are good whatever these are.
    static const std::array<std::uint8_t, 256> kScalarSizes;
    static constexpr std::uint8_t kNoScalar = 0xFF;

    /// How many ASCII characters begin there, up to 16.
    static std::size_t asciiRun(const std::uint8_t* place) {
        constexpr std::uint64_t kHighBits = 0x8080808080808080;
        const std::uint64_t first = format::numberAt(place, 8) & kHighBits;
        if (first != 0) return static_cast<std::size_t>(std::countl_zero(first)) / 8;
        return 8 + static_cast<std::size_t>(std::countl_zero(format::numberAt(place + 8, 8) & kHighBits)) / 8;
    }
    /// By value, so that the view can stay in registers.
    static bool isLongOrWideText(ObjectView object, std::string_view ascii);

    std::size_t contentSize() const { return static_cast<std::size_t>(end_ - marker_) - 1; }
    /// The count in a marker's lower half, or in the integer that follows it. `rest` becomes what comes after.
    Refusal readCount(std::uint64_t& count, ByteView& rest) const {
        count = *marker_ & format::kCountFollows;
        rest = {marker_ + 1, end_};
        if (count != format::kCountFollows) return nullptr;
        // The commonest form, one byte; the other function reads it too.
        if (rest.size() < 2 || rest[0] != format::kInteger) return readCountThatFollows(count, rest);
        count = rest[1];
        rest = rest.subspan(2);
        return nullptr;
    }
    Refusal readLongUid(Uid& uid) const;
    static Refusal readCountThatFollows(std::uint64_t& count, ByteView& rest);
    Refusal readContent(std::size_t unit, ByteView& content) const;
    Refusal readReal8(double& real) const;

    const std::uint8_t* marker_;
    const std::uint8_t* end_;
};

inline Refusal ObjectView::readContent(std::size_t unit, ByteView& content) const {
    std::uint64_t count;
    ByteView rest;
    if (const Refusal why = readCount(count, rest)) return why;
    if (count > rest.size() / unit) return "string or data cut";
    content = rest.first(static_cast<std::size_t>(count) * unit);
    return nullptr;
}

inline Refusal ObjectView::read(TextView& text) const {
    const bool isWide = (*marker_ & 0xF0) == format::kUtf16;
    text.encoding = isWide ? TextView::Encoding::utf16 : TextView::Encoding::ascii;
    return isWide ? readContent(2, text.bytes) : readContent(1, text.bytes);
}

inline Refusal ObjectView::read(Uid& uid) const {
    const std::size_t size = std::size_t{*marker_} - format::kUid + 1;
    if (contentSize() < size) return "UID cut";
    if (size > 8) return readLongUid(uid);
    uid.index = format::numberAt(marker_ + 1, size);
    return nullptr;
}

inline Refusal ObjectView::read(ReferencesView& references) const {
    return readCount(references.count, references.rest);
}

}  // namespace tarnwell::archive
