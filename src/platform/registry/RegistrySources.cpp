#include "platform/registry/RegistrySources.h"

#include <dirent.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string_view>

#include "platform/filesystem/PlainFile.h"
#include "platform/registry/FlatpakMetadata.h"

namespace tarnwell::registry {
namespace {

constexpr std::size_t kMaxInstallationFileBytes = 1u << 20;

std::string withoutTrailingSlashes(std::string path) {
    while (path.size() > 1 && path.ends_with('/')) path.pop_back();
    return path;
}

std::vector<std::string> split(std::string_view text, char separator) {
    std::vector<std::string> parts;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find(separator), text.size());
        if (end > 0) parts.emplace_back(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return parts;
}

std::string folder(const RegistrySources::Lookup& variable, const char* name, std::string fallback) {
    const auto value = variable(name);
    if (value && value->starts_with('/')) return withoutTrailingSlashes(*value);
    return fallback;
}

void addOnce(std::vector<std::string>& list, const std::string& entry) {
    if (std::ranges::find(list, entry) == list.end()) list.push_back(entry);
}

/// The installations that the system's administrator listed, by the order of the files' names.
std::vector<std::string> listedInstallations(const std::string& configDir) {
    const std::string directory = configDir + "/installations.d";
    std::vector<std::string> names;
    std::unique_ptr<DIR, int (*)(DIR*)> open(opendir(directory.c_str()), closedir);
    while (const dirent* entry = open ? readdir(open.get()) : nullptr) {
        if (std::string_view(entry->d_name).ends_with(".conf")) names.emplace_back(entry->d_name);
    }
    std::ranges::sort(names);
    std::vector<std::string> paths;
    for (const std::string& name : names) {
        const auto content = filesystem::readFile(directory + "/" + name, kMaxInstallationFileBytes);
        if (!content) continue;
        const auto listed = parseFlatpakInstallations(textOf(*content));
        if (!listed) continue;
        for (const std::string& path : *listed) addOnce(paths, withoutTrailingSlashes(path));
    }
    return paths;
}

}  // namespace

std::vector<std::string> RegistrySources::languagesFrom(const Lookup& variable) {
    for (const char* name : {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"}) {
        const auto value = variable(name);
        if (value && !value->empty()) return split(*value, ':');
    }
    return {};
}

RegistrySources RegistrySources::from(const Lookup& variable) {
    RegistrySources sources;
    sources.home = folder(variable, "HOME", "");
    const std::string& home = sources.home;
    const std::string dataHome =
        folder(variable, "XDG_DATA_HOME", home.empty() ? std::string() : home + "/.local/share");
    sources.flatpakUserDir =
        folder(variable, "FLATPAK_USER_DIR", dataHome.empty() ? std::string() : dataHome + "/flatpak");
    sources.flatpakSystemDirs = {folder(variable, "FLATPAK_SYSTEM_DIR", "/var/lib/flatpak")};
    for (const std::string& path : listedInstallations(folder(variable, "FLATPAK_CONFIG_DIR", "/etc/flatpak"))) {
        addOnce(sources.flatpakSystemDirs, path);
    }
    if (!home.empty()) {
        sources.varApp = home + "/.var/app";
        sources.snapHome = home + "/snap";
    }
    sources.snapDesktopDirs = {"/var/lib/snapd/desktop/applications"};
    if (!dataHome.empty()) sources.userDesktopDir = dataHome + "/applications";

    // Flatpak and Snap put their own folders into XDG_DATA_DIRS; those are read as what they are, once.
    std::vector<std::string> exports;
    for (const std::string& installation : sources.flatpakSystemDirs)
        exports.push_back(installation + "/exports/share");
    exports.push_back(sources.flatpakUserDir + "/exports/share");
    if (!home.empty()) addOnce(sources.iconDirs, home + "/.icons");
    if (!dataHome.empty()) addOnce(sources.iconDirs, dataHome + "/icons");
    const auto dirs = variable("XDG_DATA_DIRS");
    for (std::string dir : split(dirs && !dirs->empty() ? *dirs : "/usr/local/share:/usr/share", ':')) {
        dir = withoutTrailingSlashes(dir);
        if (dir.starts_with('/')) {
            addOnce(sources.iconDirs, dir + "/icons");
            addOnce(sources.pixmapDirs, dir + "/pixmaps");
        }
        if (!dir.starts_with('/') || std::ranges::find(exports, dir) != exports.end()) continue;
        const std::string applications = dir + "/applications";
        if (dir.ends_with("/snapd/desktop")) {
            addOnce(sources.snapDesktopDirs, applications);
        } else if (applications != sources.userDesktopDir) {
            addOnce(sources.systemDesktopDirs, applications);
        }
    }
    addOnce(sources.pixmapDirs, "/usr/share/pixmaps");
    const std::string config = folder(variable, "XDG_CONFIG_HOME", home.empty() ? std::string() : home + "/.config");
    if (!config.empty()) {
        sources.themeSettings = {{config + "/gtk-4.0/settings.ini", "Settings", "gtk-icon-theme-name"},
                                 {config + "/gtk-3.0/settings.ini", "Settings", "gtk-icon-theme-name"},
                                 {config + "/kdeglobals", "Icons", "Theme"}};
    }
    sources.languages = languagesFrom(variable);
    return sources;
}

RegistrySources RegistrySources::fromEnvironment() {
    return from([](const char* name) -> std::optional<std::string> {
        const char* value = std::getenv(name);
        if (value && *value) return std::string(value);
        if (std::string_view(name) != "HOME") return std::nullopt;
        passwd entry{};
        passwd* found = nullptr;
        std::vector<char> buffer(16 * 1024);
        if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) != 0 || !found) return std::nullopt;
        return std::string(found->pw_dir);
    });
}

}  // namespace tarnwell::registry
