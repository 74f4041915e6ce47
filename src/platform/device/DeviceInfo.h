#pragma once

#include <cstdint>
#include <mutex>

namespace tarnwell::device {

/// Values of "DeviceClassNumber".
inline constexpr std::int64_t kHandset = 1;
inline constexpr std::int64_t kOtherDevice = 2;
inline constexpr std::int64_t kTablet = 3;

/// What is asked of a device. Each answer is looked up by the first question and stays the same for the life of the
/// object, so that one run of the program never mixes two. Any thread may ask.
class DeviceInfo {
public:
    virtual ~DeviceInfo() = default;
    /// "DeviceClassNumber".
    std::int64_t deviceClassNumber();
    /// "main-screen-scale": pixels for a point of the main screen.
    double mainScreenScale();
    bool isTablet() { return deviceClassNumber() == kTablet; }

private:
    virtual std::int64_t lookUpDeviceClassNumber() = 0;
    virtual float lookUpMainScreenScale() = 0;

    std::once_flag classOnce_, scaleOnce_;
    std::int64_t class_ = 0;
    double scale_ = 0;
};

}  // namespace tarnwell::device
