#include <bit>
#include <cerrno>

#include <optional>
#include <string>

#include "platform/archive/PropertyListFormat.h"
#include "tests/archive/TreeOracle.h"

namespace tarnwell::archive::testing {

namespace {

std::unexpected<Error> refused(const char* why) {
    return failure(posixError(EBADMSG, std::string("not a property list: ") + why));
}

std::uint64_t bigEndian(ByteView bytes) {
    std::uint64_t value = 0;
    for (const std::uint8_t byte : bytes) value = value << 8 | byte;
    return value;
}

bool isAscii(ByteView bytes) {
    for (const std::uint8_t byte : bytes)
        if (byte >= 0x80) return false;
    return true;
}

std::optional<std::string> utf8FromUtf16(ByteView bytes) {
    std::string out;
    const auto put = [&](unsigned byte) { out.push_back(static_cast<char>(static_cast<std::uint8_t>(byte))); };
    for (std::size_t i = 0; i < bytes.size(); i += 2) {
        unsigned point = static_cast<unsigned>(bytes[i] << 8 | bytes[i + 1]);
        if (point >= 0xDC00 && point <= 0xDFFF) return std::nullopt;
        if (point >= 0xD800 && point <= 0xDBFF) {
            i += 2;
            if (i >= bytes.size() || (bytes[i] & 0xFC) != 0xDC) return std::nullopt;
            point = 0x10000 + ((point & 0x3FF) << 10) + static_cast<unsigned>((bytes[i] & 3) << 8 | bytes[i + 1]);
        }
        if (point < 0x80) {
            put(point);
            continue;
        }
        const int following = point < 0x800 ? 1 : point < 0x10000 ? 2 : 3;
        put((0xFF00u >> (following + 1) & 0xFF) | point >> (6 * following));
        for (int rest = following; rest-- > 0;) put(0x80 | (point >> (6 * rest) & 0x3F));
    }
    return out;
}

/// Where everything lies, checked against the file's size before anything is read.
struct Layout {
    std::size_t offsetSize = 0;
    std::size_t referenceSize = 0;
    std::size_t objectCount = 0;
    std::size_t topObject = 0;
    std::size_t offsetTable = 0;
};

Result<Layout> readLayout(ByteView file) {
    using namespace format;
    if (file.size() > kMaxPlistBytes) return refused("too many bytes");
    if (file.size() < kMagic.size() + kTrailerSize) return refused("too short");
    if (textOf(file.first(kMagic.size())) != kMagic) return refused("another format or version");

    const ByteView trailer = file.last(kTrailerSize);
    const std::size_t trailerStart = file.size() - kTrailerSize;
    const std::uint64_t count = bigEndian(trailer.subspan(kTrailerObjectCount, 8));
    const std::uint64_t top = bigEndian(trailer.subspan(kTrailerTopObject, 8));
    const std::uint64_t table = bigEndian(trailer.subspan(kTrailerOffsetTable, 8));
    const std::size_t offsetSize = trailer[kTrailerOffsetSize];
    const std::size_t referenceSize = trailer[kTrailerReferenceSize];
    if (offsetSize < 1 || offsetSize > 8 || referenceSize < 1 || referenceSize > 8)
        return refused("sizes in the trailer");
    if (count > kMaxPlistObjects) return refused("too many objects");
    if (count == 0 || top >= count) return refused("no top object");
    if (table < kMagic.size() || table > trailerStart) return refused("offset table outside");
    if (count * offsetSize > trailerStart - table) return refused("offset table cut");
    return Layout{offsetSize, referenceSize, static_cast<std::size_t>(count), static_cast<std::size_t>(top),
                  static_cast<std::size_t>(table)};
}

/// Reads one object after another from the bytes before the offset table, and counts what it hands out.
class Reader {
public:
    Reader(ByteView file, const Layout& layout)
        : layout_(layout),
          objects_(file.first(layout.offsetTable)),
          offsets_(file.subspan(layout.offsetTable, layout.objectCount * layout.offsetSize)),
          open_(layout.objectCount, false) {}

