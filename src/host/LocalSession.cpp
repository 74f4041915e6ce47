#include "host/LocalSession.h"

#include <cerrno>

#include "host/Changes.h"
#include "host/ContainerWatch.h"
#include "host/ItemRecords.h"
#include "host/Listing.h"
#include "host/Paths.h"
#include "host/Status.h"
#include "hostframework/HostError.h"

namespace tarnwell::host {

using session::Item;
using session::ItemIdentifier;
using session::JobControl;
using session::Session;

namespace {

/// This process's working directory is not the client's.
Error notAbsolute() { return posixError(EINVAL, "it is no absolute path"); }

/// Does each step of a job; once it is cancelled, the rest is not begun.
template <typename T, typename Thing, typename Work>
Session::Each<T> eachOf(const std::vector<Thing>& things, JobControl& job, const Work& work) {
    Session::Each<T> outcomes;
    outcomes.reserve(things.size());
    for (const Thing& thing : things) {
        if (job.isCancelled()) {
            outcomes.push_back(failure(posixError(ECANCELED, "it was cancelled before it was begun")));
            continue;
        }
        const JobStep step{job, outcomes.size()};
        outcomes.push_back(work(thing, step));
    }
    return outcomes;
}

enum class Expired { isFinal, mayBeThisOne };

/// Asks an enumerator of the container. A folder that went elsewhere is not where its enumerator looks for it, and one
/// that was kept may know other app libraries than who gave an anchor: then a new one is asked.
template <typename T, typename Ask>
Result<T> askEnumerator(EnumeratorPool& pool, const ItemIdentifier& container, Expired expired, const Ask& ask) {
    auto lent = pool.take(container);
    for (;;) {
        if (!lent) return failure(lent.error());
        EnumeratorPool::Keep keep = EnumeratorPool::Keep::whileWatched;
        Result<T> outcome = ask(**lent->enumerator, keep);
        const bool wentElsewhere = !outcome && outcome.error().domain == ErrorDomain::deviceUUID;
        const bool hasExpired = expired == Expired::mayBeThisOne && !outcome &&
                                outcome.error().is(ErrorDomain::host, hostframework::kSyncAnchorExpired);
        if (lent->isNew || !(wentElsewhere || hasExpired)) {
            if (!wentElsewhere) pool.giveBack(container, std::move(lent->enumerator), keep);
            return outcome;
        }
        lent = pool.takeNew(container);
    }
}

}  // namespace

LocalSession::LocalSession(ProgramContext& context)
    : context_(context),
      operations_(context),
      documents_(context),
      icons_(context),
      search_(context),
      applications_(context),
      enumerators_(context.provider()) {}

Result<Item> LocalSession::record(const ProviderOutcome& outcome) const {
    if (!outcome) return failure(outcome.error());
    return recordOf(**outcome, context_.roots());
}

Session::Each<Item> LocalSession::items(const std::vector<ItemIdentifier>& identifiers) {
    Each<Item> outcomes;
    outcomes.reserve(identifiers.size());
    for (const auto& identifier : identifiers) {
        // The provider has errors of its own for what clients know as one.
        const auto item = context_.provider().itemForIdentifier(identifier);
        outcomes.push_back(item ? record(item) : failure(hostframework::noSuchItem(identifier)));
    }
    return outcomes;
}

Session::Each<ItemIdentifier> LocalSession::identifiersAtPaths(const std::vector<std::string>& paths,
                                                               session::PathUse use) {
    Each<ItemIdentifier> outcomes;
    outcomes.reserve(paths.size());
    for (const std::string& path : paths) outcomes.push_back(identifierAt(path, use));
    return outcomes;
}

Result<ItemIdentifier> LocalSession::identifierAt(const std::string& path, session::PathUse use) const {
    if (!path.empty() && !path.starts_with('/')) return failure(notAbsolute());
    const bool isTarget = use == session::PathUse::target;
    const auto url = urlForPath(context_.roots(), path, isTarget ? OutsideLink::refused : OutsideLink::followed);
    if (!url) return failure(url.error());
    auto identifier = identifierForURL(context_, *url);
    if (!identifier) return failure(hostframework::noSuchItem(path));
    if (!isTarget) return std::move(*identifier);
    const auto place = context_.provider().URLForItemWithPersistentIdentifier(*identifier);
    if (place && place->path() != url->path()) {
        return failure(posixError(EMLINK, "it is another name of \"" + context_.roots().realPath(place->path()) +
                                              "\", by which that document is known"));
    }
    return std::move(*identifier);
}

Result<session::Page> LocalSession::enumerate(const ItemIdentifier& container, const std::optional<Bytes>& page) {
    return askEnumerator<session::Page>(
        enumerators_, container, Expired::isFinal,
        [&](hostframework::ProviderEnumerator& enumerator, EnumeratorPool::Keep& keep) -> Result<session::Page> {
            auto listed = listPage(enumerator, page);
            if (!listed) return failure(listed.error());
            // Whoever has the last page needs it no more, and it would look at what changes until it goes.
            if (listed->next) keep = EnumeratorPool::Keep::always;
            return session::Page{recordsOf(listed->items, context_.roots()), std::move(listed->next)};
        });
}

Result<std::optional<Bytes>> LocalSession::currentAnchor(const ItemIdentifier& container) {
    return askEnumerator<std::optional<Bytes>>(enumerators_, container, Expired::isFinal,
                                               [](hostframework::ProviderEnumerator& enumerator,
                                                  EnumeratorPool::Keep&) { return currentSyncAnchor(enumerator); });
}

Result<session::ChangeBatch> LocalSession::changes(const ItemIdentifier& container, const Bytes& anchor) {
    return context_.sharedChanges().changes(
        container, anchor, [&] { return currentAnchor(container); }, [&] { return ownChanges(container, anchor); });
}

Result<session::ChangeBatch> LocalSession::ownChanges(const ItemIdentifier& container, const Bytes& anchor) {
    return askEnumerator<session::ChangeBatch>(
        enumerators_, container, Expired::mayBeThisOne,
        [&](hostframework::ProviderEnumerator& enumerator, EnumeratorPool::Keep& keep) -> Result<session::ChangeBatch> {
            auto batch = changesSince(enumerator, anchor);
            if (!batch) return failure(batch.error());
            keep = EnumeratorPool::Keep::always;
            std::vector<session::Change> told;
            told.reserve(batch->reports.size());
            for (auto& report : batch->reports) {
                if (report.updated) {
                    auto item = recordOf(*report.updated, context_.roots());
                    told.push_back({item.identifier, std::move(item)});
                } else {
                    told.push_back({std::move(*report.deleted), std::nullopt});
                }
            }
            return session::ChangeBatch{std::move(told), std::move(batch->anchor), batch->moreComing};
        });
}

Result<std::unique_ptr<session::Watch>> LocalSession::watch(const ItemIdentifier& container,
                                                            std::function<void()> changed) {
    // Where the kernel offers nothing, looking every two seconds has to do.
    (void)context_.watchForChanges();
    auto lent = enumerators_.take(container);
    if (!lent) return failure(lent.error());
    auto watch = std::make_unique<ContainerWatch>(enumerators_, context_.providerManager(), container, changed);
    enumerators_.giveBack(container, std::move(lent->enumerator), EnumeratorPool::Keep::whileWatched);
    // Until it is first asked for changes, a view may not look at the libraries that came since its list was written.
    changed();
    return watch;
}

Result<Descriptor> LocalSession::open(const ItemIdentifier& item, Access access) {
    return documents_.open(item, access);
}

Session::Each<Item> LocalSession::import(const std::vector<std::string>& paths, const ItemIdentifier& parent,
                                         JobControl& job) {
    return eachOf<Item>(paths, job, [&](const std::string& path, const JobStep& step) -> Result<Item> {
        if (!path.empty() && !path.starts_with('/')) return failure(notAbsolute());
        return record(operations_.import(path, parent, &step));
    });
}

Result<Item> LocalSession::makeFolder(const std::string& name, const ItemIdentifier& parent) {
    return record(operations_.makeFolder(name, parent));
}

Result<Item> LocalSession::rename(const ItemIdentifier& item, const std::string& name) {
    return record(operations_.rename(item, name));
}

Session::Each<Item> LocalSession::move(const std::vector<ItemIdentifier>& items, const ItemIdentifier& parent,
                                       const std::optional<std::string>& name, JobControl& job) {
    return eachOf<Item>(items, job, [&](const ItemIdentifier& item, const JobStep& step) -> Result<Item> {
        if (name && items.size() > 1) return failure(posixError(EINVAL, "one name is for one item"));
        return record(operations_.move(item, parent, name, &step));
    });
}

Session::Each<Item> LocalSession::trash(const std::vector<ItemIdentifier>& items, JobControl& job) {
    return eachOf<Item>(items, job, [&](const ItemIdentifier& item, const JobStep& step) {
        return record(operations_.trash(item, &step));
    });
}

Session::Each<Item> LocalSession::restore(const std::vector<ItemIdentifier>& items,
                                          const std::optional<ItemIdentifier>& parent, JobControl& job) {
    return eachOf<Item>(items, job, [&](const ItemIdentifier& item, const JobStep& step) {
        return record(operations_.restore(item, parent, &step));
    });
}

Session::Each<session::Removed> LocalSession::remove(const std::vector<ItemIdentifier>& items, JobControl& job) {
    return eachOf<session::Removed>(
        items, job, [&](const ItemIdentifier& item, const JobStep&) { return operations_.remove(item); });
}

Result<session::CleanedTrash> LocalSession::cleanTrash(Date olderThan) { return operations_.cleanTrash(olderThan); }

Result<Item> LocalSession::setTags(const ItemIdentifier& item, const std::vector<std::string>& labels) {
    return record(operations_.setTags(item, labels));
}

Result<Item> LocalSession::setRank(const ItemIdentifier& item, const std::optional<std::uint64_t>& rank) {
    return record(operations_.setRank(item, rank));
}

Result<Item> LocalSession::setLastUsed(const ItemIdentifier& item, const std::optional<Date>& date) {
    return record(operations_.setLastUsed(item, date));
}

Session::Each<Bytes> LocalSession::thumbnails(const std::vector<ItemIdentifier>& items, unsigned side) {
    Each<Bytes> pictures;
    pictures.reserve(items.size());
    for (const auto& item : items) pictures.push_back(icons_.icon(item, side));
    return pictures;
}

Result<std::vector<session::Application>> LocalSession::applications() { return applications_.list(); }

Result<session::Refreshed> LocalSession::refresh() { return applications_.refresh(); }

Result<Item> LocalSession::defaultContainer(const std::string& bundleIdentifier) {
    return applications_.libraryOf(bundleIdentifier);
}

Result<session::SearchResult> LocalSession::search(const session::SearchRequest& request,
                                                   const std::function<void(std::uint64_t)>& progress) {
    return search_.search(request, progress);
}

Result<session::Status> LocalSession::status() { return statusOf(context_); }

}  // namespace tarnwell::host
