#pragma once

#include <memory>

#include "fs/FSEnvironment.h"
#include "hostframework/ProviderEnumerator.h"

namespace tarnwell::fs {

class FSChangesEnumerator;
class LocalFileEnumerator;

/// Stands between one request for changes and the host's observer: forwards every report as it is, has the generation
/// store look at each item where it shall, and at the finish takes the changes enumerator out of its local file
/// enumerator. Called by one thread at a time.
class LocalChangesObserverContext : public hostframework::ChangeObserver {
public:
    LocalChangesObserverContext() = delete;
    LocalChangesObserverContext(const FSEnvironment& environment,
                                std::shared_ptr<hostframework::ChangeObserver> observer,
                                std::shared_ptr<LocalFileEnumerator> localFileEnumerator,
                                bool shouldUpdateFileIDInGenstore);

    /// To be called once, before the enumeration starts.
    void setFSChangesEnumerator(std::weak_ptr<FSChangesEnumerator> enumerator);

    void didUpdateItems(const std::vector<hostframework::ProviderItemPtr>& items) override;
    void didDeleteItemsWithIdentifiers(const std::vector<hostframework::ItemIdentifier>& identifiers) override;
    void finishEnumeratingChangesUpToSyncAnchor(const hostframework::SyncAnchor& anchor, bool moreComing) override;
    void finishEnumeratingWithError(const Error& error) override;

private:
    void removeEnumerator();

    const FSEnvironment& environment_;
    const std::shared_ptr<hostframework::ChangeObserver> observer_;
    const std::shared_ptr<LocalFileEnumerator> localFileEnumerator_;
    std::weak_ptr<FSChangesEnumerator> fsChangesEnumerator_;
    const bool shouldUpdateFileIDInGenstore_;
};

}  // namespace tarnwell::fs
