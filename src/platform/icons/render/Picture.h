#pragma once

#include <cairo.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

namespace tarnwell::render {

using Bytes = std::vector<std::uint8_t>;
using ByteView = std::span<const std::uint8_t>;

struct SurfaceCloser {
    void operator()(cairo_surface_t* surface) const { cairo_surface_destroy(surface); }
};
using Surface = std::unique_ptr<cairo_surface_t, SurfaceCloser>;

/// Pictures with more pixels are refused before memory is taken for them.
inline constexpr std::uint64_t kMaxSourcePixels = 16u << 20;

enum class Fault { unsound, tooLarge };

/// What became of an icon: the square picture, or why there is none.
struct Rendering {
    Surface surface;
    Fault fault = Fault::unsound;
};

/// The icon in the middle of a transparent square of `side` pixels, its proportions kept.
Rendering renderPng(ByteView bytes, int side);
Rendering renderSvg(ByteView bytes, int side);

/// Nothing without memory.
std::optional<Bytes> encodePng(cairo_surface_t* surface);

}  // namespace tarnwell::render
