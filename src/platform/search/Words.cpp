#include "platform/search/Words.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace tarnwell::search {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

/// Takes one character off the front; the replacement character for a byte that belongs to none.
char32_t takeCharacter(std::string_view& rest) {
    const auto byteAt = [&](std::size_t i) { return static_cast<unsigned char>(rest[i]); };
    const unsigned char lead = byteAt(0);
    std::size_t length = 1;
    char32_t character = lead;
    char32_t least = 0;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2, character = lead & 0x1F, least = 0x80;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3, character = lead & 0x0F, least = 0x800;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4, character = lead & 0x07, least = 0x10000;
    } else if (lead >= 0x80) {
        rest.remove_prefix(1);
        return kReplacement;
    }
    bool isGood = rest.size() >= length;
    for (std::size_t i = 1; isGood && i < length; ++i) {
        isGood = (byteAt(i) & 0xC0) == 0x80;
        character = (character << 6) | (byteAt(i) & 0x3F);
    }
    isGood = isGood && character >= least && character <= 0x10FFFF && (character < 0xD800 || character > 0xDFFF);
    rest.remove_prefix(isGood ? length : 1);
    return isGood ? character : kReplacement;
}

void append(std::string& text, char32_t character) {
    const auto add = [&](char32_t bits) { text += static_cast<char>(bits); };
    if (character < 0x80) {
        add(character);
    } else if (character < 0x800) {
        add(0xC0 | (character >> 6)), add(0x80 | (character & 0x3F));
    } else if (character < 0x10000) {
        add(0xE0 | (character >> 12)), add(0x80 | ((character >> 6) & 0x3F)), add(0x80 | (character & 0x3F));
    } else {
        add(0xF0 | (character >> 18)), add(0x80 | ((character >> 12) & 0x3F));
        add(0x80 | ((character >> 6) & 0x3F)), add(0x80 | (character & 0x3F));
    }
}

struct Range {
    char32_t first, last;
};

template <std::size_t N>
bool isIn(const std::array<Range, N>& ranges, char32_t character) {
    return std::ranges::any_of(ranges, [&](const Range& r) { return character >= r.first && character <= r.last; });
}

/// Scripts that are written without spaces, and syllables that are looked for in the middle of a word.
constexpr std::array<Range, 8> kScriptsWithoutSpaces = {{{0x3040, 0x30FF},
                                                         {0x3400, 0x4DBF},
                                                         {0x4E00, 0x9FFF},
                                                         {0xAC00, 0xD7A3},
                                                         {0xF900, 0xFAFF},
                                                         {0xFF66, 0xFF9D},
                                                         {0x20000, 0x2FA1F},
                                                         {0x30000, 0x3134F}}};

/// Arrows, shapes, signs, emoji, and the private characters, of which two delimit labels.
constexpr std::array<Range, 6> kSymbols = {
    {{0x2190, 0x23FF}, {0x2460, 0x27BF}, {0x2900, 0x2BFF}, {0xE000, 0xF8FF}, {0x1F000, 0x1FAFF}, {0xF0000, 0x10FFFD}}};

/// How a symbol is written instead, as a word of letters and digits that no text can hold.
void appendSymbol(std::string& text, char32_t symbol) {
    std::array<char, 8> digits;
    const auto end =
        std::to_chars(digits.data(), digits.data() + digits.size(), static_cast<std::uint32_t>(symbol), 16);
    text += " \uE002";
    text.append(digits.data(), end.ptr);
    text += ' ';
}

/// Letters without an accent to take off that are written in ASCII like this.
struct Spelling {
    char32_t letter;
    const char* ascii;
};
constexpr std::array<Spelling, 14> kSpellings = {{{0xC6, "AE"},
                                                  {0xD8, "O"},
                                                  {0xDF, "ss"},
                                                  {0xE6, "ae"},
                                                  {0xF8, "o"},
                                                  {0x110, "D"},
                                                  {0x111, "d"},
                                                  {0x130, "I"},
                                                  {0x131, "i"},
                                                  {0x141, "L"},
                                                  {0x142, "l"},
                                                  {0x152, "OE"},
                                                  {0x153, "oe"},
                                                  {0x1E9E, "SS"}}};

