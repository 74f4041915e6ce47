#include "platform/base/DateText.h"

#include <array>
#include <cstdio>

namespace tarnwell {

std::string iso8601(Date date) {
    namespace chrono = std::chrono;
    // Microseconds first: the first day that nanoseconds reach begins before they do.
    const auto moment = chrono::floor<chrono::microseconds>(date);
    const auto day = chrono::floor<chrono::days>(moment);
    const chrono::year_month_day calendar(day);
    const chrono::hh_mm_ss time(moment - day);
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%04d-%02u-%02uT%02d:%02d:%02d.%06dZ", static_cast<int>(calendar.year()),
                  static_cast<unsigned>(calendar.month()), static_cast<unsigned>(calendar.day()),
                  static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
                  static_cast<int>(time.seconds().count()), static_cast<int>(time.subseconds().count()));
    return text.data();
}

}  // namespace tarnwell
