#include "tour/Png.h"

#include <array>
#include <string_view>

#include "platform/base/Result.h"

namespace tarnwell::tour {
namespace {

constexpr unsigned kMaxSide = 100;  // keeps the pixels in one stored block

void append32(Bytes& bytes, std::uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8) bytes.push_back(static_cast<std::uint8_t>(value >> shift));
}

std::uint32_t crcOf(ByteView bytes) {
    std::uint32_t crc = 0xFFFFFFFF;
    for (const std::uint8_t byte : bytes) {
        crc ^= byte;
        for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ ((crc & 1) ? 0xEDB88320 : 0);
    }
    return ~crc;
}

std::uint32_t adlerOf(ByteView bytes) {
    std::uint32_t low = 1, high = 0;
    for (const std::uint8_t byte : bytes) {
        low = (low + byte) % 65521;
        high = (high + low) % 65521;
    }
    return (high << 16) | low;
}

void appendChunk(Bytes& png, std::string_view type, ByteView content) {
    append32(png, static_cast<std::uint32_t>(content.size()));
    const std::size_t begin = png.size();
    png.insert(png.end(), type.begin(), type.end());
    png.insert(png.end(), content.begin(), content.end());
    append32(png, crcOf(ByteView(png).subspan(begin)));
}

/// The rows of pixels, each behind its filter type (none).
Bytes pixels(unsigned side, Colour colour) {
    Bytes rows;
    const int diameter = static_cast<int>(side);
    for (int y = 0; y < diameter; ++y) {
        rows.push_back(0);
        for (int x = 0; x < diameter; ++x) {
            const int dx = 2 * x + 1 - diameter, dy = 2 * y + 1 - diameter;
            const bool inside = dx * dx + dy * dy <= diameter * diameter;
            rows.insert(rows.end(),
                        {colour.red, colour.green, colour.blue, static_cast<std::uint8_t>(inside ? 255 : 0)});
        }
    }
    return rows;
}

/// A zlib stream of one block that is stored, not compressed.
Bytes stored(ByteView content) {
    const auto length = static_cast<std::uint16_t>(content.size());
    const auto inverse = static_cast<std::uint16_t>(~length);
    Bytes stream = {0x78, 0x01, 0x01};
    for (const std::uint16_t number : {length, inverse}) {
        stream.push_back(static_cast<std::uint8_t>(number & 0xFF));
        stream.push_back(static_cast<std::uint8_t>(number >> 8));
    }
    stream.insert(stream.end(), content.begin(), content.end());
    append32(stream, adlerOf(content));
    return stream;
}

}  // namespace

Bytes pngIcon(unsigned side, Colour colour) {
    TARNWELL_CHECK(side >= 1 && side <= kMaxSide);
    Bytes png = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    Bytes header;
    append32(header, side);
    append32(header, side);
    header.insert(header.end(), {8, 6, 0, 0, 0});  // 8 bits a sample, red green blue alpha
    appendChunk(png, "IHDR", header);
    appendChunk(png, "IDAT", stored(pixels(side, colour)));
    appendChunk(png, "IEND", {});
    return png;
}

}  // namespace tarnwell::tour
