#pragma once

#include <cstdint>
#include <ctime>

/// When a change time (ctime) vouches for what was seen of an object.
namespace tarnwell::files {

/// An object whose change time is younger than this when a look at it begins may change again without a new time: file
/// systems stamp with the kernel's coarse clock, which ticks every 1 to 10 ms. In nanoseconds.
inline constexpr std::int64_t kSettlingTime = 25'000'000;

/// The clock that file systems stamp with, nanoseconds since 1970.
inline std::int64_t stampingClock() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME_COARSE, &now);
    return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

/// True when whatever happens to the object after a look that began at `began` gives it another change time.
inline bool isSettled(std::int64_t changed, std::int64_t began) { return changed < began - kSettlingTime; }

}  // namespace tarnwell::files
