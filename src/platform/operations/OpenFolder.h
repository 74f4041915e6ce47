#pragma once

#include <string>

#include "platform/filesystem/Beneath.h"
#include "platform/filesystem/Roots.h"

namespace tarnwell::operations {

/// A folder below a root, opened once (O_PATH): what is done in it is done through the descriptor.
struct OpenFolder {
    Place place;
    Descriptor descriptor;
    filesystem::Status status;

    int get() const { return descriptor.get(); }
    Place placeOf(const std::string& name) const;
};

/// ENOTDIR where it is none, ENOENT where there is none, with sentences.
Result<OpenFolder> openFolder(const Place& place);
/// The folder that holds the item, and its name in there. EBUSY for a root, which lies in none of ours.
struct OpenItem {
    OpenFolder folder;
    std::string name;
    filesystem::Status status;
};
Result<OpenItem> openItem(const Place& place);

/// The path that the place has in a URL, and the real one that people know.
std::string urlPath(const Place& place);
std::string realPath(const Place& place);

inline bool isSameObject(const filesystem::Status& a, const filesystem::Status& b) {
    return a.device == b.device && a.inode == b.inode && a.birth == b.birth;
}
/// Whether nothing was written to the object, as far as its file system tells.
inline bool isUnchanged(const filesystem::Status& a, const filesystem::Status& b) {
    return isSameObject(a, b) && a.size == b.size && a.modified == b.modified && a.changed == b.changed;
}
/// Whether it has the same content, as far as that tells; it may have been given another name.
inline bool isUnwritten(const filesystem::Status& a, const filesystem::Status& b) {
    return a.size == b.size && a.modified == b.modified;
}

/// True when the folder is the other one, or lies below it, whatever the paths by which they were opened.
Result<bool> isInside(int folder, const filesystem::Status& other);

}  // namespace tarnwell::operations
