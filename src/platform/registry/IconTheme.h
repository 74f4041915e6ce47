#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base/Result.h"

namespace tarnwell::registry {

inline constexpr std::size_t kMaxThemeDirectories = 2048;
inline constexpr std::size_t kMaxThemeParents = 16;

/// One folder of an icon theme, and for which sizes its icons are.
struct IconThemeDirectory {
    enum class Type { fixed, scalable, threshold };
    std::string path;  ///< below the theme's folders; never leads out of them
    Type type = Type::threshold;
    int size = 0;
    int scale = 1;
    int minSize = 0, maxSize = 0;  ///< of a scalable one
    int threshold = 2;
    friend bool operator==(const IconThemeDirectory&, const IconThemeDirectory&) = default;
};

/// What an icon theme's index says.
struct IconTheme {
    std::vector<IconThemeDirectory> directories;
    std::vector<std::string> parents;  ///< themes that are searched next
};

/// Reads an "index.theme". Folders that are not described, or described senselessly, are left out, as are those past
/// the limits. EBADMSG for text that is no key file or has no group "Icon Theme".
Result<IconTheme> parseIconTheme(std::string_view content);

/// The folders that everybody's last theme has, for a device on which no package describes them.
IconTheme builtInHicolor();

/// True for a name that can be that of a theme or of an icon: a single name of a file, not hidden.
bool isThemeName(std::string_view name);

/// How far the directory is from what is wanted: below 0 for one that is meant for it, 0 and more for the others. Of
/// those that are equal, the first counts.
int distance(const IconThemeDirectory& directory, int points, int scale);

}  // namespace tarnwell::registry
