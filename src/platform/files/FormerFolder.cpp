#include "platform/files/FormerFolder.h"

#include <dirent.h>
#include <fcntl.h>

#include <functional>
#include <optional>
#include <string>

namespace tarnwell::files {

namespace {

Descriptor openAbove(const Root& root, const char* way) {
    return Descriptor(::openat(root.directory.get(), way, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

/// Whether one of the folders in it is the one looked for; nothing where they cannot all be looked at.
std::optional<bool> anyFolderIn(int folder, const std::function<bool(const filesystem::DirectoryEntry&)>& isIt) {
    filesystem::DirectoryReader reader(folder);
    filesystem::DirectoryEntry entry;
    for (std::size_t count = 0; count < kMostNeighbours; ++count) {
        const auto more = reader.next(entry);
        if (!more) return std::nullopt;
        if (!*more) return false;
        if ((entry.type == DT_DIR || entry.type == DT_UNKNOWN) && isIt(entry)) return true;
    }
    return std::nullopt;
}

}  // namespace

bool mayComeBack(const Root& root, const filesystem::Status& its, const store::ObjectIdentity& former) {
    const auto isFormer = [&](const Result<filesystem::Status>& status) {
        return status && status->device == its.device && status->inode == former.inode && status->birth == former.birth;
    };
    const Descriptor around = openAbove(root, ".."), above = openAbove(root, "../..");
    for (const Descriptor* folder : {&around, &above}) {
        const auto status = filesystem::statusOf(folder->get());
        if (!status || status->mount != its.mount) return true;
    }
    const auto beside = anyFolderIn(around.get(), [&](const filesystem::DirectoryEntry& entry) {
        return entry.inode == former.inode && isFormer(filesystem::statusAt(around.get(), entry.name.data()));
    });
    if (beside.value_or(true)) return true;
    if (root.kind == Root::Kind::storage) return false;
    const std::string below = root.realPath.substr(root.realPath.rfind('/'));
    const auto besideContainer = anyFolderIn(above.get(), [&](const filesystem::DirectoryEntry& entry) {
        return isFormer(filesystem::statusBeneath(above.get(), std::string(entry.name) + below));
    });
    return besideContainer.value_or(true);
}

}  // namespace tarnwell::files
