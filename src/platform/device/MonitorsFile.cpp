#include "platform/device/MonitorsFile.h"

#include <glib.h>

#include <charconv>
#include <cmath>
#include <memory>
#include <string>

namespace tarnwell::device {
namespace {

constexpr std::size_t kMaxNumberCharacters = 32;

/// What is known of the screen that is being read.
struct Reading {
    std::string element;
    std::optional<float> scale;
    bool isPrimary = false;
    std::optional<float> found;
};

void begin(GMarkupParseContext*, const char* name, const char**, const char**, void* data, GError**) {
    auto& reading = *static_cast<Reading*>(data);
    reading.element = name;
    if (reading.element == "logicalmonitor") {
        reading.scale.reset();
        reading.isPrimary = false;
    }
}

void end(GMarkupParseContext*, const char* name, void* data, GError**) {
    auto& reading = *static_cast<Reading*>(data);
    reading.element.clear();
    if (std::string_view(name) == "logicalmonitor" && reading.isPrimary && !reading.found)
        reading.found = reading.scale;
}

void text(GMarkupParseContext*, const char* bytes, gsize size, void* data, GError**) {
    auto& reading = *static_cast<Reading*>(data);
    const std::string_view value(bytes, size);
    if (reading.element == "scale") reading.scale = finiteNumber(value);
    if (reading.element == "primary") reading.isPrimary = value == "yes";
}

struct Closer {
    void operator()(GMarkupParseContext* context) const { g_markup_parse_context_free(context); }
};

}  // namespace

std::optional<float> finiteNumber(std::string_view text) {
    if (text.empty() || text.size() > kMaxNumberCharacters) return std::nullopt;
    float value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(value)) return std::nullopt;
    return value;
}

std::optional<float> primaryScaleOf(std::string_view monitors) {
    const GMarkupParser parser{begin, end, text, nullptr, nullptr};
    Reading reading;
    const std::unique_ptr<GMarkupParseContext, Closer> context(
        g_markup_parse_context_new(&parser, GMarkupParseFlags{}, &reading, nullptr));
    // What was read before a fault still counts: the file is somebody else's, and only a hint.
    (void)g_markup_parse_context_parse(context.get(), monitors.data(), static_cast<gssize>(monitors.size()), nullptr);
    return reading.found;
}

}  // namespace tarnwell::device
