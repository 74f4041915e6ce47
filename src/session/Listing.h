#pragma once

#include "session/ListingWalk.h"

namespace tarnwell::session {

using ListedItem = Listed<Item>;

/// All items of a container, in the order of its pages, from the start again when they expire. A folder comes right
/// before what it holds. Folders that go while a recursive listing runs are left out; packages and links are single
/// items. Runs on the calling thread.
///
/// Fails as Session::enumerate does: no such item for the container, sync anchor expired after the last restart.
Result<std::vector<ListedItem>> listContainer(Session& session, const ItemIdentifier& container,
                                              const ListingOptions& options = {});

}  // namespace tarnwell::session
