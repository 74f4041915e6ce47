#pragma once

#include <optional>
#include <string_view>

namespace tarnwell::device {

/// The scale of the primary screen in the first configuration of a list of screens (monitors.xml); nothing where it
/// names none or is no such file.
std::optional<float> primaryScaleOf(std::string_view monitors);

/// A number that fills the whole text, with a point for the fraction; nothing for anything else, "inf" and "nan" too.
std::optional<float> finiteNumber(std::string_view text);

}  // namespace tarnwell::device
