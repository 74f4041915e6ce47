#include "fs/LocalChangesObserverContext.h"

#include "fs/FileIDUpdate.h"
#include "fs/LocalFileEnumerator.h"

namespace tarnwell::fs {

LocalChangesObserverContext::LocalChangesObserverContext(const FSEnvironment& environment,
                                                         std::shared_ptr<hostframework::ChangeObserver> observer,
                                                         std::shared_ptr<LocalFileEnumerator> localFileEnumerator,
                                                         bool shouldUpdateFileIDInGenstore)
    : environment_(environment),
      observer_(std::move(observer)),
      localFileEnumerator_(std::move(localFileEnumerator)),
      shouldUpdateFileIDInGenstore_(shouldUpdateFileIDInGenstore) {}

void LocalChangesObserverContext::setFSChangesEnumerator(std::weak_ptr<FSChangesEnumerator> enumerator) {
    fsChangesEnumerator_ = std::move(enumerator);
}

void LocalChangesObserverContext::didUpdateItems(const std::vector<hostframework::ProviderItemPtr>& items) {
    if (shouldUpdateFileIDInGenstore_) {
        for (const auto& item : items) updateFileIDInGenstore(environment_, *item);
    }
    observer_->didUpdateItems(items);
}

void LocalChangesObserverContext::didDeleteItemsWithIdentifiers(
    const std::vector<hostframework::ItemIdentifier>& identifiers) {
    observer_->didDeleteItemsWithIdentifiers(identifiers);
}

void LocalChangesObserverContext::finishEnumeratingChangesUpToSyncAnchor(const hostframework::SyncAnchor& anchor,
                                                                         bool moreComing) {
    // What happened in a folder that moved on meanwhile was looked for where it no longer is.
    if (const auto moved = localFileEnumerator_->checkContainer(); !moved) {
        return finishEnumeratingWithError(moved.error());
    }
    observer_->finishEnumeratingChangesUpToSyncAnchor(anchor, moreComing);
    removeEnumerator();
}

void LocalChangesObserverContext::finishEnumeratingWithError(const Error& error) {
    observer_->finishEnumeratingWithError(error);
    removeEnumerator();
}

void LocalChangesObserverContext::removeEnumerator() {
    if (const auto enumerator = fsChangesEnumerator_.lock()) localFileEnumerator_->removeEnumerator(enumerator);
    fsChangesEnumerator_.reset();
}

}  // namespace tarnwell::fs
