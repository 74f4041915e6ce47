#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <ranges>
#include <string>
#include <utility>
#include <vector>

#include "platform/base/Ids.h"
#include "platform/base/Result.h"
#include "session/Session.h"

/// How whole containers are read, whatever they are read from: a session, or a provider.
namespace tarnwell::session {

/// How often a listing begins again when its pages expire because things were deleted meanwhile.
inline constexpr int kMaxListingRestarts = 8;

enum class Depth { direct, recursive };

struct ListingOptions {
    Depth depth = Depth::direct;
    /// Told now and then how many items were found so far; a restart lowers the number.
    std::function<void(std::size_t)> progress = {};
};

template <typename ItemType>
struct Listed {
    ItemType item;
    /// The names that lead from the container to the item, with slashes between; the name alone for a direct entry.
    std::string path;
};

template <typename ItemType>
struct ListedPage {
    std::vector<ItemType> items;
    std::optional<Bytes> next;
};

/// One container after the other, page after page. A source has
///
///     Result<ListedPage<Item>> page(const ItemIdentifier& container, const std::optional<Bytes>& page);
///     static const std::string& nameOf(const Item&);
///     static std::optional<ItemIdentifier> folder(const Item&);  // nothing for an item that is none
template <typename ItemType, typename Source>
class ListingWalk {
public:
    using Items = std::vector<Listed<ItemType>>;

    ListingWalk(Source& source, const ListingOptions& options) : source_(source), options_(options) {}

    /// See listContainer.
    Result<Items> list(const ItemIdentifier& container) {
        if (auto pushed = push(container, {}); !pushed) return failure(pushed.error());
        while (!pending_.empty()) {
            listed_.push_back(std::move(pending_.back()));
            pending_.pop_back();
            if (options_.depth == Depth::direct) continue;
            const auto folder = Source::folder(listed_.back().item);
            if (!folder) continue;
            const auto pushed = push(*folder, listed_.back().path);
            // A folder that went since it was listed is as if it had gone before.
            if (!pushed && !pushed.error().is(ErrorDomain::host, kNoSuchItem)) return failure(pushed.error());
        }
        return std::move(listed_);
    }

private:
    Result<void> push(const ItemIdentifier& folder, const std::string& path) {
        auto items = listDirectly(folder);
        if (!items) return failure(items.error());
        for (auto& item : *items | std::views::reverse) {
            std::string name = path.empty() ? Source::nameOf(item) : path + "/" + Source::nameOf(item);
            pending_.push_back({std::move(item), std::move(name)});
        }
        return {};
    }

    Result<std::vector<ItemType>> listDirectly(const ItemIdentifier& folder) {
        for (int restarts = 0;; ++restarts) {
            auto items = listOnce(folder);
            if (items || restarts == kMaxListingRestarts) return items;
            // Its pages have expired, or it went elsewhere, where its source looks for it anew.
            const Error& error = items.error();
            if (error.domain != ErrorDomain::deviceUUID && !error.is(ErrorDomain::host, kSyncAnchorExpired)) {
                return items;
            }
        }
    }

    Result<std::vector<ItemType>> listOnce(const ItemIdentifier& folder) {
        std::vector<ItemType> items;
        for (std::optional<Bytes> at;;) {
            auto page = source_.page(folder, at);
            if (!page) return failure(page.error());
            items.insert(items.end(), std::make_move_iterator(page->items.begin()),
                         std::make_move_iterator(page->items.end()));
            if (options_.progress) options_.progress(listed_.size() + items.size());
            if (!page->next) return items;
            at = std::move(page->next);
        }
    }

    Source& source_;
    const ListingOptions& options_;
    /// A stack instead of recursion: a tree may be deeper than the stack of a thread. What lies on it is in reverse
    /// order.
    Items pending_, listed_;
};

}  // namespace tarnwell::session
