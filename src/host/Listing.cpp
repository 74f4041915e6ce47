#include "host/Listing.h"

#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <ranges>
#include <utility>

#include "host/EnumeratorHolder.h"
#include "hostframework/HostError.h"

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

/// One pass over all pages.
Result<std::vector<ProviderItemPtr>> listOnce(ProviderEnumerator& enumerator,
                                              const std::function<void(std::size_t)>& found) {
    std::vector<ProviderItemPtr> items;
    EnumerationPage page = hostframework::kInitialPageSortedByName;
    for (;;) {
        const auto observer = std::make_shared<PageObserver>();
        enumerator.enumerateItemsForObserver(observer, page);
        auto next = observer->wait();
        if (!next) return failure(next.error());
        auto fresh = observer->takeItems();
        items.insert(items.end(), std::make_move_iterator(fresh.begin()), std::make_move_iterator(fresh.end()));
        if (found) found(items.size());
        if (!*next) return items;
        page = std::move(**next);
    }
}

Result<std::vector<ProviderItemPtr>> listDirectly(ProviderExtension& provider, const ItemIdentifier& container,
                                                  const std::function<void(std::size_t)>& found) {
    std::optional<EnumeratorHolder> holder;
    for (int restarts = 0;; ++restarts) {
        if (!holder) {
            auto enumerator = provider.enumeratorForContainerItemIdentifier(container);
            if (!enumerator) return failure(enumerator.error());
            holder.emplace(std::move(*enumerator));
        }
        auto items = listOnce(**holder, found);
        if (items || restarts == kMaxListingRestarts) return items;
        // A folder that went elsewhere is not where its enumerator looks for it: it is asked for again.
        if (items.error().domain == ErrorDomain::deviceUUID) {
            holder.reset();
        } else if (!items.error().is(ErrorDomain::host, hostframework::kSyncAnchorExpired)) {
            return items;
        }
    }
}

}  // namespace

Result<std::vector<ListedItem>> listContainer(ProviderExtension& provider, const ItemIdentifier& container,
                                              const ListingOptions& options) {
    // A stack instead of recursion: a tree may be deeper than the stack of a thread. What lies on it is in reverse
    // order.
    std::vector<ListedItem> pending, listed;
    const auto push = [&](const ItemIdentifier& folder, const std::string& path) -> Result<void> {
        auto items = listDirectly(provider, folder, [&](std::size_t count) {
            if (options.progress) options.progress(listed.size() + count);
        });
        if (!items) return failure(items.error());
        for (auto& item : *items | std::views::reverse) {
            std::string name = path.empty() ? item->filename() : path + "/" + item->filename();
            pending.push_back({std::move(item), std::move(name)});
        }
        return {};
    };

    if (auto pushed = push(container, {}); !pushed) return failure(pushed.error());
    while (!pending.empty()) {
        listed.push_back(std::move(pending.back()));
        pending.pop_back();
        const ListedItem& last = listed.back();
        if (options.depth == Depth::direct || !last.item->isFolder()) continue;
        const auto pushed = push(last.item->itemIdentifier(), last.path);
        // A folder that went since it was listed is as if it had gone before.
        if (!pushed && !pushed.error().is(ErrorDomain::host, hostframework::kNoSuchItem)) {
            return failure(pushed.error());
        }
    }
    return listed;
}

Result<std::optional<hostframework::SyncAnchor>> currentSyncAnchor(ProviderExtension& provider,
                                                                   const ItemIdentifier& container) {
    auto enumerator = provider.enumeratorForContainerItemIdentifier(container);
    if (!enumerator) return failure(enumerator.error());
    const EnumeratorHolder holder(std::move(*enumerator));
    // A completion may be called again, also after the first call was answered.
    struct Answer {
        std::once_flag once;
        std::promise<std::optional<hostframework::SyncAnchor>> promise;
    };
    const auto answer = std::make_shared<Answer>();
    holder->currentSyncAnchorWithCompletionHandler([answer](const std::optional<hostframework::SyncAnchor>& anchor) {
        std::call_once(answer->once, [&] { answer->promise.set_value(anchor); });
    });
    return answer->promise.get_future().get();
}

}  // namespace tarnwell::host
