#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <iterator>
#include <string>

#include "platform/base/Ids.h"

/// Files checked in beside this header, and the two ways in which every one of them is damaged.
namespace tarnwell::golden {

inline Bytes read(const std::string& name) {
    std::ifstream file(std::string(TARNWELL_SOURCE_DIR) + "/tests/golden/" + name, std::ios::binary);
    EXPECT_TRUE(file.is_open()) << "no golden file " << name;
    const std::string content((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    const ByteView bytes = bytesOf(content);
    return {bytes.begin(), bytes.end()};
}

/// Calls back with every true prefix. The copy ends with the allocation, so that a sanitizer sees a read past the end.
inline void cutAtEveryByte(const Bytes& whole, const std::function<void(ByteView)>& body) {
    for (std::size_t size = 0; size < whole.size(); ++size) {
        SCOPED_TRACE("cut to " + std::to_string(size) + " bytes");
        const Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
        body(cut);
    }
}

inline void flipEveryBit(const Bytes& whole, const std::function<void(ByteView)>& body) {
    for (std::size_t bit = 0; bit < whole.size() * 8; ++bit) {
        SCOPED_TRACE("bit " + std::to_string(bit % 8) + " of byte " + std::to_string(bit / 8) + " flipped");
        Bytes flipped = whole;
        flipped[bit / 8] = static_cast<std::uint8_t>(flipped[bit / 8] ^ (1u << (bit % 8)));
        body(flipped);
    }
}

}  // namespace tarnwell::golden
