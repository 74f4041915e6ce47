#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "hostframework/ProviderItem.h"
#include "platform/base/Result.h"

namespace tarnwell::hostframework {

using SyncAnchor = Bytes;
using EnumerationPage = Bytes;

/// The two pages with which a host begins a listing. Both mean "from the start"; neither is a token.
extern const EnumerationPage kInitialPageSortedByName;
extern const EnumerationPage kInitialPageSortedByDate;

/// Receives one listing. The calls of one request come one after the other, on the thread of the request; exactly one
/// of the two finishes ends it.
class EnumerationObserver {
public:
    virtual ~EnumerationObserver() = default;
    virtual void didEnumerateItems(const std::vector<ProviderItemPtr>& items) = 0;
    /// With the next page, or nothing when the listing is complete.
    virtual void finishEnumeratingUpToPage(const std::optional<EnumerationPage>& page) = 0;
    virtual void finishEnumeratingWithError(const Error& error) = 0;
};

/// Receives the changes of one request, one call after the other, on any thread, also before the request returned.
/// Exactly one of the two finishes ends it; what comes after it is to be ignored.
class ChangeObserver {
public:
    virtual ~ChangeObserver() = default;
    /// Items that are new or differ, as they are now; one may be told of again.
    virtual void didUpdateItems(const std::vector<ProviderItemPtr>& items) = 0;
    /// What hangs under a deleted container goes with it.
    virtual void didDeleteItemsWithIdentifiers(const std::vector<ItemIdentifier>& identifiers) = 0;
    /// The anchor from which the next request goes on; `moreComing` says that it should be made at once.
    virtual void finishEnumeratingChangesUpToSyncAnchor(const SyncAnchor& anchor, bool moreComing) = 0;
    virtual void finishEnumeratingWithError(const Error& error) = 0;
};

/// Lists one container and tells its changes. A host calls it on threads of its own, one request at a time, and ends it
/// with `invalidate`.
class ProviderEnumerator {
public:
    virtual ~ProviderEnumerator() = default;
    virtual void enumerateItemsForObserver(const std::shared_ptr<EnumerationObserver>& observer,
                                           const EnumerationPage& startingAtPage) = 0;
    /// May return before the request is finished.
    virtual void enumerateChangesForObserver(const std::shared_ptr<ChangeObserver>& observer,
                                             const SyncAnchor& fromSyncAnchor) = 0;
    /// The completion gets no anchor where there is no source of live updates.
    virtual void currentSyncAnchorWithCompletionHandler(
        const std::function<void(const std::optional<SyncAnchor>&)>& completion) = 0;
    virtual void invalidate() = 0;
};

}  // namespace tarnwell::hostframework
