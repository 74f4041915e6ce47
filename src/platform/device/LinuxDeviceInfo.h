#pragma once

#include <functional>
#include <optional>
#include <string>

#include "platform/device/DeviceInfo.h"
#include "platform/log/Log.h"

namespace tarnwell::device {

/// Where a device says what it is. Files that are missing or make no sense say nothing.
struct DeviceSources {
    /// The value of a variable; nothing where it is unset.
    using Lookup = std::function<std::optional<std::string>(const char* name)>;
    Lookup variable;
    std::string machineInfo = "/etc/machine-info";                     ///< CHASSIS=, what the administrator says
    std::string dmiChassis = "/sys/class/dmi/id/chassis_type";         ///< the firmware of a PC
    std::string deviceTreeChassis = "/proc/device-tree/chassis-type";  ///< the firmware of most other machines
    std::string monitors;  ///< the desktop's list of screens (monitors.xml); "" for none

    /// With the process's environment, and the list of screens in the folder of its settings.
    static DeviceSources fromEnvironment();
};

/// The device that this program runs on.
///
/// Class: TARNWELL_DEVICE_CLASS (1, 2 or 3), else the chassis: a tablet is 3, a handset 1, everything else, laptops
/// that can be folded over among them, 2.
/// Scale: TARNWELL_SCREEN_SCALE (1 to 3, such as 1.5), else GDK_SCALE or QT_SCALE_FACTOR of the session, else the scale
/// of the primary screen in the desktop's list of screens, else 1; never below 1 nor above 3.
/// A variable of ours with any other value is ignored, with one line at the error level.
class LinuxDeviceInfo final : public DeviceInfo {
public:
    /// The log outlives it.
    LinuxDeviceInfo(DeviceSources sources, log::Log& log) : sources_(std::move(sources)), log_(log) {}

private:
    std::int64_t lookUpDeviceClassNumber() override;
    float lookUpMainScreenScale() override;
    void ignore(const char* variable, const std::string& value, const char* needed);

    const DeviceSources sources_;
    log::Log& log_;
};

}  // namespace tarnwell::device
