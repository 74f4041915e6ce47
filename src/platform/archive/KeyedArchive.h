#pragma once

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include "platform/archive/PropertyList.h"
#include "platform/registry/AppRegistry.h"

namespace tarnwell::archive {

/// An object that an archive can hold as its root or below it.
struct ArchivedObject;
struct ArchivedEntry;
using ArchivedArray = std::vector<ArchivedObject>;
/// Keys keep their order; the last of two equal keys counts.
using ArchivedDictionary = std::vector<ArchivedEntry>;
struct ArchivedObject {
    /// Strings, numbers (Integer or double) and Booleans stand plainly in the object table; dates, arrays, dictionaries
    /// and application records are classed objects. Strings are any bytes: those that are no UTF-8 (paths may be such)
    /// stand as data in the table and come back as they were.
    std::variant<std::string, Integer, double, bool, Date, ArchivedArray, ArchivedDictionary,
                 registry::ArchivedBundleRecord>
        value;
    template <typename T>
    const T* as() const {
        return std::get_if<T>(&value);
    }
};

/// A key and its value. Not std::pair, which cannot be asked for before ArchivedObject is complete.
struct ArchivedEntry {
    std::string first;
    ArchivedObject second;
};

/// Codes of ErrorDomain::unarchive.
enum class UnarchiveError : std::int64_t { invalidResultingClass = 0, damaged = 1 };
Error makeError(UnarchiveError code, std::string message = {});

/// Limits of the unarchiver, beside those of the property list below it; each is tested at the limit and one past it.
/// Arrays and dictionaries inside one another, the outermost included.
inline constexpr std::size_t kMaxArchiveDepth = 64;
/// Objects below the root and the root; one counts as often as it is referred to, a dictionary's keys count, and an
/// application record counts as three. Whatever was unarchived can be archived and unarchived again.
inline constexpr std::size_t kMaxArchiveObjects = 24'000;
/// Keys of one classed object or class record in the object table.
inline constexpr std::size_t kMaxArchiveFields = 32;
/// Bytes of all strings, counted likewise.
inline constexpr std::size_t kMaxArchiveContentBytes = 16u << 20;

/// The bytes of a keyed archive of one root object: a binary property list with "$version" 100000, "$archiver",
/// "$top" {"root": UID} and "$objects", whose first is "$null". Dates keep nanoseconds. The same object always gives
/// the same bytes. Stops the process on an object deeper than kMaxArchiveDepth and on a dictionary with a key twice
/// (our own bugs).
Bytes archiveRoot(const ArchivedObject& root);

/// The root object. `damaged` for anything that is not such an archive, holds cycles, is too deep or too large;
/// `invalidResultingClass` for an archive with an object of a class that is none of the above.
Result<ArchivedObject> unarchiveRoot(ByteView bytes);

/// The root as a date, number (no Boolean), string or list of strings; `invalidResultingClass` when it is another
/// object.
Result<Date> unarchiveDate(ByteView bytes);
struct Number {
    std::variant<Integer, double> value;
    std::uint64_t asUnsigned() const;  ///< cut to the range, fractions cut off; 0 for what is no number
    double asDouble() const;
    friend bool operator==(const Number&, const Number&) = default;
};
Result<Number> unarchiveNumber(ByteView bytes);
Result<std::string> unarchiveString(ByteView bytes);
Result<std::vector<std::string>> unarchiveStrings(ByteView bytes);

}  // namespace tarnwell::archive
