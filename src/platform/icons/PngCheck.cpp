#include "platform/icons/PngCheck.h"

#include <array>
#include <string_view>

namespace tarnwell::icons {
namespace {

constexpr std::string_view kSignature("\x89PNG\r\n\x1a\n", 8);
/// Length, name and checksum of a part.
constexpr std::size_t kPartFrame = 12;
constexpr std::size_t kHeaderBytes = 13;
constexpr std::size_t kAllowance = 4096;

constexpr std::array<std::uint32_t, 256> kChecksums = [] {
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t i = 0; i < table.size(); ++i) {
        std::uint32_t value = i;
        for (int bit = 0; bit < 8; ++bit) value = (value & 1) != 0 ? 0xEDB88320U ^ (value >> 1) : value >> 1;
        table[i] = value;
    }
    return table;
}();

std::uint32_t checksum(ByteView bytes) {
    std::uint32_t value = 0xFFFFFFFFU;
    for (const std::uint8_t byte : bytes) value = kChecksums[(value ^ byte) & 0xFF] ^ (value >> 8);
    return ~value;
}

std::uint32_t numberAt(ByteView bytes, std::size_t at) {
    return static_cast<std::uint32_t>(bytes[at]) << 24 | static_cast<std::uint32_t>(bytes[at + 1]) << 16 |
           static_cast<std::uint32_t>(bytes[at + 2]) << 8 | bytes[at + 3];
}

}  // namespace

std::size_t maxPngBytes(unsigned side) { return std::size_t{side} * side * 4 + std::size_t{side} * 8 + kAllowance; }

bool isSoundPng(ByteView bytes, unsigned side) {
    if (!textOf(bytes).starts_with(kSignature)) return false;
    ByteView rest = bytes.subspan(kSignature.size());
    for (bool isFirst = true, hasPixels = false;; isFirst = false) {
        if (rest.size() < kPartFrame) return false;
        const std::size_t length = numberAt(rest, 0);
        if (length > rest.size() - kPartFrame) return false;
        if (checksum(rest.subspan(4, 4 + length)) != numberAt(rest, 8 + length)) return false;
        const std::string_view name = textOf(rest.subspan(4, 4));
        if (isFirst != (name == "IHDR")) return false;
        if (isFirst && (length != kHeaderBytes || numberAt(rest, 8) != side || numberAt(rest, 12) != side))
            return false;
        hasPixels = hasPixels || (name == "IDAT" && length > 0);
        rest = rest.subspan(kPartFrame + length);
        if (name == "IEND") return hasPixels && rest.empty();
    }
}

}  // namespace tarnwell::icons
