#include <bit>
#include <unordered_map>

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
Bytes scalarObject(const Value& value) {
    Bytes out;
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
    return out;
}

/// One entry of the object table: the start of its bytes, and the numbers of the objects that follow as references.
struct Object {
    Bytes bytes;
    std::vector<std::size_t> references;
};

/// Puts a tree into a table: a container before its keys, its keys before its values, each child with all below it.
class Flattener {
public:
    std::size_t add(const Value& value, std::size_t depth) {
        const Array* array = value.array();
        const Dictionary* dictionary = value.dictionary();
        if (!array && !dictionary) return addScalar(scalarObject(value));

        TARNWELL_CHECK(depth < kMaxPlistDepth);
        const std::size_t number = objects_.size();
        objects_.emplace_back();
        std::vector<std::size_t> references;
        Bytes marker;
        if (array) {
            appendMarker(marker, format::kArray, array->size());
            references.reserve(array->size());
            for (const Value& element : *array) references.push_back(add(element, depth + 1));
        } else {
            appendMarker(marker, format::kDictionary, dictionary->size());
            references.reserve(2 * dictionary->size());
            for (const auto& [key, element] : *dictionary) references.push_back(addScalar(scalarObject(Value(key))));
            for (const auto& [key, element] : *dictionary) references.push_back(add(element, depth + 1));
        }
        objects_[number] = {std::move(marker), std::move(references)};
        return number;
    }

    std::vector<Object> take() { return std::move(objects_); }

private:
    std::size_t addScalar(Bytes bytes) {
        const auto [place, isNew] = scalars_.try_emplace(std::string(textOf(bytes)), objects_.size());
        if (isNew) objects_.push_back({std::move(bytes), {}});
        return place->second;
    }

    std::vector<Object> objects_;
    std::unordered_map<std::string, std::size_t> scalars_;
};

}  // namespace

Bytes writeBinaryPropertyList(const Value& root) {
    Flattener flattener;
    const std::size_t top = flattener.add(root, 0);
    const std::vector<Object> objects = flattener.take();
    const std::size_t referenceSize = sizeFor(objects.size() - 1);

    Bytes out(format::kMagic.begin(), format::kMagic.end());
    std::vector<std::size_t> offsets;
    offsets.reserve(objects.size());
    for (const Object& object : objects) {
        offsets.push_back(out.size());
        out.insert(out.end(), object.bytes.begin(), object.bytes.end());
        for (const std::size_t reference : object.references) appendBigEndian(out, reference, referenceSize);
    }

    const std::size_t table = out.size();
    const std::size_t offsetSize = sizeFor(offsets.back());
    for (const std::size_t offset : offsets) appendBigEndian(out, offset, offsetSize);

    const std::size_t trailer = out.size();
    out.resize(trailer + format::kTrailerOffsetSize);
    out.push_back(static_cast<std::uint8_t>(offsetSize));
    out.push_back(static_cast<std::uint8_t>(referenceSize));
    appendBigEndian(out, objects.size(), 8);
    appendBigEndian(out, top, 8);
    appendBigEndian(out, table, 8);
    return out;
}

}  // namespace tarnwell::archive
