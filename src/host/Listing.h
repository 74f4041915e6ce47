#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "hostframework/ProviderExtension.h"

/// How this host asks its provider for whole containers.
namespace tarnwell::host {

/// How often a listing begins again when its pages expire because things were deleted meanwhile.
inline constexpr int kMaxListingRestarts = 8;

struct ListedItem {
    hostframework::ProviderItemPtr item;
    /// The names that lead from the container to the item, with slashes between; the name alone for a direct entry.
    std::string path;
};

enum class Depth { direct, recursive };

struct ListingOptions {
    Depth depth = Depth::direct;
    /// Told now and then how many items were found so far; a restart lowers the number.
    std::function<void(std::size_t)> progress;
};

/// All items of a container, in the provider's order: page after page, from the start again when the pages expire or
/// the folder went elsewhere. A folder comes right before what it holds. Folders that go while a recursive listing runs
/// are left out; packages and links are single items. Runs on the calling thread.
///
/// Fails with the provider's error: no such item for the container, sync anchor expired after the last restart.
Result<std::vector<ListedItem>> listContainer(hostframework::ProviderExtension& provider,
                                              const hostframework::ItemIdentifier& container,
                                              const ListingOptions& options = {});

/// The container's current sync anchor; nothing where it has no source of changes.
Result<std::optional<hostframework::SyncAnchor>> currentSyncAnchor(hostframework::ProviderExtension& provider,
                                                                   const hostframework::ItemIdentifier& container);

}  // namespace tarnwell::host
