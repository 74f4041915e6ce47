#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/Settings.h"
#include "platform/caller/Caller.h"
#include "platform/registry/RegistrySources.h"
#include "session/Session.h"

/// Looks at what this machine offers the program.
namespace tarnwell::host {

struct Check {
    /// `note` only informs; `warning` means that something works less well; `broken` that something does not work.
    enum class State { good, note, warning, broken };
    std::string subject;
    State state = State::good;
    std::string finding;
    std::string advice;  ///< what a person can do; empty where there is nothing to do
};

std::string_view nameOf(Check::State state);

/// The storage root by itself: is it there, may it be read and written.
Check checkStorageRoot(const Settings& settings);
/// Whether files in a folder can carry extended attributes. `subject` names the folder for people.
Check checkAttributes(const std::string& subject, const std::string& folder);
/// Whether the folder lies on a file system of this device, which tells of every change and for good which object is
/// which.
Check checkFileSystem(const std::string& subject, const std::string& folder);
/// Whether the folder, or the nearest folder above it that exists, may be written.
Check checkWritable(const std::string& subject, const std::string& folder);
/// The kernel's limits for watching folders; `procFolder` is "/proc/sys/fs".
std::vector<Check> checkWatchLimits(const std::string& procFolder);
/// The folders in which applications are looked for.
std::vector<Check> checkRegistrySources(const registry::RegistrySources& sources);
/// The database of file types in the folders of XDG_DATA_HOME and XDG_DATA_DIRS.
Check checkFileTypes(const Settings& settings, const Settings::Lookup& variable);
/// Whether icons can be drawn; `program` is the path of tarnwell-render-icon.
Check checkIconRenderer(const std::string& program);
/// Whether the service could tell its callers apart: is this program itself in the host's system, what are the
/// processes of this user, how does the kernel tell Snaps. `appArmorSwitch` is
/// "/sys/module/apparmor/parameters/enabled". In CallerChecks.cpp.
std::vector<Check> checkCallers(const caller::Sources& sources, const std::string& appArmorSwitch);
/// The store: how it was found, its identity, how much it knows.
Check checkStore(const session::Status& status);
/// The app libraries, and the attributes of their folders.
std::vector<Check> checkAppLibraries(const std::vector<session::Application>& applications);

}  // namespace tarnwell::host
