#include "cli/output/Dates.h"

#include <charconv>
#include <ctime>
#include <string>

namespace tarnwell::cli {
namespace {

namespace chrono = std::chrono;

constexpr int kFirstYear = 1678;
constexpr int kLastYear = 2261;
constexpr std::int64_t kMostSeconds = 100LL * 366 * 24 * 3600;

/// Takes pieces from the front of a text.
class Reader {
public:
    explicit Reader(std::string_view text) : rest_(text) {}
    bool atEnd() const { return rest_.empty(); }
    bool take(char wanted) {
        if (!rest_.starts_with(wanted)) return false;
        rest_.remove_prefix(1);
        return true;
    }
    /// Exactly so many digits.
    std::optional<int> digits(std::size_t count) {
        if (rest_.size() < count) return std::nullopt;
        int number = 0;
        for (const char c : rest_.substr(0, count)) {
            if (c < '0' || c > '9') return std::nullopt;
            number = number * 10 + (c - '0');
        }
        rest_.remove_prefix(count);
        return number;
    }
    /// One to nine digits behind a point, as nanoseconds.
    std::optional<chrono::nanoseconds> fraction() {
        std::int64_t value = 0;
        std::size_t count = 0;
        while (count < rest_.size() && count < 10 && rest_[count] >= '0' && rest_[count] <= '9') {
            value = value * 10 + (rest_[count++] - '0');
        }
        if (count == 0 || count > 9) return std::nullopt;
        rest_.remove_prefix(count);
        for (std::size_t i = count; i < 9; ++i) value *= 10;
        return chrono::nanoseconds(value);
    }

private:
    std::string_view rest_;
};

struct TimeOfDay {
    int hour = 0, minute = 0, second = 0;
    chrono::nanoseconds fraction{0};
    /// East of UTC; nothing for local time.
    std::optional<chrono::minutes> zone;
};

std::optional<chrono::year_month_day> readDay(Reader& reader) {
    const auto year = reader.digits(4);
    if (!year || !reader.take('-')) return std::nullopt;
    const auto month = reader.digits(2);
    if (!month || !reader.take('-')) return std::nullopt;
    const auto day = reader.digits(2);
    if (!day || *year < kFirstYear || *year > kLastYear) return std::nullopt;
    const chrono::year_month_day date{chrono::year(*year), chrono::month(static_cast<unsigned>(*month)),
                                      chrono::day(static_cast<unsigned>(*day))};
    return date.ok() ? std::optional(date) : std::nullopt;
}

bool readZone(Reader& reader, TimeOfDay& time) {
    if (reader.atEnd()) return true;
    if (reader.take('Z')) {
        time.zone = chrono::minutes(0);
        return reader.atEnd();
    }
    const bool isEast = reader.take('+');
    if (!isEast && !reader.take('-')) return false;
    const auto hours = reader.digits(2);
    if (!hours || *hours > 23) return false;
    int minutes = 0;
    if (!reader.atEnd()) {
        reader.take(':');
        const auto given = reader.digits(2);
        if (!given || *given > 59) return false;
        minutes = *given;
    }
    time.zone = chrono::minutes(*hours * 60 + minutes) * (isEast ? 1 : -1);
    return reader.atEnd();
}

std::optional<TimeOfDay> readTime(Reader& reader) {
    TimeOfDay time;
    if (reader.atEnd()) return time;
    if (!reader.take('T') && !reader.take(' ')) return std::nullopt;
    const auto hour = reader.digits(2);
    if (!hour || *hour > 23 || !reader.take(':')) return std::nullopt;
    const auto minute = reader.digits(2);
    if (!minute || *minute > 59) return std::nullopt;
    time.hour = *hour;
    time.minute = *minute;
    if (reader.take(':')) {
        const auto second = reader.digits(2);
        if (!second || *second > 59) return std::nullopt;
        time.second = *second;
        if (reader.take('.')) {
            const auto fraction = reader.fraction();
            if (!fraction) return std::nullopt;
            time.fraction = *fraction;
        }
    }
    return readZone(reader, time) ? std::optional(time) : std::nullopt;
}

/// Seconds since 1970 of a time that the clocks of this session show.
std::optional<chrono::seconds> ofLocalTime(chrono::year_month_day day, const TimeOfDay& time) {
    std::tm local{};
    local.tm_year = static_cast<int>(day.year()) - 1900;
    local.tm_mon = static_cast<int>(static_cast<unsigned>(day.month())) - 1;
    local.tm_mday = static_cast<int>(static_cast<unsigned>(day.day()));
    local.tm_hour = time.hour;
    local.tm_min = time.minute;
    local.tm_sec = time.second;
    local.tm_isdst = -1;
    local.tm_wday = -1;  // stays so only if the time cannot be told
    const std::time_t seconds = std::mktime(&local);
    if (local.tm_wday == -1) return std::nullopt;
    return chrono::seconds(seconds);
}

}  // namespace

std::optional<Date> dateOfText(std::string_view text) {
    Reader reader(text);
    const auto day = readDay(reader);
    if (!day) return std::nullopt;
    const auto time = readTime(reader);
    if (!time) return std::nullopt;
    chrono::seconds seconds{0};
    if (time->zone) {
        seconds = chrono::sys_days(*day).time_since_epoch() + chrono::hours(time->hour) +
                  chrono::minutes(time->minute) + chrono::seconds(time->second) - *time->zone;
    } else if (const auto local = ofLocalTime(*day, *time)) {
        seconds = *local;
    } else {
        return std::nullopt;
    }
    return Date(chrono::nanoseconds(seconds) + time->fraction);
}

std::optional<chrono::seconds> durationOfText(std::string_view text) {
    if (text.size() < 2) return std::nullopt;
    std::int64_t unit = 0;
    switch (text.back()) {
        case 's':
            unit = 1;
            break;
        case 'm':
            unit = 60;
            break;
        case 'h':
            unit = 3600;
            break;
        case 'd':
            unit = 24 * 3600;
            break;
        case 'w':
            unit = 7 * 24 * 3600;
            break;
        default:
            return std::nullopt;
    }
    std::uint32_t number = 0;
    const char* end = text.data() + text.size() - 1;
    const auto [stopped, problem] = std::from_chars(text.data(), end, number);
    if (problem != std::errc{} || stopped != end) return std::nullopt;
    if (number > kMostSeconds / unit) return std::nullopt;
    return chrono::seconds(number * unit);
}

}  // namespace tarnwell::cli
