#include "platform/icons/render/Picture.h"

#include <librsvg/rsvg.h>
#include <png.h>

#include <algorithm>
#include <new>
#include <string_view>

namespace tarnwell::render {
namespace {

struct DrawingCloser {
    void operator()(cairo_t* drawing) const { cairo_destroy(drawing); }
};
using Drawing = std::unique_ptr<cairo_t, DrawingCloser>;

struct HandleCloser {
    void operator()(RsvgHandle* handle) const { g_object_unref(handle); }
};

struct ImageCloser {
    void operator()(png_image* image) const { png_image_free(image); }
};

/// Letters would need fonts, thus files and threads, which a confined process does not have; without them the library
/// would end the process, and the rest of the icon with it.
constexpr std::string_view kWithoutText = "text, tspan, tref, textPath { display: none !important; }";

Surface emptySquare(int side) {
    Surface surface(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, side, side));
    return cairo_surface_status(surface.get()) == CAIRO_STATUS_SUCCESS ? std::move(surface) : nullptr;
}

bool isFine(cairo_t* drawing) { return cairo_status(drawing) == CAIRO_STATUS_SUCCESS; }

/// The form that cairo computes with: colours multiplied by how much they cover.
void premultiply(unsigned char* pixels, std::size_t bytes) {
    for (std::size_t at = 0; at < bytes; at += 4) {
        const unsigned alpha = pixels[at + 3];
        for (std::size_t colour = at; colour < at + 3; ++colour) {
            pixels[colour] = static_cast<unsigned char>((pixels[colour] * alpha + 127) / 255);
        }
    }
}

cairo_status_t append(void* closure, const unsigned char* bytes, unsigned count) {
    try {
        auto& written = *static_cast<Bytes*>(closure);
        written.insert(written.end(), bytes, bytes + count);
        return CAIRO_STATUS_SUCCESS;
    } catch (const std::bad_alloc&) {
        return CAIRO_STATUS_NO_MEMORY;
    }
}

}  // namespace

Rendering renderPng(ByteView bytes, int side) {
    png_image header{};
    header.version = PNG_IMAGE_VERSION;
    const std::unique_ptr<png_image, ImageCloser> image(&header);
    if (png_image_begin_read_from_memory(&header, bytes.data(), bytes.size()) == 0) return {};
    if (header.width == 0 || header.height == 0) return {};
    if (std::uint64_t{header.width} * header.height > kMaxSourcePixels || header.width > 32'000 ||
        header.height > 32'000) {
        return {nullptr, Fault::tooLarge};
    }
    header.format = PNG_FORMAT_BGRA;  // as cairo has it where the lowest byte comes first
    const int width = static_cast<int>(header.width), height = static_cast<int>(header.height);
    const Surface source(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, width, height));
    Surface square = emptySquare(side);
    if (cairo_surface_status(source.get()) != CAIRO_STATUS_SUCCESS || !square) return {nullptr, Fault::tooLarge};
    unsigned char* pixels = cairo_image_surface_get_data(source.get());
    const int stride = cairo_image_surface_get_stride(source.get());
    if (png_image_finish_read(&header, nullptr, pixels, stride, nullptr) == 0) return {};
    premultiply(pixels, static_cast<std::size_t>(stride) * header.height);
    cairo_surface_mark_dirty(source.get());

    const Drawing drawing(cairo_create(square.get()));
    const double scale = std::min(double(side) / width, double(side) / height);
    cairo_translate(drawing.get(), (side - width * scale) / 2, (side - height * scale) / 2);
    cairo_scale(drawing.get(), scale, scale);
    cairo_set_source_surface(drawing.get(), source.get(), 0, 0);
    cairo_pattern_set_filter(cairo_get_source(drawing.get()), CAIRO_FILTER_GOOD);
    // Beyond its edges lies nothing, but a scaled edge should not fade into that.
    cairo_pattern_set_extend(cairo_get_source(drawing.get()), CAIRO_EXTEND_PAD);
    cairo_rectangle(drawing.get(), 0, 0, width, height);
    cairo_fill(drawing.get());
    if (!isFine(drawing.get())) return {};
    return {std::move(square)};
}

Rendering renderSvg(ByteView bytes, int side) {
    const std::unique_ptr<RsvgHandle, HandleCloser> handle(
        rsvg_handle_new_from_data(bytes.data(), bytes.size(), nullptr));
    if (!handle) return {};
    const auto* style = reinterpret_cast<const std::uint8_t*>(kWithoutText.data());
    if (!rsvg_handle_set_stylesheet(handle.get(), style, kWithoutText.size(), nullptr)) return {};
    Surface square = emptySquare(side);
    if (!square) return {nullptr, Fault::tooLarge};
    const Drawing drawing(cairo_create(square.get()));
    const RsvgRectangle place{0, 0, double(side), double(side)};
    if (!rsvg_handle_render_document(handle.get(), drawing.get(), &place, nullptr)) return {};
    if (!isFine(drawing.get())) return {};
    return {std::move(square)};
}

std::optional<Bytes> encodePng(cairo_surface_t* surface) {
    Bytes written;
    cairo_surface_flush(surface);
    if (cairo_surface_write_to_png_stream(surface, append, &written) != CAIRO_STATUS_SUCCESS) return std::nullopt;
    return written;
}

}  // namespace tarnwell::render
