#pragma once

#include <cstdint>

#include "platform/base/Ids.h"

namespace tarnwell::tour {

struct Colour {
    std::uint8_t red = 0, green = 0, blue = 0;
};

/// The bytes of a PNG image: a square of that many pixels a side (1 to 100), the colour in a round shape on
/// transparent ground.
Bytes pngIcon(unsigned side, Colour colour);

}  // namespace tarnwell::tour
