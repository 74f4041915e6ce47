#include "platform/device/LinuxDeviceInfo.h"

#include <algorithm>
#include <cstdlib>
#include <string_view>

#include "platform/device/MonitorsFile.h"
#include "platform/filesystem/PlainFile.h"
#include "platform/log/LineText.h"

namespace tarnwell::device {
namespace {

constexpr const char* kClassVariable = "TARNWELL_DEVICE_CLASS";
constexpr const char* kScaleVariable = "TARNWELL_SCREEN_SCALE";
constexpr float kMinScale = 1.0F;
constexpr float kMaxScale = 3.0F;
constexpr std::size_t kMaxFactBytes = 16 * 1024;
constexpr std::size_t kMaxMonitorsBytes = 1u << 20;
constexpr std::size_t kMaxShownCharacters = 64;

/// Numbers of chassis in the firmware's table (DMI).
constexpr std::string_view kDmiHandHeld = "11";
constexpr std::string_view kDmiTablet = "30";

std::string contentOf(const std::string& path, std::size_t limit) {
    if (path.empty()) return {};
    const auto content = filesystem::readFile(path, limit);
    return content ? std::string(textOf(*content)) : std::string();
}

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view kAround(" \t\r\n\"'\0", 7);
    const std::size_t begin = text.find_first_not_of(kAround);
    if (begin == std::string_view::npos) return {};
    return text.substr(begin, text.find_last_not_of(kAround) - begin + 1);
}

/// The value of a line "KEY=value"; the last one counts.
std::string assignedValue(std::string_view content, std::string_view key) {
    std::string value;
    while (!content.empty()) {
        const std::size_t end = std::min(content.find('\n'), content.size());
        const std::string_view line = content.substr(0, end);
        content.remove_prefix(std::min(end + 1, content.size()));
        if (line.starts_with(key) && line.size() > key.size() && line[key.size()] == '=') {
            value = trimmed(line.substr(key.size() + 1));
        }
    }
    return value;
}

std::int64_t classOfChassis(std::string_view chassis) {
    if (chassis == "tablet") return kTablet;
    return chassis == "handset" ? kHandset : kOtherDevice;
}

}  // namespace

DeviceSources DeviceSources::fromEnvironment() {
    DeviceSources sources;
    sources.variable = [](const char* name) -> std::optional<std::string> {
        const char* value = std::getenv(name);
        if (value == nullptr || *value == '\0') return std::nullopt;
        return std::string(value);
    };
    if (const auto config = sources.variable("XDG_CONFIG_HOME"); config && config->starts_with('/')) {
        sources.monitors = *config + "/monitors.xml";
    } else if (const auto home = sources.variable("HOME"); home && home->starts_with('/')) {
        sources.monitors = *home + "/.config/monitors.xml";
    }
    return sources;
}

void LinuxDeviceInfo::ignore(const char* variable, const std::string& value, const char* needed) {
    log_.write(log::Level::error, "[ERROR] ignored " + std::string(variable) + "=\"" +
                                      log::asOneLine(value.substr(0, kMaxShownCharacters)) + "\"; it has to be " +
                                      needed);
}

std::int64_t LinuxDeviceInfo::lookUpDeviceClassNumber() {
    if (const auto value = sources_.variable(kClassVariable)) {
        if (*value == "1" || *value == "2" || *value == "3") return (*value)[0] - '0';
        ignore(kClassVariable, *value, "1 (handset), 2 (any other device) or 3 (tablet)");
    }
    if (const auto chassis = assignedValue(contentOf(sources_.machineInfo, kMaxFactBytes), "CHASSIS");
        !chassis.empty()) {
        return classOfChassis(chassis);
    }
    const std::string dmi = contentOf(sources_.dmiChassis, kMaxFactBytes);
    if (trimmed(dmi) == kDmiTablet) return kTablet;
    if (trimmed(dmi) == kDmiHandHeld) return kHandset;
    return classOfChassis(trimmed(contentOf(sources_.deviceTreeChassis, kMaxFactBytes)));
}

float LinuxDeviceInfo::lookUpMainScreenScale() {
    if (const auto value = sources_.variable(kScaleVariable)) {
        const auto scale = finiteNumber(*value);
        if (scale && *scale >= kMinScale && *scale <= kMaxScale) return *scale;
        ignore(kScaleVariable, *value, "a number from 1 to 3");
    }
    for (const char* variable : {"GDK_SCALE", "QT_SCALE_FACTOR"}) {
        const auto scale = finiteNumber(sources_.variable(variable).value_or(""));
        if (scale && *scale > 0) return std::clamp(*scale, kMinScale, kMaxScale);
    }
    const auto scale = primaryScaleOf(contentOf(sources_.monitors, kMaxMonitorsBytes));
    return scale ? std::clamp(*scale, kMinScale, kMaxScale) : kMinScale;
}

}  // namespace tarnwell::device
