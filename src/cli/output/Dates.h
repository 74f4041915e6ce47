#pragma once

#include <chrono>
#include <optional>
#include <string_view>

#include "platform/base/Ids.h"

/// Dates and lengths of time as people write them.
namespace tarnwell::cli {

/// ISO 8601: "2024-05-01", "2024-05-01T14:00", "2024-05-01 14:00:30.5", each also with "Z", "+02:00" or "-0730" behind
/// the time; without one of those it is local. Nothing for any other text, and for a date before 1678 or after 2261.
std::optional<Date> dateOfText(std::string_view text);

/// "90s", "15m", "12h", "30d", "4w"; nothing for any other text, and for more than 100 years.
std::optional<std::chrono::seconds> durationOfText(std::string_view text);

}  // namespace tarnwell::cli
