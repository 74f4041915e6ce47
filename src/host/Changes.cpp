#include "host/Changes.h"

#include <future>
#include <mutex>
#include <utility>

namespace tarnwell::host {
namespace {

using hostframework::ItemIdentifier;
using hostframework::ProviderItemPtr;
using hostframework::SyncAnchor;

/// Keeps what one request brought. Reports come on threads of the provider, and those after the finish are ignored.
class BatchObserver : public hostframework::ChangeObserver {
public:
    void didUpdateItems(const std::vector<ProviderItemPtr>& items) override {
        const std::lock_guard lock(mutex_);
        if (finished_) return;
        for (const auto& item : items) batch_.reports.push_back({.updated = item});
    }
    void didDeleteItemsWithIdentifiers(const std::vector<ItemIdentifier>& identifiers) override {
        const std::lock_guard lock(mutex_);
        if (finished_) return;
        for (const auto& identifier : identifiers)
            batch_.reports.push_back({.updated = nullptr, .deleted = identifier});
    }
    void finishEnumeratingChangesUpToSyncAnchor(const SyncAnchor& anchor, bool moreComing) override {
        {
            const std::lock_guard lock(mutex_);
            if (std::exchange(finished_, true)) return;
            batch_.anchor = anchor;
            batch_.moreComing = moreComing;
        }
        outcome_.set_value(std::move(batch_));
    }
    void finishEnumeratingWithError(const Error& error) override {
        {
            const std::lock_guard lock(mutex_);
            if (std::exchange(finished_, true)) return;
        }
        outcome_.set_value(failure(error));
    }
    /// Blocks until the request is finished.
    Result<ChangeBatch> wait() { return outcome_.get_future().get(); }

private:
    std::mutex mutex_;
    ChangeBatch batch_;
    std::promise<Result<ChangeBatch>> outcome_;
    bool finished_ = false;
};

}  // namespace

Result<ChangeBatch> changesSince(hostframework::ProviderEnumerator& enumerator, const SyncAnchor& anchor) {
    const auto observer = std::make_shared<BatchObserver>();
    enumerator.enumerateChangesForObserver(observer, anchor);
    return observer->wait();
}

Result<ChangeFollower> ChangeFollower::create(hostframework::ProviderExtension& provider,
                                              const ItemIdentifier& container) {
    ChangeFollower follower(provider, container);
    if (auto asked = follower.ask(); !asked) return failure(asked.error());
    return follower;
}

Result<void> ChangeFollower::ask() {
    auto enumerator = provider_->enumeratorForContainerItemIdentifier(container_);
    if (!enumerator) return failure(enumerator.error());
    enumerator_ = std::make_unique<EnumeratorHolder>(std::move(*enumerator));
    return {};
}

Result<ChangeBatch> ChangeFollower::changesSince(const SyncAnchor& anchor) {
    for (bool isSecondTry = false;; isSecondTry = true) {
        auto batch = host::changesSince(**enumerator_, anchor);
        // A folder that went elsewhere is not where its enumerator looks for it: it is asked for again.
        if (batch || isSecondTry || batch.error().domain != ErrorDomain::deviceUUID) return batch;
        if (auto asked = ask(); !asked) return failure(asked.error());
    }
}

}  // namespace tarnwell::host
