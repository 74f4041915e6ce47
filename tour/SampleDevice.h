#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/base/Result.h"
#include "tour/ChildProcess.h"

namespace tarnwell::tour {

inline constexpr const char* kMarkerName = ".tarnwell-sample-device";
inline constexpr unsigned kManyEntries = 450;

/// A device of one person with applications and documents of every kind, in one folder: home/ (the home), system/ (what
/// is installed for everybody), run/ (the session's folder).
struct SampleDevice {
    /// Where it is: absolute, links resolved.
    std::string root;
    /// What this machine could not do for it, one sentence each.
    std::vector<std::string> remarks;

    /// What makes a program use this device instead of the person's own.
    EnvironmentChanges environment() const;
};

/// Makes the device in `folder` (with the folders above it), afresh: what an earlier call made there is removed.
/// ENOTEMPTY where the folder holds anything but a sample device; nothing is touched then. After another failure the
/// folder holds a part of a device, which the next call removes.
Result<SampleDevice> makeSampleDevice(const std::string& folder);

}  // namespace tarnwell::tour
