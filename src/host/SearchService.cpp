#include "host/SearchService.h"

#include <cerrno>
#include <unordered_map>

#include "host/ItemRecords.h"
#include "host/SearchCatchUp.h"
#include "hostframework/HostError.h"
#include "platform/search/Words.h"

namespace tarnwell::host {
namespace {

using hostframework::ItemIdentifier;

/// The names that lead from the top to items; each folder is looked up once.
class Places {
public:
    explicit Places(hostframework::ProviderExtension& provider) : provider_(provider) {}

    std::string pathOf(const hostframework::ProviderItem& item) {
        return pathOfFolder(item.parentItemIdentifier(), 0) + item.filename();
    }

private:
    /// With a slash at its end; empty for the top, and for a folder that went meanwhile.
    std::string pathOfFolder(const ItemIdentifier& folder, int depth) {
        // No path of the system is deeper; a move between two look-ups could make a circle.
        constexpr int kDeepest = 2048;
        if (folder == hostframework::kRootContainer || depth == kDeepest) return {};
        if (const auto known = paths_.find(folder); known != paths_.end()) return known->second;
        const auto item = provider_.itemForIdentifier(folder);
        std::string path;
        if (item) path = pathOfFolder((*item)->parentItemIdentifier(), depth + 1) + (*item)->filename() + "/";
        return paths_.emplace(folder, std::move(path)).first->second;
    }

    hostframework::ProviderExtension& provider_;
    std::unordered_map<ItemIdentifier, std::string> paths_;
};

std::unexpected<Error> wrongQuery(std::string message) { return failure(posixError(EINVAL, std::move(message))); }

}  // namespace

Result<session::SearchResult> SearchService::search(const session::SearchRequest& request,
                                                    const std::function<void(std::uint64_t)>& progress) const {
    const auto search = read(request);
    if (!search) return failure(search.error());
    auto hits = find(*search, progress);
    // The index has begun a new file.
    if (!hits && isDamagedIndex(hits.error())) hits = find(*search, progress);
    if (!hits) return failure(hits.error());

    session::SearchResult result;
    Places places(context_.provider());
    std::size_t looked = 0;
    for (; looked < hits->size() && (request.limit == 0 || result.items.size() < request.limit); ++looked) {
        const auto item = context_.provider().itemForIdentifier((*hits)[looked].key);
        if (!item || ((*item)->isTrashed() && !request.withTrashed)) continue;
        result.items.push_back({recordOf(**item, context_.roots()), places.pathOf(**item)});
    }
    result.more = hits->size() - looked;
    return result;
}

Result<search::Search> SearchService::read(const session::SearchRequest& request) const {
    search::Search search;
    auto query = search::parseQuery(request.query);
    if (!query) return failure(query.error());
    search.query = std::move(*query);
    if (request.types.size() + request.tags.size() > search::kMostTerms) {
        return wrongQuery("there are more than " + std::to_string(search::kMostTerms) + " types and tags");
    }
    for (const std::string& type : request.types) {
        if (type.empty()) return wrongQuery("a type is empty");
        search.query.wanted.types.push_back(type);
    }
    for (const std::string& tag : request.tags) {
        if (tag.empty()) return wrongQuery("a tag is empty");
        search.query.wanted.tags.push_back(search::tagFilter(tag));
    }
    if (search.query.empty() && !request.below) {
        return wrongQuery("nothing is looked for; name a word, a tag or a type");
    }
    search.withTrashed = request.withTrashed;
    switch (request.order) {
        case session::SearchRequest::Order::relevance:
            break;
        case session::SearchRequest::Order::newestFirst:
            search.order = search::Order::newestFirst;
            break;
        case session::SearchRequest::Order::byName:
            search.order = search::Order::byName;
            search.names = context_.nameOrders().of(request.locale);
            break;
    }
    if (request.below) {
        if (auto added = addPlace(*request.below, search.below); !added) return failure(added.error());
    }
    for (const std::string& place : search.query.wanted.places) {
        if (auto added = addNamed(place, search.below); !added) return failure(added.error());
    }
    for (const std::string& place : search.query.excluded.places) {
        if (auto added = addNamed(place, search.notBelow); !added) return failure(added.error());
    }
    return search;
}

/// A library by its name, or whatever an identifier names.
Result<void> SearchService::addNamed(const std::string& place, std::vector<std::string>& folders) const {
    for (const auto& library : context_.appLibraries().sharedManager().appLibraryItems()) {
        if (search::lowered(library->filename()) != search::lowered(place)) continue;
        folders.push_back(library->itemIdentifier());
        return {};
    }
    if (place == "root") return addPlace(hostframework::kRootContainer, folders);
    if (place.starts_with('#') || place.starts_with("fid=")) return addPlace(place, folders);
    return wrongQuery("there is no library \"" + place + "\" to look in; \"tarnwell apps\" lists them");
}

Result<void> SearchService::addPlace(const ItemIdentifier& folder, std::vector<std::string>& folders) const {
    if (folder == hostframework::kWorkingSetContainer || folder == hostframework::kAllDirectoriesContainer) {
        folders.push_back(hostframework::kRootContainer);
        return {};
    }
    const auto item = context_.provider().itemForIdentifier(folder);
    if (!item) return failure(hostframework::noSuchItem(folder));
    if (!(*item)->isFolder()) {
        Error error = posixError(ENOTDIR, "it is no folder");
        error.userInfo.emplace(session::kErrorItemIdentifier, folder);
        return failure(std::move(error));
    }
    folders.push_back(folder);
    return {};
}

/// In what is there now.
Result<std::vector<search::Hit>> SearchService::find(const search::Search& search,
                                                     const std::function<void(std::uint64_t)>& progress) const {
    SearchCatchUp catchUp(context_.provider(), context_.searchIndex());
    if (progress) catchUp.reportTo([&](std::size_t count) { progress(count); });
    if (auto caughtUp = catchUp.run(); !caughtUp) return failure(caughtUp.error());
    return context_.searchIndex().find(search);
}

}  // namespace tarnwell::host
