#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/icons/IconData.h"
#include "platform/registry/IconTheme.h"
#include "platform/registry/ParsedFileCache.h"
#include "platform/registry/RegistrySources.h"

namespace tarnwell::registry {

inline constexpr std::size_t kMaxThemes = 32;

/// Finds the icons that applications name. A name is looked up by the rules of icon themes: in the person's theme, in
/// those that it inherits from, in "hicolor", and then among the icons without a theme. A path is read as it is. Any
/// thread may call it; it looks at the disk afresh.
class IconFinder {
public:
    explicit IconFinder(const RegistrySources& sources);

    /// `icon` is a name or an absolute path; `further` are folders of themes that are searched before the person's. A
    /// file that is no usable icon counts as missing, if there is another. ENOENT where nothing is found, else why the
    /// file could not be read.
    Result<icons::IconData> find(const std::string& icon, const std::vector<std::string>& further,
                                 const icons::IconVariant& variant);

private:
    struct Search;
    void searchTheme(Search& search, const std::string& theme);
    void searchDirectories(Search& search, const std::string& theme, const IconTheme& index);
    std::shared_ptr<const IconTheme> indexOf(const Search& search, const std::string& theme);
    std::string themeOfPerson();

    const std::vector<std::string> iconDirs_, pixmapDirs_;
    const std::vector<RegistrySources::ThemeSetting> settings_;
    ParsedFileCache<IconTheme> indices_;
};

}  // namespace tarnwell::registry
