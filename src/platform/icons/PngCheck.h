#pragma once

#include "platform/base/Ids.h"

namespace tarnwell::icons {

/// The most that a rendered picture may take: its pixels uncompressed, and some.
std::size_t maxPngBytes(unsigned side);

/// True for bytes that are exactly one PNG of a square of `side` pixels whose parts all have their checksums: what a
/// renderer wrote, whole and undamaged. Looks at no pixel, and allocates nothing.
bool isSoundPng(ByteView bytes, unsigned side);

}  // namespace tarnwell::icons
