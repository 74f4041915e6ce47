#pragma once

#include <functional>
#include <optional>
#include <string>

#include "platform/base/Result.h"
#include "platform/registry/RegistrySources.h"

namespace tarnwell::host {

/// Where one run of the program finds a person's storage and keeps its own files. Absolute paths, not resolved; only
/// the storage root has to exist.
struct Settings {
    std::string storageRoot;
    /// Who chose the storage root, for messages: "--storage", "TARNWELL_STORAGE", "XDG_DOCUMENTS_DIR" or "default".
    std::string storageRootOrigin;
    std::string applicationSupport;  ///< $XDG_DATA_HOME; cache files lie in "Tarnwell Storage" below it
    std::string stateDirectory;      ///< $XDG_STATE_HOME/tarnwell; the store
    std::string cacheDirectory;      ///< $XDG_CACHE_HOME/tarnwell; what can be rebuilt
    /// $XDG_RUNTIME_DIR/tarnwell; nothing in a session without one.
    std::optional<std::string> runtimeDirectory;
    registry::RegistrySources registrySources;

    /// The value of an environment variable; nothing where it is unset.
    using Lookup = std::function<std::optional<std::string>(const char* name)>;

    /// From --storage (made absolute against the working directory), else TARNWELL_STORAGE, else XDG_DOCUMENTS_DIR of
    /// user-dirs.dirs, else ~/Documents. Variables of the XDG family that are not absolute count as unset, as does a
    /// documents folder that is the home itself. EINVAL with a message where no home can be found, for an empty
    /// --storage and for a TARNWELL_STORAGE that is not absolute.
    static Result<Settings> from(const Lookup& variable, const std::optional<std::string>& storageOption);
    /// From this process's environment; without HOME, the home of the user database.
    static Result<Settings> fromEnvironment(const std::optional<std::string>& storageOption);
};

/// The documents folder that the text of a user-dirs.dirs file names: an absolute path, or one that begins with
/// "$HOME/". Nothing where it names none, or the home itself.
std::optional<std::string> documentsFolderOf(std::string_view userDirs, const std::string& home);

}  // namespace tarnwell::host
