#include "items/RelativePath.h"

#include <vector>

namespace tarnwell::items {

std::optional<std::string> relativePath(const URL& item, const URL& folder) {
    if (!item.isFileURL() || !folder.isFileURL() || relationship(folder, item) != Relationship::contains) {
        return std::nullopt;
    }
    const std::vector<std::string> components = item.pathComponents();
    std::string path;
    for (std::size_t i = folder.pathComponents().size(); i < components.size(); ++i) {
        // What leads up again may lead out of the folder.
        if (components[i] == "..") return std::nullopt;
        if (!path.empty()) path += '/';
        path += components[i];
    }
    return path;
}

}  // namespace tarnwell::items
