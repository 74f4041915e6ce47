#pragma once

#include <initializer_list>
#include <optional>
#include <string_view>
#include <vector>

#include "platform/base/Ids.h"

namespace tarnwell::archive::testing {

inline void appendNumber(Bytes& out, std::uint64_t value, std::size_t size) {
    for (std::size_t i = size; i-- > 0;) out.push_back(static_cast<std::uint8_t>(i < 8 ? value >> (8 * i) : 0));
}

inline Bytes bytes(std::initializer_list<int> values) {
    Bytes out;
    for (const int value : values) out.push_back(static_cast<std::uint8_t>(value));
    return out;
}

/// A property list put together byte by byte, right or wrong: the objects as given, then a table and a trailer that fit
/// them unless a field says otherwise.
struct RawPropertyList {
    std::vector<Bytes> objects = {};
    std::uint64_t top = 0;
    std::uint8_t offsetSize = 4;
    std::uint8_t referenceSize = 1;
    std::optional<std::uint64_t> objectCount = {};
    std::optional<std::uint64_t> offsetTable = {};
    std::optional<std::vector<std::uint64_t>> offsets = {};
    std::string_view magic = "bplist00";

    Bytes build() const {
        Bytes out(magic.begin(), magic.end());
        std::vector<std::uint64_t> places;
        for (const Bytes& object : objects) {
            places.push_back(out.size());
            out.insert(out.end(), object.begin(), object.end());
        }
        const std::uint64_t table = out.size();
        for (const std::uint64_t place : offsets.value_or(places)) appendNumber(out, place, offsetSize);
        out.resize(out.size() + 6);
        out.push_back(offsetSize);
        out.push_back(referenceSize);
        appendNumber(out, objectCount.value_or(objects.size()), 8);
        appendNumber(out, top, 8);
        appendNumber(out, offsetTable.value_or(table), 8);
        return out;
    }
};

/// The start of an object of the type with a count of any size.
inline Bytes counted(std::uint8_t type, std::uint64_t count) {
    Bytes out = bytes({type | 0x0F, 0x13});
    appendNumber(out, count, 8);
    return out;
}

inline Bytes asciiString(std::string_view text) {
    Bytes out = counted(0x50, text.size());
    out.insert(out.end(), text.begin(), text.end());
    return out;
}

/// An array (0xA0) or set (0xC0) of references of that size.
inline Bytes referring(std::uint8_t type, const std::vector<std::uint64_t>& references, std::size_t referenceSize = 1) {
    Bytes out = counted(type, references.size());
    for (const std::uint64_t reference : references) appendNumber(out, reference, referenceSize);
    return out;
}

/// A dictionary: references of the keys, then of the values.
inline Bytes dictionary(const std::vector<std::uint64_t>& keys, const std::vector<std::uint64_t>& values) {
    Bytes out = counted(0xD0, keys.size());
    for (const std::uint64_t reference : keys) appendNumber(out, reference, 1);
    for (const std::uint64_t reference : values) appendNumber(out, reference, 1);
    return out;
}

}  // namespace tarnwell::archive::testing
