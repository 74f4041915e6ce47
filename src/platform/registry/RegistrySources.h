#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace tarnwell::registry {

/// Where applications are looked for. All paths are absolute; an empty text stands for "none", and a folder that does
/// not exist holds no applications.
struct RegistrySources {
    std::string home;  ///< what "~" means in X-Tarnwell-DataContainer

    std::string flatpakUserDir;                  ///< this user's Flatpak installation
    std::vector<std::string> flatpakSystemDirs;  ///< the system's; the first that has an ID counts
    std::string varApp;                          ///< holds the Flatpaks' containers

    std::vector<std::string> snapDesktopDirs;  ///< folders of Snap desktop files
    std::string snapHome;                      ///< holds the Snaps' containers

    /// Folders of other desktop entries. The first that has an ID counts, hidden or not.
    std::string userDesktopDir;
    std::vector<std::string> systemDesktopDirs;

    /// Folders of icon themes and of icons without a theme, the person's first.
    std::vector<std::string> iconDirs;
    std::vector<std::string> pixmapDirs;
    /// Settings of desktops that name the person's icon theme; the first that does counts.
    struct ThemeSetting {
        std::string path, group, key;
    };
    std::vector<ThemeSetting> themeSettings;

    std::vector<std::string> languages;  ///< in the order of preference, such as "de_AT", "fr"; see parseDesktopEntry

    /// The value of a variable; nothing where it is unset.
    using Lookup = std::function<std::optional<std::string>(const char* name)>;
    /// From HOME, XDG_DATA_HOME, XDG_DATA_DIRS, XDG_CONFIG_HOME, FLATPAK_USER_DIR, FLATPAK_SYSTEM_DIR,
    /// FLATPAK_CONFIG_DIR, LANGUAGE, LC_ALL, LC_MESSAGES and LANG. Variables that are empty, and folders that are not
    /// absolute, count as unset. Reads Flatpak's list of further installations (installations.d).
    static RegistrySources from(const Lookup& variable);
    /// The languages alone: of LANGUAGE, LC_ALL, LC_MESSAGES and LANG the first that is set.
    static std::vector<std::string> languagesFrom(const Lookup& variable);
    /// From this process's environment; without HOME, the home of the user database.
    static RegistrySources fromEnvironment();
};

}  // namespace tarnwell::registry
