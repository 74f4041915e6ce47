#include <algorithm>
#include <limits>
#include <string_view>

#include "items/TWPFileObjectIdentifier.h"

namespace tarnwell::items {

namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }

bool take(std::string_view& text, std::string_view literal) {
    if (!text.starts_with(literal)) return false;
    text.remove_prefix(literal.size());
    return true;
}

/// Takes what strtoll(3) takes in base 10, white space and a sign included; nothing for no digits and out of range.
std::optional<std::int64_t> takeNumber(std::string_view& text) {
    text.remove_prefix(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
    bool negative = text.starts_with('-');
    if (negative || text.starts_with('+')) text.remove_prefix(1);
    if (text.empty() || !isDigit(text.front())) return std::nullopt;
    std::int64_t value = 0;  // kept negative, the range of which is the wider one
    while (!text.empty() && isDigit(text.front())) {
        if (__builtin_mul_overflow(value, 10, &value)) return std::nullopt;
        if (__builtin_sub_overflow(value, text.front() - '0', &value)) return std::nullopt;
        text.remove_prefix(1);
    }
    if (negative) return value;
    if (value == std::numeric_limits<std::int64_t>::min()) return std::nullopt;
    return -value;
}

}  // namespace

std::optional<DocumentIDChange> parseDocumentIDChangePath(std::string_view path) {
    path.remove_prefix(std::min(path.find_first_not_of('/'), path.size()));
    if (!take(path, ".docid/")) return std::nullopt;
    if (!path.empty() && isDigit(path.front())) {
        if (!takeNumber(path) || !take(path, "/")) return std::nullopt;
    }
    if (!take(path, "changed/")) return std::nullopt;
    auto documentID = takeNumber(path);
    if (!documentID || !take(path, "/src=")) return std::nullopt;
    auto source = takeNumber(path);
    if (!source || !take(path, ",dst=")) return std::nullopt;
    auto destination = takeNumber(path);
    if (!destination || !path.empty()) return std::nullopt;
    return DocumentIDChange{*documentID, *source, *destination};
}

}  // namespace tarnwell::items
