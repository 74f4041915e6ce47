#include "testing/DiskModel.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <vector>

namespace tarnwell::testing {

namespace {

[[noreturn]] void stop(const std::string& path) {
    std::perror(path.c_str());
    std::abort();
}

DiskObject look(const std::string& path) {
    struct statx found{};
    if (::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS | STATX_BTIME, &found) != 0) stop(path);
    const auto nanoseconds = [](const statx_timestamp& time) { return time.tv_sec * 1'000'000'000 + time.tv_nsec; };
    DiskObject object;
    object.key = {found.stx_ino, nanoseconds(found.stx_btime)};
    object.mode = found.stx_mode;
    object.links = found.stx_nlink;
    object.size = found.stx_size;
    object.modified = nanoseconds(found.stx_mtime);
    object.changed = nanoseconds(found.stx_ctime);
    return object;
}

struct Folder {
    std::string relative;
    bool contentsVisible = true;
};

}  // namespace

bool DiskObject::isFolder() const { return S_ISDIR(mode); }
bool DiskObject::isFile() const { return S_ISREG(mode); }

Disk readDisk(const std::string& root, const std::optional<std::string>& packageSuffix) {
    Disk disk;
    std::vector<Folder> pending{{}};
    const ObjectKey rootKey = look(root).key;
    while (!pending.empty()) {
        const Folder folder = std::move(pending.back());
        pending.pop_back();
        const std::string path = folder.relative.empty() ? root : root + "/" + folder.relative;
        DIR* directory = ::opendir(path.c_str());
        if (directory == nullptr) stop(path);
        std::uint32_t entries = 0;
        while (const dirent* entry = ::readdir(directory)) {
            const std::string_view name = entry->d_name;
            if (name == "." || name == "..") continue;
            ++entries;
            const bool atTop = folder.relative.empty();
            const std::string relative = atTop ? std::string(name) : folder.relative + "/" + std::string(name);
            DiskObject object = look(root + "/" + relative);
            object.parent = atTop ? rootKey : disk.at(folder.relative).key;
            const bool hidden =
                name.starts_with('.') ? !(atTop && name == ".Trash") : atTop && name == "Inbox" && object.isFolder();
            object.visible = folder.contentsVisible && !hidden;
            object.package = packageSuffix && object.isFolder() && name.ends_with(*packageSuffix);
            if (object.isFolder()) pending.push_back({relative, object.visible && !object.package});
            disk.emplace(relative, object);
        }
        ::closedir(directory);
        if (!folder.relative.empty()) disk.at(folder.relative).entries = entries;
    }
    return disk;
}

}  // namespace tarnwell::testing
