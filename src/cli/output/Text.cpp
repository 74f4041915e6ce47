#include "cli/output/Text.h"

#include <fmt/format.h>

#include <array>
#include <clocale>
#include <ctime>
#include <cwchar>
#include <optional>

namespace tarnwell::cli {
namespace {

struct Character {
    char32_t code = 0;
    std::size_t length = 0;  ///< bytes
};

/// The valid character at the beginning of the bytes; nothing for an overlong, cut, surrogate or other wrong form.
std::optional<Character> firstCharacter(std::string_view bytes) {
    const auto at = [&](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
    const unsigned char lead = at(0);
    if (lead < 0x80) return Character{lead, 1};
    const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    if (lead < 0xC2 || lead > 0xF4 || bytes.size() < length) return std::nullopt;
    char32_t code = lead & (0xFFu >> (length + 1));
    for (std::size_t i = 1; i < length; ++i) {
        if ((at(i) & 0xC0) != 0x80) return std::nullopt;
        code = code << 6 | (at(i) & 0x3Fu);
    }
    constexpr std::array<char32_t, 5> smallest = {0, 0, 0x80, 0x800, 0x10000};
    if (code < smallest[length] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return std::nullopt;
    return Character{code, length};
}

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

/// Calls back with each valid character and its bytes, or with code U+FFFD and its bytes for each wrong byte.
template <typename F>
void forEachCharacter(std::string_view bytes, F&& body) {
    while (!bytes.empty()) {
        if (const auto character = firstCharacter(bytes)) {
            body(character->code, bytes.substr(0, character->length));
            bytes.remove_prefix(character->length);
        } else {
            body(char32_t{0xFFFD}, kReplacement);
            bytes.remove_prefix(1);
        }
    }
}

bool mustBeEscaped(char32_t code) {
    return code < 0x20 || (code >= 0x7F && code < 0xA0) || code == 0x061C || code == 0x200E || code == 0x200F ||
           (code >= 0x2028 && code <= 0x202E) || (code >= 0x2066 && code <= 0x2069) || code == 0xFEFF;
}

/// Character properties that do not depend on the session.
locale_t unicodeLocale() {
    static const locale_t locale = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    return locale;
}

}  // namespace

bool isUtf8(std::string_view bytes) {
    while (!bytes.empty()) {
        const auto character = firstCharacter(bytes);
        if (!character) return false;
        bytes.remove_prefix(character->length);
    }
    return true;
}

std::string toUtf8(std::string_view bytes) {
    std::string result;
    forEachCharacter(bytes, [&](char32_t, std::string_view text) { result += text; });
    return result;
}

std::string toDisplay(std::string_view bytes) {
    std::string result;
    forEachCharacter(bytes, [&](char32_t code, std::string_view text) {
        if (!mustBeEscaped(code)) {
            result += text;
        } else if (code == '\n') {
            result += "\\n";
        } else if (code == '\t') {
            result += "\\t";
        } else if (code == '\r') {
            result += "\\r";
        } else if (code < 0x100) {
            result += fmt::format("\\x{:02x}", static_cast<unsigned>(code));
        } else {
            result += fmt::format("\\u{:04x}", static_cast<unsigned>(code));
        }
    });
    return result;
}

std::size_t displayWidth(std::string_view text) {
    const locale_t unicode = unicodeLocale();
    const locale_t before = unicode != nullptr ? ::uselocale(unicode) : nullptr;
    std::size_t width = 0;
    forEachCharacter(text, [&](char32_t code, std::string_view) {
        const int columns = code < 0x80 ? 1 : ::wcwidth(static_cast<wchar_t>(code));
        width += columns < 0 ? 1 : static_cast<std::size_t>(columns);
    });
    if (before != nullptr) ::uselocale(before);
    return width;
}

constexpr std::string_view kBase64 = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::string base64(ByteView bytes) {
    std::string result;
    result.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t at = 0; at < bytes.size(); at += 3) {
        const std::size_t count = std::min<std::size_t>(3, bytes.size() - at);
        std::uint32_t group = 0;
        for (std::size_t i = 0; i < 3; ++i) group = group << 8 | (i < count ? bytes[at + i] : 0u);
        for (std::size_t i = 0; i < 4; ++i) {
            result += i <= count ? kBase64[group >> (18 - 6 * i) & 0x3F] : '=';
        }
    }
    return result;
}

std::optional<Bytes> bytesOfBase64(std::string_view text) {
    constexpr std::string_view blanks = " \t\r\n";
    text.remove_prefix(std::min(text.find_first_not_of(blanks), text.size()));
    text = text.substr(0, text.find_last_not_of(blanks) + 1);
    Bytes bytes;
    std::uint32_t group = 0;
    int bits = 0;
    for (const char c : text.substr(0, text.find('='))) {
        const auto digit = kBase64.find(c);
        if (digit == std::string_view::npos) return std::nullopt;
        group = group << 6 | static_cast<std::uint32_t>(digit);
        if ((bits += 6) < 8) continue;
        bits -= 8;
        bytes.push_back(static_cast<std::uint8_t>(group >> bits));
    }
    // One text for the same bytes: padding and left-over bits must be as they are written.
    return base64(bytes) == text ? std::optional(std::move(bytes)) : std::nullopt;
}

std::string localTime(Date date) {
    const std::time_t seconds = std::chrono::floor<std::chrono::seconds>(date).time_since_epoch().count();
    std::tm local{};
    if (::localtime_r(&seconds, &local) == nullptr) return "?";
    return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}", local.tm_year + 1900, local.tm_mon + 1, local.tm_mday,
                       local.tm_hour, local.tm_min);
}

std::string humanSize(std::uint64_t bytes) {
    if (bytes < 1024) return fmt::format("{} B", bytes);
    constexpr std::array<const char*, 6> units = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    double value = static_cast<double>(bytes) / 1024;
    std::size_t unit = 0;
    while (value >= 1023.5 && unit + 1 < units.size()) {
        value /= 1024;
        ++unit;
    }
    return value < 9.95 ? fmt::format("{:.1f} {}", value, units[unit]) : fmt::format("{:.0f} {}", value, units[unit]);
}

std::string grouped(std::uint64_t number) {
    std::string digits = std::to_string(number);
    for (std::size_t at = digits.size(); at > 3; at -= 3) digits.insert(at - 3, ",");
    return digits;
}

}  // namespace tarnwell::cli
