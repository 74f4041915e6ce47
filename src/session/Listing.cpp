#include "session/Listing.h"

namespace tarnwell::session {
namespace {

class SessionPages {
public:
    explicit SessionPages(Session& session) : session_(session) {}
    Result<ListedPage<Item>> page(const ItemIdentifier& container, const std::optional<Bytes>& page) {
        auto given = session_.enumerate(container, page);
        if (!given) return failure(given.error());
        return ListedPage<Item>{std::move(given->items), std::move(given->next)};
    }
    static const std::string& nameOf(const Item& item) { return item.filename; }
    static std::optional<ItemIdentifier> folder(const Item& item) {
        return item.isFolder ? std::optional(item.identifier) : std::nullopt;
    }

private:
    Session& session_;
};

}  // namespace

Result<std::vector<ListedItem>> listContainer(Session& session, const ItemIdentifier& container,
                                              const ListingOptions& options) {
    SessionPages pages(session);
    return ListingWalk<Item, SessionPages>(pages, options).list(container);
}

}  // namespace tarnwell::session
