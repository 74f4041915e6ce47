#include "host/Listing.h"

#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "host/EnumeratorHolder.h"

namespace tarnwell::host {
namespace {

using hostframework::EnumerationPage;
using hostframework::ItemIdentifier;
using hostframework::ProviderEnumerator;
using hostframework::ProviderExtension;
using hostframework::ProviderItemPtr;

/// Keeps what one page brought. Reports may come on any thread, and those after the finish are ignored.
class PageObserver : public hostframework::EnumerationObserver {
public:
    void didEnumerateItems(const std::vector<ProviderItemPtr>& items) override {
        const std::lock_guard lock(mutex_);
        if (!finished_) items_.insert(items_.end(), items.begin(), items.end());
    }
    void finishEnumeratingUpToPage(const std::optional<EnumerationPage>& page) override { finish(page); }
    void finishEnumeratingWithError(const Error& error) override { finish(failure(error)); }

    using Outcome = Result<std::optional<EnumerationPage>>;
    /// Blocks until the page is complete.
    Outcome wait() { return outcome_.get_future().get(); }
    std::vector<ProviderItemPtr> takeItems() {
        const std::lock_guard lock(mutex_);
        return std::move(items_);
    }

private:
    void finish(Outcome outcome) {
        {
            const std::lock_guard lock(mutex_);
            if (std::exchange(finished_, true)) return;
        }
        outcome_.set_value(std::move(outcome));
    }

    std::mutex mutex_;
    std::vector<ProviderItemPtr> items_;
    std::promise<Outcome> outcome_;
    bool finished_ = false;
};

/// The pages of one container after the other: its enumerator lives as long as it is asked for.
class ProviderPages {
public:
    explicit ProviderPages(ProviderExtension& provider) : provider_(provider) {}

    Result<ListedPage> page(const ItemIdentifier& container, const std::optional<EnumerationPage>& page) {
        if (!holder_ || container != container_) {
            holder_.reset();
            auto enumerator = provider_.enumeratorForContainerItemIdentifier(container);
            if (!enumerator) return failure(enumerator.error());
            holder_.emplace(std::move(*enumerator));
            container_ = container;
        }
        auto listed = listPage(**holder_, page);
        const bool wentElsewhere = !listed && listed.error().domain == ErrorDomain::deviceUUID;
        if (wentElsewhere || (listed && !listed->next)) holder_.reset();
        return listed;
    }
    static const std::string& nameOf(const ProviderItemPtr& item) { return item->filename(); }
    static std::optional<ItemIdentifier> folder(const ProviderItemPtr& item) {
        return item->isFolder() ? std::optional(item->itemIdentifier()) : std::nullopt;
    }

private:
    ProviderExtension& provider_;
    std::optional<EnumeratorHolder> holder_;
    ItemIdentifier container_;
};

}  // namespace

Result<ListedPage> listPage(ProviderEnumerator& enumerator, const std::optional<EnumerationPage>& page) {
    const auto observer = std::make_shared<PageObserver>();
    enumerator.enumerateItemsForObserver(observer, page ? *page : hostframework::kInitialPageSortedByName);
    auto next = observer->wait();
    if (!next) return failure(next.error());
    return ListedPage{observer->takeItems(), std::move(*next)};
}

Result<std::vector<ListedItem>> listContainer(ProviderExtension& provider, const ItemIdentifier& container,
                                              const ListingOptions& options) {
    ProviderPages pages(provider);
    return session::ListingWalk<ProviderItemPtr, ProviderPages>(pages, options).list(container);
}

Result<std::optional<hostframework::SyncAnchor>> currentSyncAnchor(ProviderExtension& provider,
                                                                   const ItemIdentifier& container) {
    auto enumerator = provider.enumeratorForContainerItemIdentifier(container);
    if (!enumerator) return failure(enumerator.error());
    const EnumeratorHolder holder(std::move(*enumerator));
    return currentSyncAnchor(*holder);
}

Result<std::optional<hostframework::SyncAnchor>> currentSyncAnchor(ProviderEnumerator& enumerator) {
    // A completion may be called again, also after the first call was answered.
    struct Answer {
        std::once_flag once;
        std::promise<std::optional<hostframework::SyncAnchor>> promise;
    };
    const auto answer = std::make_shared<Answer>();
    enumerator.currentSyncAnchorWithCompletionHandler([answer](const std::optional<hostframework::SyncAnchor>& anchor) {
        std::call_once(answer->once, [&] { answer->promise.set_value(anchor); });
    });
    return answer->promise.get_future().get();
}

}  // namespace tarnwell::host
