#include "host/Settings.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <vector>

#include "platform/filesystem/PlainFile.h"

namespace tarnwell::host {
namespace {

constexpr std::size_t kMaxUserDirsBytes = 64 * 1024;

std::optional<std::string> absolute(const Settings::Lookup& variable, const char* name) {
    auto value = variable(name);
    if (!value || !value->starts_with('/')) return std::nullopt;
    return value;
}

std::string folderFrom(const Settings::Lookup& variable, const char* name, const std::string& fallback) {
    return absolute(variable, name).value_or(fallback);
}

std::string withoutTrailingSlashes(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

/// The text between double quotation marks, backslashes undone; nothing where the quotation never ends.
std::optional<std::string> unquoted(std::string_view text) {
    if (!text.starts_with('"')) return std::nullopt;
    std::string result;
    for (std::size_t at = 1; at < text.size(); ++at) {
        if (text[at] == '"') return result;
        if (text[at] == '\\' && at + 1 < text.size()) ++at;
        result += text[at];
    }
    return std::nullopt;
}

std::string_view trimmed(std::string_view text) {
    const std::size_t begin = text.find_first_not_of(" \t");
    return begin == std::string_view::npos ? std::string_view{} : text.substr(begin);
}

}  // namespace

std::optional<std::string> documentsFolderOf(std::string_view userDirs, const std::string& home) {
    std::optional<std::string> folder;
    for (std::size_t begin = 0; begin < userDirs.size();) {
        const std::size_t end = std::min(userDirs.find('\n', begin), userDirs.size());
        std::string_view line = trimmed(userDirs.substr(begin, end - begin));
        begin = end + 1;
        constexpr std::string_view key = "XDG_DOCUMENTS_DIR";
        if (!line.starts_with(key)) continue;
        line = trimmed(line.substr(key.size()));
        if (!line.starts_with('=')) continue;
        const auto value = unquoted(trimmed(line.substr(1)));
        if (!value) continue;
        constexpr std::string_view homeVariable = "$HOME";
        if (value->starts_with('/')) {
            folder = withoutTrailingSlashes(*value);
        } else if (*value == homeVariable || value->starts_with("$HOME/")) {
            folder = withoutTrailingSlashes(home + value->substr(homeVariable.size()));
        }
    }
    // The home itself is how that file says "none".
    if (folder == withoutTrailingSlashes(home)) return std::nullopt;
    return folder;
}

Result<Settings> Settings::from(const Lookup& variable, const std::optional<std::string>& storageOption) {
    const auto home = absolute(variable, "HOME");
    if (!home) return failure(posixError(EINVAL, "this person's home folder is unknown; set HOME"));

    Settings settings;
    settings.applicationSupport = folderFrom(variable, "XDG_DATA_HOME", *home + "/.local/share");
    settings.stateDirectory = folderFrom(variable, "XDG_STATE_HOME", *home + "/.local/state") + "/tarnwell";
    settings.cacheDirectory = folderFrom(variable, "XDG_CACHE_HOME", *home + "/.cache") + "/tarnwell";
    if (auto runtime = absolute(variable, "XDG_RUNTIME_DIR")) settings.runtimeDirectory = *runtime + "/tarnwell";

    settings.registrySources = registry::RegistrySources::from(variable);

    if (storageOption) {
        if (storageOption->empty()) return failure(posixError(EINVAL, "--storage needs the path of a folder"));
        settings.storageRootOrigin = "--storage";
        settings.storageRoot = *storageOption;
        if (!storageOption->starts_with('/')) {
            std::error_code error;
            const auto here = std::filesystem::current_path(error);
            if (error) return failure(posixError(error.value(), "the working directory is unknown"));
            settings.storageRoot = here.string() + "/" + *storageOption;
        }
        return settings;
    }
    if (auto value = variable("TARNWELL_STORAGE"); value && !value->empty()) {
        if (!value->starts_with('/')) {
            return failure(posixError(EINVAL, "TARNWELL_STORAGE has to be an absolute path, not \"" + *value + "\""));
        }
        settings.storageRootOrigin = "TARNWELL_STORAGE";
        settings.storageRoot = *value;
        return settings;
    }
    const std::string config = folderFrom(variable, "XDG_CONFIG_HOME", *home + "/.config");
    if (const auto file = filesystem::readFile(config + "/user-dirs.dirs", kMaxUserDirsBytes)) {
        if (auto folder = documentsFolderOf(textOf(*file), *home)) {
            settings.storageRootOrigin = "XDG_DOCUMENTS_DIR";
            settings.storageRoot = *folder;
            return settings;
        }
    }
    settings.storageRootOrigin = "default";
    settings.storageRoot = *home + "/Documents";
    return settings;
}

Result<Settings> Settings::fromEnvironment(const std::optional<std::string>& storageOption) {
    return from(
        [](const char* name) -> std::optional<std::string> {
            const char* value = std::getenv(name);
            if (value != nullptr && *value != '\0') return std::string(value);
            if (std::string_view(name) != "HOME") return std::nullopt;
            std::vector<char> buffer(16 * 1024);
            passwd entry{};
            passwd* found = nullptr;
            if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr) {
                return std::nullopt;
            }
            return std::string(found->pw_dir);
        },
        storageOption);
}

}  // namespace tarnwell::host
