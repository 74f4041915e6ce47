#include "platform/base/UTF8.h"

#include <cstdint>
#include <cstring>

namespace tarnwell {
namespace {

/// What may follow a leading byte: how many bytes in all, and the range of the second; the rest are 80 to BF.
struct Lead {
    std::uint8_t first, last;
    std::size_t length;
    std::uint8_t secondFrom, secondTo;
};

constexpr Lead kLeads[] = {
    {0x00, 0x7F, 1, 0, 0},       {0xC2, 0xDF, 2, 0x80, 0xBF}, {0xE0, 0xE0, 3, 0xA0, 0xBF},
    {0xE1, 0xEC, 3, 0x80, 0xBF}, {0xED, 0xED, 3, 0x80, 0x9F}, {0xEE, 0xEF, 3, 0x80, 0xBF},
    {0xF0, 0xF0, 4, 0x90, 0xBF}, {0xF1, 0xF3, 4, 0x80, 0xBF}, {0xF4, 0xF4, 4, 0x80, 0x8F},
};

bool follows(const Lead& lead, std::string_view text) {
    if (text.size() < lead.length) return false;
    for (std::size_t i = 1; i < lead.length; ++i) {
        auto byte = static_cast<std::uint8_t>(text[i]);
        std::uint8_t from = i == 1 ? lead.secondFrom : 0x80;
        std::uint8_t to = i == 1 ? lead.secondTo : 0xBF;
        if (byte < from || byte > to) return false;
    }
    return true;
}

}  // namespace

std::size_t utf8CharacterLength(std::string_view text) {
    if (text.empty()) return 0;
    auto byte = static_cast<std::uint8_t>(text.front());
    for (const Lead& lead : kLeads)
        if (byte >= lead.first && byte <= lead.last) return follows(lead, text) ? lead.length : 0;
    return 0;
}

bool isUTF8(std::string_view text) {
    constexpr std::uint64_t kHighBits = 0x8080808080808080;
    while (!text.empty()) {
        // Most of most texts is ASCII: eight characters at a time.
        std::uint64_t eight = 0;
        if (text.size() >= sizeof(eight)) {
            std::memcpy(&eight, text.data(), sizeof(eight));
            if ((eight & kHighBits) == 0) {
                text.remove_prefix(sizeof(eight));
                continue;
            }
        }
        std::size_t length = utf8CharacterLength(text);
        if (length == 0) return false;
        text.remove_prefix(length);
    }
    return true;
}

}  // namespace tarnwell
