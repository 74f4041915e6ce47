#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "host/EnumeratorHolder.h"
#include "hostframework/ProviderExtension.h"

namespace tarnwell::host {

/// One report of a request for changes.
struct ChangeReport {
    hostframework::ProviderItemPtr updated;                     ///< set for an update
    std::optional<hostframework::ItemIdentifier> deleted = {};  ///< set for a deletion
};

/// How one request for changes ended.
struct ChangeBatch {
    std::vector<ChangeReport> reports;  ///< in the provider's order
    hostframework::SyncAnchor anchor;   ///< from which the next request goes on
    bool moreComing = false;
};

/// One request. Blocks until it is finished. Fails with the provider's error: sync anchor expired, and then nothing of
/// the container is known.
Result<ChangeBatch> changesSince(hostframework::ProviderEnumerator& enumerator,
                                 const hostframework::SyncAnchor& anchor);

/// Follows the changes of one container by its anchors. Not for two threads at once.
class ChangeFollower {
public:
    /// Fails where the provider has no such container.
    static Result<ChangeFollower> create(hostframework::ProviderExtension& provider,
                                         const hostframework::ItemIdentifier& container);

    /// As above; a folder that went elsewhere is asked for again.
    Result<ChangeBatch> changesSince(const hostframework::SyncAnchor& anchor);

private:
    ChangeFollower(hostframework::ProviderExtension& provider, hostframework::ItemIdentifier container)
        : provider_(&provider), container_(std::move(container)) {}
    Result<void> ask();

    hostframework::ProviderExtension* provider_;
    hostframework::ItemIdentifier container_;
    std::unique_ptr<EnumeratorHolder> enumerator_;
};

}  // namespace tarnwell::host
