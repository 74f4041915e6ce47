#include "platform/archive/ObjectView.h"

#include <bit>

namespace tarnwell::archive {

namespace {

using Kind = ObjectView::Kind;

constexpr Kind kindOfMarker(std::uint8_t marker) {
    switch (marker) {
        case format::kNull:
            return Kind::null;
        case format::kFalse:
        case format::kTrue:
            return Kind::boolean;
        case format::kReal4:
        case format::kReal8:
            return Kind::real;
        case format::kDate:
            return Kind::date;
        default:
            break;
    }
    switch (marker & 0xF0) {
        case format::kInteger:
            return Kind::integer;
        case format::kData:
            return Kind::data;
        case format::kAscii:
        case format::kUtf16:
            return Kind::text;
        case format::kUid:
            return Kind::uid;
        case format::kArray:
        case format::kSet:
            return Kind::array;
        case format::kDictionary:
            return Kind::dictionary;
        default:
            return Kind::unknown;
    }
}

template <typename T, typename Function>
constexpr std::array<T, 256> byMarker(Function function) {
    std::array<T, 256> table{};
    for (std::size_t marker = 0; marker < table.size(); ++marker)
        table[marker] = function(static_cast<std::uint8_t>(marker));
    return table;
}

}  // namespace

constexpr std::array<Kind, 256> ObjectView::kKinds = byMarker<Kind>(kindOfMarker);

constexpr std::array<std::uint8_t, 256> ObjectView::kScalarSizes = byMarker<std::uint8_t>([](std::uint8_t marker) {
    const auto low = static_cast<std::uint8_t>(marker & 0x0F);
    switch (kindOfMarker(marker)) {
        case Kind::null:
        case Kind::boolean:
            return std::uint8_t{0};
        case Kind::integer:
            return low <= 3 ? static_cast<std::uint8_t>(1 << low) : kNoScalar;
        case Kind::real:
            return marker == format::kReal4 ? std::uint8_t{4} : std::uint8_t{8};
        case Kind::date:
            return std::uint8_t{8};
        case Kind::uid:
            return low < 8 ? static_cast<std::uint8_t>(low + 1) : kNoScalar;
        default:
            return kNoScalar;
    }
});

Refusal ObjectView::readCountThatFollows(std::uint64_t& count, ByteView& rest) {
    if (rest.empty() || (rest.front() & 0xF0) != format::kInteger) return "count is no integer";
    const std::uint8_t power = rest.front() & 0x0F;
    if (power > 3) return "count of unknown size";
    const std::size_t size = std::size_t{1} << power;
    if (rest.size() < 1 + size) return "count cut";
    count = format::numberAt(rest.data() + 1, size);
    rest = rest.subspan(1 + size);
    return nullptr;
}

Refusal ObjectView::read(bool& flag) const {
    flag = *marker_ == format::kTrue;
    return nullptr;
}

Refusal ObjectView::read(Integer& integer) const {
    const std::uint8_t power = *marker_ & 0x0F;
    if (power > 4) return "integer of unknown size";
    const std::size_t size = std::size_t{1} << power;
    if (contentSize() < size) return "integer cut";
    const std::uint8_t* content = marker_ + 1;
    if (size < 8) {
        integer = Integer::fromUnsigned(format::numberAt(content, size));
        return nullptr;
    }
    const std::uint64_t low = format::numberAt(content + size - 8, 8);
    const auto asSigned = static_cast<std::int64_t>(low);
    const std::uint64_t high = format::numberAt(content, 8);
    if (size == 8 || (high == ~std::uint64_t{0} && asSigned < 0)) {
        integer = Integer::fromSigned(asSigned);
        return nullptr;
    }
    integer = Integer::fromUnsigned(low);
    return high == 0 ? nullptr : "integer beyond 64 bits";
}

Refusal ObjectView::readReal8(double& real) const {
    if (contentSize() < 8) return "real or date cut";
    real = std::bit_cast<double>(format::numberAt(marker_ + 1, 8));
    return nullptr;
}

Refusal ObjectView::read(double& real) const {
    if (*marker_ == format::kReal8) return readReal8(real);
    if (contentSize() < 4) return "real cut";
    real = std::bit_cast<float>(static_cast<std::uint32_t>(format::numberAt(marker_ + 1, 4)));
    return nullptr;
}

Refusal ObjectView::read(PlistDate& date) const { return readReal8(date.seconds); }

Refusal ObjectView::readLongUid(Uid& uid) const {
    const std::size_t leading = std::size_t{*marker_} - format::kUid + 1 - 8;
    const std::uint8_t* content = marker_ + 1;
    for (std::size_t i = 0; i < leading; ++i)
        if (content[i] != 0) return "UID beyond 64 bits";
    uid.index = format::numberAt(content + leading, 8);
    return nullptr;
}

Refusal ObjectView::read(DataView& data) const { return readContent(1, data.bytes); }

std::string TextView::utf8() const {
    return encoding == Encoding::ascii ? std::string(textOf(bytes)) : utf8FromUtf16(bytes);
}

bool ObjectView::isLongOrWideText(ObjectView object, std::string_view ascii) {
    const auto text = object.as<TextView>();
    if (!text || text->units() != ascii.size()) return false;
    const ByteView bytes = text->bytes;
    if (text->encoding == TextView::Encoding::ascii) return textOf(bytes) == ascii;
    for (std::size_t i = 0; i < ascii.size(); ++i)
        if (bytes[2 * i] != 0 || bytes[2 * i + 1] != static_cast<std::uint8_t>(ascii[i])) return false;
    return true;
}

}  // namespace tarnwell::archive
