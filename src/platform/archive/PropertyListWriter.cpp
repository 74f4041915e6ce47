#include <bit>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "platform/archive/PropertyList.h"
#include "platform/archive/PropertyListFormat.h"
#include "platform/archive/TextEncoding.h"

namespace tarnwell::archive {

namespace {

void appendBigEndian(Bytes& out, std::uint64_t value, std::size_t size) {
    for (std::size_t i = size; i-- > 0;) out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

/// The smallest of 1, 2, 4 and 8 bytes that holds the value.
std::size_t sizeFor(std::uint64_t value) {
    if (value <= 0xFF) return 1;
    if (value <= 0xFFFF) return 2;
    return value <= 0xFFFF'FFFF ? 4 : 8;
}

void appendInteger(Bytes& out, const Integer& integer) {
    constexpr std::uint64_t kSignBit = std::uint64_t{1} << 63;
    const auto powerOf = [](std::size_t size) { return static_cast<std::uint8_t>(std::countr_zero(size)); };
    if (integer.negative && integer.magnitude != 0) {
        TARNWELL_CHECK(integer.magnitude <= kSignBit);
        out.push_back(format::kInteger | powerOf(8));
        appendBigEndian(out, std::uint64_t{0} - integer.magnitude, 8);
    } else if (integer.magnitude >= kSignBit) {
        // Eight bytes are read as signed, so the upper half of the unsigned range takes sixteen.
        out.push_back(format::kInteger | powerOf(16));
        appendBigEndian(out, 0, 8);
        appendBigEndian(out, integer.magnitude, 8);
    } else {
        const std::size_t size = sizeFor(integer.magnitude);
        out.push_back(format::kInteger | powerOf(size));
        appendBigEndian(out, integer.magnitude, size);
    }
}

void appendMarker(Bytes& out, std::uint8_t type, std::size_t count) {
    if (count < format::kCountFollows) {
        out.push_back(type | static_cast<std::uint8_t>(count));
    } else {
        out.push_back(type | format::kCountFollows);
        appendInteger(out, Integer::fromUnsigned(count));
    }
}

void appendReal(Bytes& out, std::uint8_t marker, double value) {
    out.push_back(marker);
    appendBigEndian(out, std::bit_cast<std::uint64_t>(value), 8);
}

void appendString(Bytes& out, const std::string& text) {
    if (isAscii(text)) {
        appendMarker(out, format::kAscii, text.size());
        out.insert(out.end(), text.begin(), text.end());
    } else {
        const Bytes units = utf16FromUtf8(text);
        appendMarker(out, format::kUtf16, units.size() / 2);
        out.insert(out.end(), units.begin(), units.end());
    }
}

/// The whole object of anything but a container.
void appendScalar(Bytes& out, const Value& value) {
    if (const auto* flag = value.as<bool>()) {
        out.push_back(*flag ? format::kTrue : format::kFalse);
    } else if (const auto* integer = value.as<Integer>()) {
        appendInteger(out, *integer);
    } else if (const auto* real = value.as<double>()) {
        appendReal(out, format::kReal8, *real);
    } else if (const auto* date = value.as<PlistDate>()) {
        appendReal(out, format::kDate, date->seconds);
    } else if (const auto* text = value.as<std::string>()) {
        appendString(out, *text);
    } else if (const auto* data = value.as<Bytes>()) {
        appendMarker(out, format::kData, data->size());
        out.insert(out.end(), data->begin(), data->end());
    } else if (const auto* uid = value.as<Uid>()) {
        const std::size_t size = sizeFor(uid->index);
        out.push_back(format::kUid | static_cast<std::uint8_t>(size - 1));
        appendBigEndian(out, uid->index, size);
    } else {
        out.push_back(format::kNull);
    }
}

/// Puts a tree into a table: a container before its keys, its keys before its values, each child with all below it.
class Flattener {
public:
    Flattener() : numbers_(0, Hash{*this}, Equal{*this}) {
        // Room for a usual archived attribute.
        bytes_.reserve(256);
        objects_.reserve(kFewObjects);
        references_.reserve(kFewObjects);
    }

    std::size_t add(const Value& value, std::size_t depth) {
        const Array* array = value.array();
        const Dictionary* dictionary = value.dictionary();
        if (!array && !dictionary) return addScalar([&] { appendScalar(bytes_, value); });

        TARNWELL_CHECK(depth < kMaxPlistDepth);
        const std::size_t count = array ? array->size() : dictionary->size();
        const std::size_t number = addContainer(array ? format::kArray : format::kDictionary, count, array ? 1 : 2);
        std::size_t next = objects_[number].firstReference;
        // What is added may move the references, so each is put in its place afterwards.
        const auto refer = [&](std::size_t child) { references_[next++] = child; };
        if (array) {
            for (const Value& element : *array) refer(add(element, depth + 1));
        } else {
            for (const auto& pair : *dictionary) refer(addScalar([&] { appendString(bytes_, pair.first); }));
            for (const auto& pair : *dictionary) refer(add(pair.second, depth + 1));
        }
        return number;
    }

    /// The file, whose top object has that number.
    Bytes file(std::size_t top) const;

private:
    /// One entry of the table: bytes, then references to be written as the size of all of them asks.
    struct Object {
        std::size_t start;
        std::size_t firstReference;
    };
    struct Hash {
        const Flattener& table;
        std::size_t operator()(std::size_t number) const { return std::hash<std::string_view>()(table.textAt(number)); }
    };
    struct Equal {
        const Flattener& table;
        bool operator()(std::size_t a, std::size_t b) const { return table.textAt(a) == table.textAt(b); }
    };

    /// The bytes of an object. No scalar's are a container's.
    std::string_view textAt(std::size_t number) const {
        const std::size_t start = objects_[number].start;
        const std::size_t end = number + 1 < objects_.size() ? objects_[number + 1].start : bytes_.size();
        return textOf(bytes_).substr(start, end - start);
    }

    std::size_t addContainer(std::uint8_t type, std::size_t count, std::size_t perEntry) {
        objects_.push_back({bytes_.size(), references_.size()});
        appendMarker(bytes_, type, count);
        references_.resize(references_.size() + count * perEntry);
        return objects_.size() - 1;
    }

    /// Writes the scalar behind all others, and takes it away again if there is an equal one.
    template <typename Append>
    std::size_t addScalar(Append append) {
        const std::size_t number = objects_.size();
        objects_.push_back({bytes_.size(), references_.size()});
        append();
        const std::size_t first = firstEqual(number);
        if (first != number) {
            bytes_.resize(objects_.back().start);
            objects_.pop_back();
        }
        return first;
    }

    /// The number of the first object that is equal to the last.
    std::size_t firstEqual(std::size_t last) {
        if (last < kFewObjects) {
            std::size_t first = 0;
            while (textAt(first) != textAt(last)) ++first;
            return first;
        }
        if (numbers_.empty())
            for (std::size_t number = 0; number < last; ++number) numbers_.insert(number);
        return *numbers_.insert(last).first;
    }

    /// So few are compared one by one faster than they are hashed.
    static constexpr std::size_t kFewObjects = 32;

    Bytes bytes_;
    std::vector<Object> objects_;
    std::vector<std::size_t> references_;
    /// The numbers of scalars by their bytes, once there are many. Containers among the first may be there too.
    std::unordered_set<std::size_t, Hash, Equal> numbers_;
};

Bytes Flattener::file(std::size_t top) const {
    const std::size_t referenceSize = sizeFor(objects_.size() - 1);
    Bytes out;
    out.reserve(format::kMagic.size() + bytes_.size() + references_.size() * referenceSize +
                objects_.size() * sizeof(std::uint64_t) + format::kTrailerSize);
    out.assign(format::kMagic.begin(), format::kMagic.end());
    std::vector<std::size_t> offsets;
    offsets.reserve(objects_.size());
    for (std::size_t number = 0; number < objects_.size(); ++number) {
        offsets.push_back(out.size());
        const ByteView bytes = bytesOf(textAt(number));
        out.insert(out.end(), bytes.begin(), bytes.end());
        const std::size_t end = number + 1 < objects_.size() ? objects_[number + 1].firstReference : references_.size();
        for (std::size_t i = objects_[number].firstReference; i < end; ++i)
            appendBigEndian(out, references_[i], referenceSize);
    }

    const std::size_t table = out.size();
    const std::size_t offsetSize = sizeFor(offsets.back());
    for (const std::size_t offset : offsets) appendBigEndian(out, offset, offsetSize);

    const std::size_t trailer = out.size();
    out.resize(trailer + format::kTrailerOffsetSize);
    out.push_back(static_cast<std::uint8_t>(offsetSize));
    out.push_back(static_cast<std::uint8_t>(referenceSize));
    appendBigEndian(out, objects_.size(), 8);
    appendBigEndian(out, top, 8);
    appendBigEndian(out, table, 8);
    return out;
}

}  // namespace

Bytes writeBinaryPropertyList(const Value& root) {
    Flattener flattener;
    const std::size_t top = flattener.add(root, 0);
    return flattener.file(top);
}

}  // namespace tarnwell::archive
