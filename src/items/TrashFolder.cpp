#include "items/TrashFolder.h"

namespace tarnwell::items {

bool liesInTrash(std::string_view folderPath) {
    static constexpr std::string_view kTrash = "/Documents/.Trash";
    for (auto at = folderPath.find(kTrash); at != std::string_view::npos; at = folderPath.find(kTrash, at + 1)) {
        auto end = at + kTrash.size();
        if (end == folderPath.size() || folderPath[end] == '/') return true;
    }
    return false;
}

}  // namespace tarnwell::items
