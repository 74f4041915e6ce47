#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "platform/base/Result.h"

/// Where a process of a Snap bears the Snap's name. Pure functions. Each gives the instance name (with its key, as in
/// "notes_work"), nothing where the text is of no Snap, and EBADMSG with a message where it may be of one but does not
/// say clearly of which.
namespace tarnwell::caller {

inline constexpr std::size_t kMaxLabel = 4096;

/// From a security label. AppArmor's name a process's profile, "snap.<instance>.<program>", or several of them with
/// "//&" in between, and perhaps a mode: "snap.notes.notes (enforce)". Labels of other profiles and of other security
/// modules are of no Snap.
Result<std::optional<std::string>> snapOfLabel(std::string_view label);

/// From the control groups of "/proc/<process>/cgroup": units such as "snap.<instance>.<program>-<UUID>.scope" and
/// "snap.<instance>.<program>.service", and the group "snap.<instance>" of older hierarchies.
Result<std::optional<std::string>> snapOfControlGroups(std::string_view cgroup);

}  // namespace tarnwell::caller
