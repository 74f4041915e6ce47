#include "platform/registry/IconFinder.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <optional>
#include <set>
#include <utility>

#include "platform/registry/KeyFile.h"

namespace tarnwell::registry {
namespace {

const std::string kLastTheme = "hicolor";
constexpr std::array<std::string_view, 2> kSuffixes{".png", ".svg"};
constexpr std::array<std::string_view, 3> kIconSuffixes{".png", ".svg", ".xpm"};

bool isFolder(const std::string& path) {
    struct stat status{};
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

/// Some desktop files name the file where only the icon should be named.
std::string withoutSuffix(std::string name) {
    for (const std::string_view suffix : kIconSuffixes) {
        if (name.size() > suffix.size() && name.ends_with(suffix)) {
            name.resize(name.size() - suffix.size());
            break;
        }
    }
    return name;
}

}  // namespace

/// One search: what is wanted, where, and what has come of it so far.
struct IconFinder::Search {
    std::string name;
    icons::IconVariant variant;
    std::vector<std::string> folders;
    std::set<std::string> visited = {};
    std::optional<icons::IconData> found = std::nullopt;
    /// Why the first file that was there could not be used.
    std::optional<Error> fault = std::nullopt;

    /// True once the icon is found.
    bool tryFiles(const std::string& folder) {
        for (const std::string_view suffix : kSuffixes) {
            auto icon = icons::readIcon(folder + "/" + name + std::string(suffix), variant.pixels());
            if (icon) {
                found = std::move(*icon);
                return true;
            }
            const bool isMissing =
                icon.error().is(ErrorDomain::posix, ENOENT) || icon.error().is(ErrorDomain::posix, ENOTDIR);
            if (!isMissing && !fault) fault = icon.error();
        }
        return false;
    }
};

IconFinder::IconFinder(const RegistrySources& sources)
    : iconDirs_(sources.iconDirs), pixmapDirs_(sources.pixmapDirs), settings_(sources.themeSettings) {}

Result<icons::IconData> IconFinder::find(const std::string& icon, const std::vector<std::string>& further,
                                         const icons::IconVariant& variant) {
    if (icon.starts_with('/')) return icons::readIcon(icon, variant.pixels());
    if (!isThemeName(icon)) return failure(posixError(EINVAL, "\"" + icon + "\" is no name of an icon"));
    Search search{withoutSuffix(icon), variant, further};
    std::ranges::copy(iconDirs_, std::back_inserter(search.folders));
    if (const std::string theme = themeOfPerson(); !theme.empty()) searchTheme(search, theme);
    if (!search.found) searchTheme(search, kLastTheme);
    std::vector<std::string> unthemed = search.folders;
    std::ranges::copy(pixmapDirs_, std::back_inserter(unthemed));
    for (const std::string& folder : unthemed) {
        if (search.found || search.tryFiles(folder)) break;
    }
    if (search.found) return std::move(*search.found);
    if (search.fault) return failure(*search.fault);
    return failure(posixError(ENOENT, "there is no icon \"" + icon + "\""));
}

void IconFinder::searchTheme(Search& search, const std::string& theme) {
    // Themes may inherit from each other in circles.
    if (search.found || search.visited.size() >= kMaxThemes || !search.visited.insert(theme).second) return;
    const auto index = indexOf(search, theme);
    if (!index) return;
    searchDirectories(search, theme, *index);
    for (const std::string& parent : index->parents) {
        // Everybody's last theme comes last, whoever names it before.
        if (parent != kLastTheme) searchTheme(search, parent);
    }
}

void IconFinder::searchDirectories(Search& search, const std::string& theme, const IconTheme& index) {
    std::vector<std::string> folders;
    for (const std::string& folder : search.folders) {
        if (isFolder(folder + "/" + theme)) folders.push_back(folder + "/" + theme);
    }
    if (folders.empty()) return;
    // The nearest first; of those that are equal, in the order of the index.
    std::vector<std::pair<int, std::size_t>> candidates;
    candidates.reserve(index.directories.size());
    const int points = static_cast<int>(search.variant.points), scale = static_cast<int>(search.variant.scale);
    for (std::size_t i = 0; i < index.directories.size(); ++i) {
        candidates.emplace_back(distance(index.directories[i], points, scale), i);
    }
    std::ranges::sort(candidates);
    for (const auto& [howFar, at] : candidates) {
        for (const std::string& folder : folders) {
            if (search.tryFiles(folder + "/" + index.directories[at].path)) return;
        }
    }
}

std::shared_ptr<const IconTheme> IconFinder::indexOf(const Search& search, const std::string& theme) {
    for (const std::string& folder : search.folders) {
        if (auto index = indices_.load(folder + "/" + theme + "/index.theme", parseIconTheme)) return *index;
    }
    if (theme != kLastTheme) return nullptr;
    return std::make_shared<const IconTheme>(builtInHicolor());
}

std::string IconFinder::themeOfPerson() {
    for (const auto& setting : settings_) {
        const auto content = readParsedFile(setting.path);
        if (!content) continue;
        const auto file = KeyFile::parse(*content);
        if (!file) continue;
        auto theme = file->text(setting.group, setting.key);
        if (theme && isThemeName(*theme)) return std::move(*theme);
    }
    return {};
}

}  // namespace tarnwell::registry