    Result<Value> readTop() {
        for (std::size_t number = 0; number < layout_.objectCount; ++number) {
            const std::uint64_t offset = offsetOf(number);
            if (offset < format::kMagic.size() || offset >= objects_.size()) return refused("offset outside");
        }
        return readObject(layout_.topObject, 0);
    }

private:
    std::uint64_t offsetOf(std::size_t number) const {
        return bigEndian(offsets_.subspan(number * layout_.offsetSize, layout_.offsetSize));
    }

    /// `depth` is the number of containers around the object.
    Result<Value> readObject(std::size_t number, std::size_t depth) {
        ByteView rest = objects_.subspan(static_cast<std::size_t>(offsetOf(number)));
        const std::uint8_t marker = rest.front();
        rest = rest.subspan(1);
        switch (marker) {
            case format::kNull:
                return Value();
            case format::kFalse:
                return Value(false);
            case format::kTrue:
                return Value(true);
            case format::kReal4:
                if (rest.size() < 4) return refused("real cut");
                return Value(
                    static_cast<double>(std::bit_cast<float>(static_cast<std::uint32_t>(bigEndian(rest.first(4))))));
            case format::kReal8:
            case format::kDate: {
                if (rest.size() < 8) return refused("real or date cut");
                const auto real = std::bit_cast<double>(bigEndian(rest.first(8)));
                return marker == format::kDate ? Value(PlistDate{real}) : Value(real);
            }
            default:
                return readSized(number, marker, rest, depth);
        }
    }

    /// Objects whose marker holds a size or a count.
    Result<Value> readSized(std::size_t number, std::uint8_t marker, ByteView rest, std::size_t depth) {
        const std::uint8_t type = marker & 0xF0;
        const std::uint8_t low = marker & 0x0F;
        if (type == format::kInteger) return readInteger(low, rest);
        if (type == format::kUid) return readUid(low, rest);

        const bool isContainer = type == format::kArray || type == format::kSet || type == format::kDictionary;
        if (!isContainer && type != format::kData && type != format::kAscii && type != format::kUtf16)
            return refused("unknown marker");
        const auto count = readCount(low, rest);
        if (!count) return failure(count.error());
        if (isContainer) return readContainer(number, type, *count, rest, depth);
        return readContent(type, *count, rest);
    }

    static Result<Value> readInteger(std::uint8_t power, ByteView rest) {
        if (power > 4) return refused("integer of unknown size");
        const std::size_t size = std::size_t{1} << power;
        if (rest.size() < size) return refused("integer cut");
        const std::uint64_t low = bigEndian(rest.subspan(size > 8 ? size - 8 : 0, size > 8 ? 8 : size));
        if (size < 8) return Value(Integer::fromUnsigned(low));
        const auto asSigned = static_cast<std::int64_t>(low);
        if (size == 8) return Value(Integer::fromSigned(asSigned));
        const std::uint64_t high = bigEndian(rest.first(8));
        if (high == 0) return Value(Integer::fromUnsigned(low));
        if (high == ~std::uint64_t{0} && asSigned < 0) return Value(Integer::fromSigned(asSigned));
        return refused("integer beyond 64 bits");
    }

    static Result<Value> readUid(std::uint8_t sizeLessOne, ByteView rest) {
        const std::size_t size = std::size_t{sizeLessOne} + 1;
        if (rest.size() < size) return refused("UID cut");
        const ByteView bytes = rest.first(size);
        const std::size_t leading = size > 8 ? size - 8 : 0;
        for (const std::uint8_t byte : bytes.first(leading))
            if (byte != 0) return refused("UID beyond 64 bits");
        return Value(Uid{bigEndian(bytes.subspan(leading))});
    }

    /// The count in a marker's lower half, or in the integer that follows it, which `rest` then moves past.
    static Result<std::uint64_t> readCount(std::uint8_t low, ByteView& rest) {
        if (low != format::kCountFollows) return low;
        if (rest.empty() || (rest.front() & 0xF0) != format::kInteger) return refused("count is no integer");
        const std::uint8_t power = rest.front() & 0x0F;
        if (power > 3) return refused("count of unknown size");
        const std::size_t size = std::size_t{1} << power;
        if (rest.size() < 1 + size) return refused("count cut");
        const std::uint64_t count = bigEndian(rest.subspan(1, size));
        rest = rest.subspan(1 + size);
        return count;
    }

