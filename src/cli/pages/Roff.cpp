#include "cli/pages/Roff.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>

namespace tarnwell::cli::pages {
namespace {

/// The next character of valid UTF-8, which is taken off the text.
std::uint32_t takeCharacter(std::string_view& text) {
    const auto first = static_cast<unsigned char>(text.front());
    const std::size_t size = first < 0x80 ? 1 : first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
    std::uint32_t character = size == 1 ? first : first & (0xffu >> (size + 1));
    for (std::size_t i = 1; i < size && i < text.size(); ++i) {
        character = (character << 6) | (static_cast<unsigned char>(text[i]) & 0x3fu);
    }
    text.remove_prefix(std::min(size, text.size()));
    return character;
}

std::string escaped(std::uint32_t character) {
    switch (character) {
        case '\\':
            return "\\e";
        case '-':
            return "\\-";
        case '\'':
            return "\\(aq";
        case '`':
            return "\\(ga";
        case '"':
            return "\\(dq";
        case '~':
            return "\\(ti";
        case '^':
            return "\\(ha";
        default:
            break;
    }
    if (character < 0x80) return std::string(1, static_cast<char>(character));
    char name[16];
    std::snprintf(name, sizeof name, "\\[u%04X]", static_cast<unsigned>(character));
    return name;
}

}  // namespace

std::string roffText(std::string_view text) {
    std::string result;
    bool isAtBegin = true;
    while (!text.empty()) {
        const std::uint32_t character = takeCharacter(text);
        // A dot there would begin a request.
        if (isAtBegin && character == '.') result += "\\&";
        result += escaped(character);
        isAtBegin = character == '\n';
    }
    return result;
}

std::string bold(std::string_view text) { return "\\fB" + roffText(text) + "\\fR"; }
std::string italic(std::string_view text) { return "\\fI" + roffText(text) + "\\fR"; }

}  // namespace tarnwell::cli::pages
