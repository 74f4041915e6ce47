#include "platform/archive/TextEncoding.h"

#include <cstring>

#include "platform/base/Result.h"
#include "platform/base/UTF8.h"

namespace tarnwell::archive {

namespace {

constexpr char32_t kReplacement = 0xFFFD;
constexpr char32_t kFirstSupplementary = 0x10000;

bool isHighSurrogate(char32_t unit) { return unit >= 0xD800 && unit <= 0xDBFF; }
bool isLowSurrogate(char32_t unit) { return unit >= 0xDC00 && unit <= 0xDFFF; }

/// The code point of one well-formed sequence.
char32_t codePoint(std::string_view sequence) {
    const auto lead = static_cast<std::uint8_t>(sequence.front());
    if (sequence.size() == 1) return lead;
    auto point = static_cast<char32_t>(lead & (0x7F >> sequence.size()));
    for (const char next : sequence.substr(1)) point = (point << 6) | (static_cast<std::uint8_t>(next) & 0x3F);
    return point;
}

void appendUnit(Bytes& out, char32_t unit) {
    out.push_back(static_cast<std::uint8_t>(unit >> 8));
    out.push_back(static_cast<std::uint8_t>(unit & 0xFF));
}

/// Calls back with each code point of UTF-16BE; false as soon as there is something else.
template <typename Body>
bool forEachPoint(ByteView bytes, Body body) {
    if (bytes.size() % 2 != 0) return false;
    const auto unitAt = [&](std::size_t i) { return static_cast<char32_t>(bytes[i] << 8 | bytes[i + 1]); };
    for (std::size_t i = 0; i < bytes.size(); i += 2) {
        char32_t point = unitAt(i);
        if (isLowSurrogate(point)) return false;
        if (isHighSurrogate(point)) {
            i += 2;
            if (i >= bytes.size() || !isLowSurrogate(unitAt(i))) return false;
            point = kFirstSupplementary + ((point & 0x3FF) << 10) + (unitAt(i) & 0x3FF);
        }
        body(point);
    }
    return true;
}

std::size_t utf8Length(char32_t point) {
    if (point < 0x80) return 1;
    if (point < 0x800) return 2;
    return point < kFirstSupplementary ? 3 : 4;
}

void appendUtf8(std::string& out, char32_t point) {
    const auto put = [&](char32_t byte) { out.push_back(static_cast<char>(static_cast<std::uint8_t>(byte))); };
    const std::size_t length = utf8Length(point);
    constexpr char32_t kLeads[] = {0x00, 0xC0, 0xE0, 0xF0};
    put(kLeads[length - 1] | (point >> (6 * (length - 1))));
    for (std::size_t rest = length - 1; rest-- > 0;) put(0x80 | ((point >> (6 * rest)) & 0x3F));
}

}  // namespace

bool isAscii(std::string_view text) {
    constexpr std::uint64_t kHighBits = 0x8080808080808080;
    std::uint64_t found = 0;
    for (; text.size() >= sizeof found; text.remove_prefix(sizeof found)) {
        std::uint64_t word;
        std::memcpy(&word, text.data(), sizeof word);
        found |= word;
    }
    for (const char c : text) found |= static_cast<std::uint8_t>(c);
    return (found & kHighBits) == 0;
}

Bytes utf16FromUtf8(std::string_view text) {
    Bytes out;
    out.reserve(text.size() * 2);
    while (!text.empty()) {
        const std::size_t length = utf8CharacterLength(text);
        const char32_t point = length == 0 ? kReplacement : codePoint(text.substr(0, length));
        text.remove_prefix(length == 0 ? 1 : length);
        if (point < kFirstSupplementary) {
            appendUnit(out, point);
        } else {
            const char32_t rest = point - kFirstSupplementary;
            appendUnit(out, 0xD800 | (rest >> 10));
            appendUnit(out, 0xDC00 | (rest & 0x3FF));
        }
    }
    return out;
}

std::optional<std::size_t> utf8SizeOfUtf16(ByteView bytes) {
    std::size_t size = 0;
    if (!forEachPoint(bytes, [&](char32_t point) { size += utf8Length(point); })) return std::nullopt;
    return size;
}

std::string utf8FromUtf16(ByteView bytes) {
    const auto size = utf8SizeOfUtf16(bytes);
    TARNWELL_CHECK(size);
    std::string out;
    out.reserve(*size);
    forEachPoint(bytes, [&](char32_t point) { appendUtf8(out, point); });
    return out;
}

}  // namespace tarnwell::archive
