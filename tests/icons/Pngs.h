#pragma once

#include <zlib.h>

#include <string>

#include "platform/base/Ids.h"

namespace tarnwell::icons {

/// The parts of PNG files, so that tests can put together sound ones and others.
inline std::string bigEndian(std::uint32_t value) {
    return {static_cast<char>(value >> 24), static_cast<char>(value >> 16), static_cast<char>(value >> 8),
            static_cast<char>(value)};
}

inline std::string pngPart(const std::string& name, const std::string& content) {
    const std::string checked = name + content;
    const auto checksum = crc32(0, reinterpret_cast<const Bytef*>(checked.data()), static_cast<uInt>(checked.size()));
    return bigEndian(static_cast<std::uint32_t>(content.size())) + checked +
           bigEndian(static_cast<std::uint32_t>(checksum));
}

inline std::string compressed(const std::string& content) {
    uLongf size = compressBound(content.size());
    std::string result(size, '\0');
    compress2(reinterpret_cast<Bytef*>(result.data()), &size, reinterpret_cast<const Bytef*>(content.data()),
              content.size(), 9);
    result.resize(size);
    return result;
}

inline const std::string kPngBegin("\x89PNG\r\n\x1a\n", 8);

/// Its first part: 8 bits a channel, colours and alpha.
inline std::string pngHeader(std::uint32_t width, std::uint32_t height) {
    return pngPart("IHDR", bigEndian(width) + bigEndian(height) + std::string("\x08\x06\0\0\0", 5));
}

/// A picture of one colour.
inline std::string pngOf(std::uint32_t width, std::uint32_t height,
                         const std::string& rgba = std::string("\xFF\0\x80\xFF", 4)) {
    std::string rows;
    for (std::uint32_t y = 0; y < height; ++y) {
        rows += '\0';
        for (std::uint32_t x = 0; x < width; ++x) rows += rgba;
    }
    return kPngBegin + pngHeader(width, height) + pngPart("IDAT", compressed(rows)) + pngPart("IEND", "");
}

inline Bytes bytesFrom(const std::string& text) { return {text.begin(), text.end()}; }

}  // namespace tarnwell::icons
