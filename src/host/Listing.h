#pragma once

#include <optional>
#include <vector>

#include "hostframework/ProviderExtension.h"
#include "session/ListingWalk.h"

/// How this host asks its provider for whole containers.
namespace tarnwell::host {

using session::Depth;
using session::kMaxListingRestarts;
using session::ListingOptions;
using ListedItem = session::Listed<hostframework::ProviderItemPtr>;
using ListedPage = session::ListedPage<hostframework::ProviderItemPtr>;

/// One page of what an enumerator lists; nothing for the first. Blocks until it is complete.
Result<ListedPage> listPage(hostframework::ProviderEnumerator& enumerator,
                            const std::optional<hostframework::EnumerationPage>& page);

/// All items of a container, in the provider's order: page after page, from the start again when the pages expire or
/// the folder went elsewhere. A folder comes right before what it holds. Folders that go while a recursive listing runs
/// are left out; packages and links are single items. Runs on the calling thread.
///
/// Fails with the provider's error: no such item for the container, sync anchor expired after the last restart.
Result<std::vector<ListedItem>> listContainer(hostframework::ProviderExtension& provider,
                                              const hostframework::ItemIdentifier& container,
                                              const ListingOptions& options = {});

/// The container's current sync anchor; nothing where it has no source of changes.
Result<std::optional<hostframework::SyncAnchor>> currentSyncAnchor(hostframework::ProviderEnumerator& enumerator);
Result<std::optional<hostframework::SyncAnchor>> currentSyncAnchor(hostframework::ProviderExtension& provider,
                                                                   const hostframework::ItemIdentifier& container);

}  // namespace tarnwell::host