    Result<Value> readContent(std::uint8_t type, std::uint64_t count, ByteView rest) {
        const std::size_t unit = type == format::kUtf16 ? 2 : 1;
        if (count > rest.size() / unit) return refused("string or data cut");
        const ByteView bytes = rest.first(static_cast<std::size_t>(count) * unit);
        // Checked before anything is copied: many references to one long string must not copy it first.
        if (bytes.size() / unit > kMaxPlistContentBytes - contentRead_) return refused("too much content");
        if (type == format::kData) {
            contentRead_ += bytes.size();
            return Value(Bytes(bytes.begin(), bytes.end()));
        }
        if (type == format::kAscii) {
            contentRead_ += bytes.size();
            if (!isAscii(bytes)) return refused("string is no ASCII");
            return Value(std::string(textOf(bytes)));
        }
        auto text = utf8FromUtf16(bytes);
        if (!text) return refused("string is no UTF-16");
        if (text->size() > kMaxPlistContentBytes - contentRead_) return refused("too much content");
        contentRead_ += text->size();
        return Value(std::move(*text));
    }

    Result<Value> readContainer(std::size_t number, std::uint8_t type, std::uint64_t count, ByteView rest,
                                std::size_t depth) {
        if (depth >= kMaxPlistDepth) return refused("too deep");
        if (open_[number]) return refused("a container within itself");
        const std::size_t perEntry = type == format::kDictionary ? 2 : 1;
        if (count > rest.size() / layout_.referenceSize / perEntry) return refused("container cut");
        // All entries are claimed before any is read, so that what nested containers reserve stays within the limit
        // too.
        if (count * perEntry > kMaxPlistObjects - objectsClaimed_) return refused("too many objects");
        objectsClaimed_ += static_cast<std::size_t>(count) * perEntry;

        open_[number] = true;
        const auto entries = static_cast<std::size_t>(count);
        auto container = type == format::kDictionary ? readDictionary(entries, rest, depth + 1)
                                                     : readArray(entries, rest, depth + 1);
        open_[number] = false;
        return container;
    }

    Result<std::size_t> reference(ByteView references, std::size_t position) const {
        const std::uint64_t number =
            bigEndian(references.subspan(position * layout_.referenceSize, layout_.referenceSize));
        if (number >= layout_.objectCount) return refused("reference outside");
        return static_cast<std::size_t>(number);
    }

    Result<Value> readReferred(ByteView references, std::size_t position, std::size_t depth) {
        const auto number = reference(references, position);
        if (!number) return failure(number.error());
        return readObject(*number, depth);
    }

    Result<Value> readArray(std::size_t count, ByteView references, std::size_t depth) {
        Array array;
        array.reserve(count);
        for (std::size_t i = 0; i < count; ++i) {
            auto element = readReferred(references, i, depth);
            if (!element) return element;
            array.push_back(std::move(*element));
        }
        return Value(std::move(array));
    }

    Result<Value> readDictionary(std::size_t count, ByteView references, std::size_t depth) {
        Dictionary dictionary;
        dictionary.reserve(count);
        for (std::size_t i = 0; i < count; ++i) {
            auto key = readReferred(references, i, depth);
            if (!key) return key;
            auto* text = std::get_if<std::string>(&key->storage);
            if (!text) return refused("dictionary key is no string");
            auto element = readReferred(references, count + i, depth);
            if (!element) return element;
            dictionary.emplace_back(std::move(*text), std::move(*element));
        }
        return Value(std::move(dictionary));
    }

    const Layout layout_;
    const ByteView objects_;
    const ByteView offsets_;
    /// Containers that are being read, by object number.
    std::vector<bool> open_;
    std::size_t objectsClaimed_ = 1;
    std::size_t contentRead_ = 0;
};

}  // namespace

Result<Value> readTree(ByteView bytes) {
    const auto layout = readLayout(bytes);
    if (!layout) return failure(layout.error());
    return Reader(bytes, *layout).readTop();
}

}  // namespace tarnwell::archive::testing
