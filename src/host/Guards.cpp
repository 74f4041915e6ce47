#include "host/Guards.h"

#include <utility>

#include "items/TrashFolder.h"

namespace tarnwell::host {

using hostframework::ItemIdentifier;
using hostframework::ProviderItem;
using hostframework::ProviderItemPtr;

namespace {

constexpr std::uint64_t kAddSubItems = 0x2;
constexpr std::uint64_t kReparent = 0x4;
constexpr std::uint64_t kRename = 0x8;
constexpr std::uint64_t kTrash = 0x10;
constexpr std::uint64_t kDelete = 0x20;

std::unexpected<Error> refused(std::string reason) {
    return failure({ErrorDomain::generalFile, kWriteNotPermitted, {{kErrorMessage, std::move(reason)}}});
}

bool isView(const ItemIdentifier& identifier) {
    return identifier == hostframework::kWorkingSetContainer || identifier == hostframework::kAllDirectoriesContainer;
}

std::string named(const ProviderItem& item) { return "\"" + item.filename() + "\""; }

/// Such a name would be taken for an app library's folder.
bool readsAsLibrary(const std::string& name) { return name == "Documents"; }

Guards::Kind kindOf(const ProviderItem& item) {
    return item.isFolder() ? Guards::Kind::folder : Guards::Kind::document;
}

}  // namespace

Result<ProviderItemPtr> Guards::find(const ItemIdentifier& identifier) const {
    if (isView(identifier)) return refused("\"" + identifier + "\" is a view, not an item");
    return provider_.itemForIdentifier(identifier);
}

Result<ProviderItemPtr> Guards::findChangeable(const ItemIdentifier& identifier, std::uint64_t capability) const {
    if (isView(identifier)) return refused("it is a view, not an item");
    // Looking it up would make it.
    if (identifier == hostframework::kTemporaryLocalFolder) return refused("it belongs to the host");
    auto item = find(identifier);
    if (!item) return item;
    if (identifier == hostframework::kRootContainer) return refused("it is the storage root, which stays as it is");
    if ((*item)->isContainer()) return refused("it is an application's library, which stays as it is");
    if (keepsARootOrTrash(**item)) {
        return refused((*item)->filename() == items::kTrashFolderName
                           ? "it is the trash, which stays as it is"
                           : "it holds the storage root, a library or a trash, which stay as they are");
    }
    if (((*item)->capabilities() & capability) == 0) return refused("it is read-only");
    return item;
}

Result<ProviderItemPtr> Guards::findTarget(const ItemIdentifier& identifier) const {
    if (identifier == hostframework::kTemporaryLocalFolder) return refused("that folder belongs to the host");
    auto target = find(identifier);
    if (!target) return target;
    const ProviderItem& folder = **target;
    if (identifier == hostframework::kRootContainer) {
        return refused("nothing can be put into the storage root itself, only into its folders and into libraries");
    }
    if (!folder.isFolder()) return refused(named(folder) + " is no folder");
    if (items::liesInTrash(folder.fileURL().path())) {
        return refused(named(folder) + " lies in the trash, which takes only what is trashed");
    }
    if ((folder.capabilities() & kAddSubItems) == 0) return refused(named(folder) + " is read-only");
    return target;
}

Result<void> Guards::checkName(const std::string& name, Kind kind, const ProviderItem& parent) const {
    if (readsAsLibrary(name)) {
        return refused("\"Documents\" cannot be a new name: it stands for an application's library");
    }
    if (!isRoot(parent)) return {};
    if (name == "Inbox" && kind == Kind::folder) {
        return refused("\"Inbox\" cannot be a new name there: such a folder is never shown");
    }
    if (name == items::kTrashFolderName) return refused("\".Trash\" cannot be a new name there: it is the trash's");
    return {};
}

Result<void> Guards::mayAdd(const std::string& name, Kind kind, const ItemIdentifier& parent) const {
    const auto folder = findTarget(parent);
    if (!folder) return failure(folder.error());
    return checkName(name, kind, **folder);
}

Result<void> Guards::mayRename(const ItemIdentifier& identifier, const std::string& name) const {
    const auto item = findChangeable(identifier, kRename);
    if (!item) return failure(item.error());
    const auto parent = find((*item)->parentItemIdentifier());
    if (!parent) return failure(parent.error());
    return checkName(name, kindOf(**item), **parent);
}

Result<void> Guards::mayMove(const ItemIdentifier& identifier, const ItemIdentifier& parent,
                             const std::optional<std::string>& name) const {
    const auto item = findChangeable(identifier, kReparent);
    if (!item) return failure(item.error());
    if ((*item)->isTrashed()) return refused("it is in the trash; restore it instead");
    const auto folder = findTarget(parent);
    if (!folder) return failure(folder.error());
    return checkName(name.value_or((*item)->filename()), kindOf(**item), **folder);
}

Result<void> Guards::mayTrash(const ItemIdentifier& identifier) const {
    const auto item = findChangeable(identifier, kTrash);
    if (!item) return failure(item.error());
    if ((*item)->isTrashed()) return refused("it is in the trash already");
    if (readsAsLibrary((*item)->filename())) {
        return refused("its name \"Documents\" stands for an application's library; rename it first");
    }
    return {};
}

Result<void> Guards::mayRestore(const ItemIdentifier& identifier, const std::optional<ItemIdentifier>& parent) const {
    const auto item = findChangeable(identifier, kReparent);
    if (!item) return failure(item.error());
    if (!(*item)->isTrashed()) return refused("it is not in the trash");
    if (!parent) return {};
    const auto folder = findTarget(*parent);
    return folder ? Result<void>() : failure(folder.error());
}

Result<void> Guards::mayDelete(const ItemIdentifier& identifier) const {
    const auto item = findChangeable(identifier, kDelete);
    return item ? Result<void>() : failure(item.error());
}

bool Guards::isRoot(const ProviderItem& item) const {
    for (const auto& root : roots_.all()) {
        if (item.fileURL().path() == root->name) return true;
    }
    return false;
}

bool Guards::keepsARootOrTrash(const ProviderItem& item) const {
    const std::string& path = item.fileURL().path();
    for (const auto& root : roots_.all()) {
        const std::string trash = root->name + "/" + std::string(items::kTrashFolderName);
        if (relationship(path, trash) != Relationship::other) return true;
    }
    return false;
}

}  // namespace tarnwell::host
