#include "platform/operations/KnownObjects.h"

#include <fcntl.h>

namespace tarnwell::operations {

KnownObjects::KnownObjects(const OpenFolder& folder) {
    auto open = filesystem::openBeneath(folder.get(), {}, O_RDONLY | O_DIRECTORY);
    if (!open) return;
    auto found = filesystem::fileSystemIdentityOf(open->get());
    if (found) fileSystem_ = found->identity.empty() ? "unnamed" : std::move(found->identity);
}

std::optional<store::ObjectIdentity> KnownObjects::identityOf(store::Session& session,
                                                              const filesystem::Status& status) const {
    if (!fileSystem_) return std::nullopt;
    session.write();
    return store::ObjectIdentity{session.index().fileSystemNumber(*fileSystem_), status.inode, status.birth};
}

std::optional<FileID> KnownObjects::fileIDOf(store::Session& session, const filesystem::Status& status) const {
    const auto identity = identityOf(session, status);
    if (!identity) return std::nullopt;
    const auto row = session.index().byIdentity(*identity);
    return row ? std::optional(row->fileID) : std::nullopt;
}

std::optional<Place> placeOfFolder(const Roots& roots, store::Session& session, FileID folder) {
    constexpr int kMostLevels = 100'000;
    std::string below;
    std::uint64_t at = raw(folder);
    for (int level = 0; level < kMostLevels; ++level) {
        const store::FolderNode* node = session.index().folderNode(at);
        if (node == nullptr || !node->live) return std::nullopt;
        if (node->parent == 0) return roots.locate(node->name + below);
        below = "/" + node->name + below;
        at = node->parent;
    }
    return std::nullopt;
}

}  // namespace tarnwell::operations
