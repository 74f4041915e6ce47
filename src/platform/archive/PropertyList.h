#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "platform/base/Ids.h"
#include "platform/base/Result.h"

/// Property lists as trees of values, and their binary format (version 00).
namespace tarnwell::archive {

class Value;
using Array = std::vector<Value>;
/// Keys keep the order in which they were added; the last of two equal keys counts.
using Dictionary = std::vector<std::pair<std::string, Value>>;

/// A whole number with the sign kept apart, so that all of unsigned and signed 64 bits fit.
struct Integer {
    std::uint64_t magnitude = 0;
    bool negative = false;
    static Integer fromUnsigned(std::uint64_t v) { return {v, false}; }
    static Integer fromSigned(std::int64_t v) {
        return {v < 0 ? std::uint64_t{0} - static_cast<std::uint64_t>(v) : static_cast<std::uint64_t>(v), v < 0};
    }
    friend bool operator==(const Integer&, const Integer&) = default;
};

/// A reference into the object table of a keyed archive.
struct Uid {
    std::uint64_t index = 0;
    friend bool operator==(const Uid&, const Uid&) = default;
};

/// A date as the format has it: seconds since 2001-01-01T00:00:00Z.
struct PlistDate {
    double seconds = 0;
    friend bool operator==(const PlistDate&, const PlistDate&) = default;
};

class Value {
public:
    using Storage = std::variant<std::monostate, bool, Integer, double, PlistDate, std::string, Bytes, Uid,
                                 std::shared_ptr<Array>, std::shared_ptr<Dictionary>>;
    Value() = default;
    Value(bool v) : storage(v) {}
    Value(Integer v) : storage(v) {}
    Value(double v) : storage(v) {}
    Value(PlistDate v) : storage(v) {}
    Value(std::string v) : storage(std::move(v)) {}
    Value(const char* v) : storage(std::string(v)) {}
    Value(Bytes v) : storage(std::move(v)) {}
    Value(Uid v) : storage(v) {}
    Value(Array v) : storage(std::make_shared<Array>(std::move(v))) {}
    Value(Dictionary v) : storage(std::make_shared<Dictionary>(std::move(v))) {}

    template <typename T>
    const T* as() const {
        return std::get_if<T>(&storage);
    }
    const Array* array() const {
        auto p = std::get_if<std::shared_ptr<Array>>(&storage);
        return p ? p->get() : nullptr;
    }
    const Dictionary* dictionary() const {
        auto p = std::get_if<std::shared_ptr<Dictionary>>(&storage);
        return p ? p->get() : nullptr;
    }
    /// The value under a key of a dictionary; null for a missing key and for anything but a dictionary.
    const Value* find(std::string_view key) const;

    Storage storage;
};

/// Structural equality: arrays by content and order, dictionaries by the pairs that count, reals and dates by their
/// bits (so that a NaN equals itself).
bool operator==(const Value& a, const Value& b);

/// Limits of the reader; each is tested at the limit and one past it.
inline constexpr std::size_t kMaxPlistBytes = 16u << 20;
/// Entries of the object table; also the values of the tree that is read, where an object counts as often as it is
/// referred to.
inline constexpr std::size_t kMaxPlistObjects = 200'000;
/// Arrays, sets and dictionaries inside one another, the outermost included.
inline constexpr std::size_t kMaxPlistDepth = 64;
/// Bytes of all strings and data of the tree that is read, counted likewise; strings count as UTF-8.
inline constexpr std::size_t kMaxPlistContentBytes = 32u << 20;

/// The binary property list (version 00). Equal scalars are written once; containers once for every place. The same
/// tree always gives the same bytes. Strings are text: a byte that begins no well-formed UTF-8 sequence is written as
/// U+FFFD, so whoever must keep such bytes writes them as Bytes. Stops the process on a tree deeper than kMaxPlistDepth
/// and on an Integer below the signed 64-bit range (our own bugs). The other limits are the reader's: it refuses a list
/// of more objects or bytes even if this function wrote it.
Bytes writeBinaryPropertyList(const Value& root);

/// Reads any binary property list within the limits; sets are read as arrays. EBADMSG in the POSIX domain with a
/// message for anything else: cut, wrong magic, offsets outside, cycles, objects that expand past the limits, integers
/// beyond 64 bits, ASCII strings with bytes from 0x80, strings that are no UTF-16, dictionary keys that are no strings.
/// Needs no memory in proportion to sizes that are only declared.
Result<Value> readBinaryPropertyList(ByteView bytes);

}  // namespace tarnwell::archive
