#include "platform/log/LineText.h"

#include <cstdint>

#include "platform/base/UTF8.h"

namespace tarnwell::log {
namespace {

/// True for a character that moves the cursor or switches a terminal's state: below space, delete, U+0080 to U+009F.
bool isControl(std::string_view character) {
    auto first = static_cast<std::uint8_t>(character[0]);
    if (character.size() == 1) return first < 0x20 || first == 0x7F;
    return first == 0xC2 && static_cast<std::uint8_t>(character[1]) < 0xA0;
}

void appendEscaped(std::string& line, char byte) {
    constexpr char kDigits[] = "0123456789abcdef";
    switch (byte) {
        case '\n':
            line += "\\n";
            return;
        case '\r':
            line += "\\r";
            return;
        case '\t':
            line += "\\t";
            return;
        default: {
            auto value = static_cast<std::uint8_t>(byte);
            line += "\\x";
            line += kDigits[value >> 4];
            line += kDigits[value & 0x0F];
        }
    }
}

}  // namespace

std::string asOneLine(std::string_view text) {
    std::string line;
    line.reserve(text.size());
    while (!text.empty()) {
        std::size_t length = utf8CharacterLength(text);
        std::string_view character = text.substr(0, length == 0 ? 1 : length);
        if (length == 0 || isControl(character))
            for (char byte : character) appendEscaped(line, byte);
        else
            line += character;
        text.remove_prefix(character.size());
    }
    return line;
}

}  // namespace tarnwell::log
