#include "platform/registry/IconTheme.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <set>

#include "platform/registry/KeyFile.h"

namespace tarnwell::registry {
namespace {

const std::string kThemeGroup = "Icon Theme";
constexpr int kMaxSize = 4096;
constexpr int kMaxScale = 16;
constexpr std::size_t kMaxNameBytes = 255;
constexpr std::size_t kMaxPathBytes = 1024;

std::vector<std::string> parts(std::string_view text, char separator) {
    std::vector<std::string> result;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find(separator), text.size());
        std::string_view part = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        while (part.starts_with(' ')) part.remove_prefix(1);
        while (part.ends_with(' ')) part.remove_suffix(1);
        if (!part.empty()) result.emplace_back(part);
    }
    return result;
}

bool isPathBelow(const std::string& path) {
    if (path.empty() || path.size() > kMaxPathBytes || path.starts_with('/')) return false;
    return std::ranges::all_of(parts(path, '/'), [](const std::string& name) { return isThemeName(name); });
}

/// A whole number from 0 to `limit`; `fallback` where none is written, nothing where there is anything else.
std::optional<int> number(const KeyFile& file, const std::string& group, const std::string& key, int fallback,
                          int limit) {
    const auto text = file.text(group, key);
    if (!text) return fallback;
    int value = 0;
    const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), value);
    if (error != std::errc() || end != text->data() + text->size() || value < 0 || value > limit) return std::nullopt;
    return value;
}

std::optional<IconThemeDirectory> directoryOf(const KeyFile& file, const std::string& path) {
    if (!isPathBelow(path)) return std::nullopt;
    const auto size = number(file, path, "Size", 0, kMaxSize);
    if (!size || *size == 0) return std::nullopt;
    const auto scale = number(file, path, "Scale", 1, kMaxScale);
    const auto minSize = number(file, path, "MinSize", *size, kMaxSize);
    const auto maxSize = number(file, path, "MaxSize", *size, kMaxSize);
    const auto threshold = number(file, path, "Threshold", 2, kMaxSize);
    if (!scale || *scale == 0 || !minSize || !maxSize || *minSize > *maxSize || !threshold) return std::nullopt;
    IconThemeDirectory directory{.path = path,
                                 .size = *size,
                                 .scale = *scale,
                                 .minSize = *minSize,
                                 .maxSize = *maxSize,
                                 .threshold = *threshold};
    const std::string type = file.text(path, "Type").value_or("Threshold");
    if (type == "Fixed") directory.type = IconThemeDirectory::Type::fixed;
    if (type == "Scalable") directory.type = IconThemeDirectory::Type::scalable;
    return directory;
}

}  // namespace

bool isThemeName(std::string_view name) {
    return !name.empty() && name.size() <= kMaxNameBytes && !name.starts_with('.') && !name.contains('/') &&
           !name.contains('\0');
}

Result<IconTheme> parseIconTheme(std::string_view content) {
    auto file = KeyFile::parse(content);
    if (!file) return failure(file.error());
    if (!file->hasGroup(kThemeGroup)) return failure(posixError(EBADMSG, "no group \"Icon Theme\""));
    IconTheme theme;
    std::set<std::string> known;
    for (const char* key : {"Directories", "ScaledDirectories"}) {
        for (const std::string& path : parts(file->text(kThemeGroup, key).value_or(""), ',')) {
            if (theme.directories.size() >= kMaxThemeDirectories) break;
            if (!known.insert(path).second) continue;
            if (auto directory = directoryOf(*file, path)) theme.directories.push_back(std::move(*directory));
        }
    }
    for (std::string& parent : parts(file->text(kThemeGroup, "Inherits").value_or(""), ',')) {
        if (theme.parents.size() >= kMaxThemeParents) break;
        if (isThemeName(parent)) theme.parents.push_back(std::move(parent));
    }
    return theme;
}

IconTheme builtInHicolor() {
    IconTheme theme;
    for (const int size : {16, 22, 24, 32, 36, 48, 64, 72, 96, 128, 192, 256, 512}) {
        for (const int scale : {1, 2}) {
            const std::string side = std::to_string(size);
            theme.directories.push_back({.path = side + "x" + side + (scale == 1 ? "" : "@2") + "/apps",
                                         .size = size,
                                         .scale = scale,
                                         .minSize = size,
                                         .maxSize = size});
        }
    }
    theme.directories.push_back({.path = "scalable/apps",
                                 .type = IconThemeDirectory::Type::scalable,
                                 .size = 128,
                                 .minSize = 1,
                                 .maxSize = 512});
    return theme;
}

int distance(const IconThemeDirectory& directory, int points, int scale) {
    using Type = IconThemeDirectory::Type;
    int least = directory.size, most = directory.size;
    if (directory.type == Type::scalable) {
        least = directory.minSize;
        most = directory.maxSize;
    } else if (directory.type == Type::threshold) {
        least = directory.size - directory.threshold;
        most = directory.size + directory.threshold;
    }
    if (directory.scale == scale && points >= least && points <= most) return -1;
    const int wanted = points * scale;
    if (wanted < least * directory.scale) return least * directory.scale - wanted;
    if (wanted > most * directory.scale) return wanted - most * directory.scale;
    return 0;
}

}  // namespace tarnwell::registry