/// Say how the character before is drawn, or join it with the next.
bool isInvisible(char32_t c) { return c == 0x200D || c == 0xFE0E || c == 0xFE0F; }

void appendPrepared(std::string& text, char32_t character) {
    constexpr char32_t kFullWidthFirst = 0xFF01, kFullWidthLast = 0xFF5E, kFullWidthOffset = 0xFEE0;
    const auto spelling = std::ranges::find(kSpellings, character, &Spelling::letter);
    if (spelling != kSpellings.end()) {
        text += spelling->ascii;
    } else if (character < 0x20 || character == 0x7F) {
        text += ' ';
    } else if (isIn(kScriptsWithoutSpaces, character)) {
        text += ' ';
        append(text, character);
        text += ' ';
    } else if (isIn(kSymbols, character)) {
        appendSymbol(text, character);
    } else if (character >= kFullWidthFirst && character <= kFullWidthLast) {
        append(text, character - kFullWidthOffset);
    } else if (!isInvisible(character)) {
        append(text, character);
    }
}

bool isUpper(char c) { return c >= 'A' && c <= 'Z'; }
bool isLower(char c) { return c >= 'a' && c <= 'z'; }
bool isDigit(char c) { return c >= '0' && c <= '9'; }
/// Also every byte of a character beyond ASCII.
bool isLetter(char c) { return isUpper(c) || isLower(c) || static_cast<unsigned char>(c) >= 0x80; }

bool beginsPart(const std::string& text, std::size_t at) {
    const char before = text[at - 1], here = text[at];
    if (isLower(before) && isUpper(here)) return true;
    if (isUpper(before) && isUpper(here) && at + 1 < text.size() && isLower(text[at + 1])) return true;
    return (isLetter(before) && isDigit(here)) || (isDigit(before) && isLetter(here));
}

/// The number of a symbol is one word.
std::string cut(const std::string& text) {
    constexpr std::string_view kSymbolMark = "\uE002";
    std::string result;
    bool isInSymbol = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text.compare(i, kSymbolMark.size(), kSymbolMark) == 0) isInSymbol = true;
        if (text[i] == ' ') isInSymbol = false;
        if (i > 0 && !isInSymbol && beginsPart(text, i)) result += ' ';
        result += text[i];
    }
    return result;
}

std::string fromLatin1(std::string_view bytes) {
    std::string text;
    for (const char c : bytes) append(text, static_cast<unsigned char>(c));
    return text;
}

}  // namespace

std::string wordsOf(std::string_view bytes) {
    std::string text;
    while (!bytes.empty()) appendPrepared(text, takeCharacter(bytes));
    return text;
}

std::string partsOf(std::string_view bytes) {
    const std::string words = wordsOf(bytes);
    std::string parts = cut(words);
    if (parts == words) parts.clear();
    bool isUtf8 = true;
    for (auto rest = bytes; isUtf8 && !rest.empty();) isUtf8 = takeCharacter(rest) != kReplacement;
    if (!isUtf8) parts += (parts.empty() ? "" : " ") + wordsOf(fromLatin1(bytes));
    return parts;
}

std::string wordsOfLabels(const std::vector<std::string>& labels) {
    std::string text;
    for (const std::string& label : labels) {
        text.append(text.empty() ? "" : " ").append(kLabelBegin).append(" ");
        text.append(wordsOf(label)).append(" ").append(kLabelEnd);
    }
    return text;
}

std::string lowered(std::string_view text) {
    std::string result(text);
    for (char& c : result) {
        if (isUpper(c)) c = static_cast<char>(c - 'A' + 'a');
    }
    return result;
}

std::string extensionOf(std::string_view name) {
    const std::size_t dot = name.rfind('.');
    return dot == std::string_view::npos || dot == 0 ? std::string() : lowered(name.substr(dot + 1));
}

}  // namespace tarnwell::search
