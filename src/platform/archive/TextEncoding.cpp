#include "platform/archive/TextEncoding.h"

#include <algorithm>

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

void appendUtf8(std::string& out, char32_t point) {
    const auto put = [&](char32_t byte) { out.push_back(static_cast<char>(static_cast<std::uint8_t>(byte))); };
    if (point < 0x80) {
        put(point);
    } else if (point < 0x800) {
        put(0xC0 | (point >> 6));
        put(0x80 | (point & 0x3F));
    } else if (point < kFirstSupplementary) {
        put(0xE0 | (point >> 12));
        put(0x80 | ((point >> 6) & 0x3F));
        put(0x80 | (point & 0x3F));
    } else {
        put(0xF0 | (point >> 18));
        put(0x80 | ((point >> 12) & 0x3F));
        put(0x80 | ((point >> 6) & 0x3F));
        put(0x80 | (point & 0x3F));
    }
}

}  // namespace

bool isAscii(std::string_view text) {
    return std::ranges::all_of(text, [](char c) { return static_cast<std::uint8_t>(c) < 0x80; });
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

std::optional<std::string> utf8FromUtf16(ByteView bytes) {
    if (bytes.size() % 2 != 0) return std::nullopt;
    const auto unitAt = [&](std::size_t i) { return static_cast<char32_t>(bytes[i] << 8 | bytes[i + 1]); };
    std::string out;
    out.reserve(bytes.size());
    for (std::size_t i = 0; i < bytes.size(); i += 2) {
        char32_t point = unitAt(i);
        if (isLowSurrogate(point)) return std::nullopt;
        if (isHighSurrogate(point)) {
            i += 2;
            if (i >= bytes.size() || !isLowSurrogate(unitAt(i))) return std::nullopt;
            point = kFirstSupplementary + ((point & 0x3FF) << 10) + (unitAt(i) & 0x3FF);
        }
        appendUtf8(out, point);
    }
    return out;
}

}  // namespace tarnwell::archive
