#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "hostframework/ProviderExtension.h"
#include "platform/filesystem/Roots.h"

namespace tarnwell::host {

/// What the host refuses before it asks its provider, so that nothing is touched: what an item's capabilities do not
/// allow, and whatever would take away or make up a root, a trash or an Inbox. Each question fails with the general
/// file error 513 and the rest of a sentence in its message ("it is read-only"), or as the lookup of an item does. A
/// yes is no promise: the file operation may still fail. Any thread may call it.
class Guards {
public:
    /// Borrows both.
    Guards(hostframework::ProviderExtension& provider, const Roots& roots) : provider_(provider), roots_(roots) {}

    enum class Kind { document, folder };
    /// Whether something new of that name may come into the folder.
    Result<void> mayAdd(const std::string& name, Kind kind, const hostframework::ItemIdentifier& parent) const;
    Result<void> mayRename(const hostframework::ItemIdentifier& item, const std::string& name) const;
    /// Without a name the item keeps its own.
    Result<void> mayMove(const hostframework::ItemIdentifier& item, const hostframework::ItemIdentifier& parent,
                         const std::optional<std::string>& name) const;
    Result<void> mayTrash(const hostframework::ItemIdentifier& item) const;
    Result<void> mayRestore(const hostframework::ItemIdentifier& item,
                            const std::optional<hostframework::ItemIdentifier>& parent) const;
    Result<void> mayDelete(const hostframework::ItemIdentifier& item) const;

private:
    using ItemPtr = hostframework::ProviderItemPtr;
    Result<ItemPtr> find(const hostframework::ItemIdentifier& identifier) const;
    /// The item, if it is none of those that keep their place and has the capability.
    Result<ItemPtr> findChangeable(const hostframework::ItemIdentifier& identifier, std::uint64_t capability) const;
    /// The folder, if something may be put into it.
    Result<ItemPtr> findTarget(const hostframework::ItemIdentifier& identifier) const;
    Result<void> checkName(const std::string& name, Kind kind, const hostframework::ProviderItem& parent) const;
    bool isRoot(const hostframework::ProviderItem& item) const;
    bool keepsARootOrTrash(const hostframework::ProviderItem& item) const;

    hostframework::ProviderExtension& provider_;
    const Roots& roots_;
};

}  // namespace tarnwell::host
