#include "host/ConfinedSession.h"

#include <algorithm>
#include <cerrno>

#include "hostframework/HostError.h"
#include "platform/search/Query.h"

namespace tarnwell::host {

using session::Item;
using session::ItemIdentifier;
using session::JobControl;

namespace {

Error refused(const char* message) { return posixError(EACCES, message); }

/// True where the item is the library, or in it.
bool holds(const std::optional<ItemIdentifier>& library, const Item& item) {
    if (!library) return false;
    if (item.isContainer) return item.identifier == *library;
    return item.appContainerBundleIdentifier == library->substr(1);
}

Error nothingThere() { return posixError(ENOENT, "there is nothing at that path"); }

}  // namespace

ConfinedSession::ConfinedSession(std::shared_ptr<session::Session> session, Library library)
    : session_(std::move(session)), library_(std::move(library)) {}

Result<void> ConfinedSession::check(const ItemIdentifier& identifier) {
    const auto found = session_->items({identifier});
    if (found.size() == 1 && found.front() && holds(library_(), *found.front())) return {};
    return failure(hostframework::noSuchItem(identifier));
}

template <typename T, typename Work>
session::Session::Each<T> ConfinedSession::forOwn(const std::vector<ItemIdentifier>& identifiers, Work work) {
    const auto found = session_->items(identifiers);
    std::vector<ItemIdentifier> own;
    std::vector<bool> isAsked;
    const auto library = library_();
    for (std::size_t i = 0; i < identifiers.size(); ++i) {
        isAsked.push_back(i < found.size() && found[i] && holds(library, *found[i]));
        if (isAsked.back()) own.push_back(identifiers[i]);
    }
    auto done = own.empty() ? Each<T>{} : work(own);
    auto next = done.begin();
    Each<T> outcomes;
    for (std::size_t i = 0; i < identifiers.size(); ++i) {
        if (isAsked[i] && next != done.end()) {
            outcomes.push_back(std::move(*next++));
        } else {
            outcomes.push_back(failure(hostframework::noSuchItem(identifiers[i])));
        }
    }
    return outcomes;
}

session::Session::Each<Item> ConfinedSession::items(const std::vector<ItemIdentifier>& identifiers) {
    auto outcomes = session_->items(identifiers);
    const auto library = library_();
    for (std::size_t i = 0; i < outcomes.size(); ++i) {
        // Why another's cannot be looked up is not told either.
        if (!outcomes[i] || !holds(library, *outcomes[i]))
            outcomes[i] = failure(hostframework::noSuchItem(identifiers[i]));
    }
    return outcomes;
}

session::Session::Each<ItemIdentifier> ConfinedSession::identifiersAtPaths(const std::vector<std::string>& paths,
                                                                           session::PathUse use) {
    auto outcomes = session_->identifiersAtPaths(paths, use);
    std::vector<ItemIdentifier> found;
    for (const auto& outcome : outcomes) {
        if (outcome) found.push_back(*outcome);
    }
    const auto seen = items(found);
    auto next = seen.begin();
    for (auto& outcome : outcomes) {
        const bool isOwn = outcome && next != seen.end() && (next++)->has_value();
        if (!isOwn) outcome = failure(nothingThere());
    }
    return outcomes;
}

Result<session::Page> ConfinedSession::enumerate(const ItemIdentifier& container, const std::optional<Bytes>& page) {
    if (auto own = check(container); !own) return failure(own.error());
    auto listed = session_->enumerate(container, page);
    const auto library = library_();
    if (listed) std::erase_if(listed->items, [&](const Item& item) { return !holds(library, item); });
    return listed;
}

Result<std::optional<Bytes>> ConfinedSession::currentAnchor(const ItemIdentifier& container) {
    if (auto own = check(container); !own) return failure(own.error());
    return session_->currentAnchor(container);
}

Result<session::ChangeBatch> ConfinedSession::changes(const ItemIdentifier& container, const Bytes& anchor) {
    if (auto own = check(container); !own) return failure(own.error());
    auto batch = session_->changes(container, anchor);
    if (!batch) return batch;
    const auto library = library_();
    auto isElsewhere = [&](const session::Change& change) { return change.item && !holds(library, *change.item); };
    if (std::ranges::any_of(batch->changes, isElsewhere)) {
        // It went since it was told of.
        auto changes = std::move(batch->changes).take();
        for (auto& change : changes) {
            if (isElsewhere(change)) change.item.reset();
        }
        batch->changes = std::move(changes);
    }
    return batch;
}

Result<std::unique_ptr<session::Watch>> ConfinedSession::watch(const ItemIdentifier& container,
                                                               std::function<void()> changed) {
    if (auto own = check(container); !own) return failure(own.error());
    return session_->watch(container, std::move(changed));
}

Result<Descriptor> ConfinedSession::open(const ItemIdentifier& item, Access access) {
    if (auto own = check(item); !own) return failure(own.error());
    auto opened = session_->open(item, access);
    // It may have been taken elsewhere right before.
    if (auto own = check(item); !own) return failure(own.error());
    return opened;
}

session::Session::Each<Item> ConfinedSession::import(const std::vector<std::string>& paths, const ItemIdentifier&,
                                                     JobControl&) {
    // The host could read what the application may not.
    return Each<Item>(paths.size(), failure(refused("an application in a sandbox copies into its folder itself")));
}

Result<Item> ConfinedSession::makeFolder(const std::string& name, const ItemIdentifier& parent) {
    if (auto own = check(parent); !own) return failure(own.error());
    return session_->makeFolder(name, parent);
}

Result<Item> ConfinedSession::rename(const ItemIdentifier& item, const std::string& name) {
    if (auto own = check(item); !own) return failure(own.error());
    return session_->rename(item, name);
}

session::Session::Each<Item> ConfinedSession::move(const std::vector<ItemIdentifier>& items,
                                                   const ItemIdentifier& parent, const std::optional<std::string>& name,
                                                   JobControl& job) {
    if (auto own = check(parent); !own) return Each<Item>(items.size(), failure(own.error()));
    return forOwn<Item>(items, [&](const auto& own) { return session_->move(own, parent, name, job); });
}

session::Session::Each<Item> ConfinedSession::trash(const std::vector<ItemIdentifier>& items, JobControl& job) {
    return forOwn<Item>(items, [&](const auto& own) { return session_->trash(own, job); });
}

session::Session::Each<Item> ConfinedSession::restore(const std::vector<ItemIdentifier>& items,
                                                      const std::optional<ItemIdentifier>& parent, JobControl& job) {
    if (items.empty()) return {};
    const auto library = library_();
    if (!parent && !library) return Each<Item>(items.size(), failure(hostframework::noSuchItem(items.front())));
    const ItemIdentifier target = parent ? *parent : *library;
    if (auto own = check(target); !own) return Each<Item>(items.size(), failure(own.error()));
    return forOwn<Item>(items, [&](const auto& own) { return session_->restore(own, target, job); });
}

session::Session::Each<session::Removed> ConfinedSession::remove(const std::vector<ItemIdentifier>& items,
                                                                 JobControl& job) {
    return forOwn<session::Removed>(items, [&](const auto& own) { return session_->remove(own, job); });
}

Result<session::CleanedTrash> ConfinedSession::cleanTrash(Date) {
    return failure(refused("an application in a sandbox cleans no trash but by deleting its items"));
}

Result<Item> ConfinedSession::setTags(const ItemIdentifier& item, const std::vector<std::string>& labels) {
    if (auto own = check(item); !own) return failure(own.error());
    return session_->setTags(item, labels);
}

Result<Item> ConfinedSession::setRank(const ItemIdentifier& item, const std::optional<std::uint64_t>& rank) {
    if (auto own = check(item); !own) return failure(own.error());
    return session_->setRank(item, rank);
}

Result<Item> ConfinedSession::setLastUsed(const ItemIdentifier& item, const std::optional<Date>& date) {
    if (auto own = check(item); !own) return failure(own.error());
    return session_->setLastUsed(item, date);
}

session::Session::Each<Bytes> ConfinedSession::thumbnails(const std::vector<ItemIdentifier>& items, unsigned side) {
    return forOwn<Bytes>(items, [&](const auto& own) { return session_->thumbnails(own, side); });
}

Result<std::vector<session::Application>> ConfinedSession::applications() {
    auto all = session_->applications();
    const auto library = library_();
    if (all) std::erase_if(*all, [&](const session::Application& one) { return !holds(library, one.item); });
    return all;
}

Result<session::Refreshed> ConfinedSession::refresh() {
    return failure(refused("an application in a sandbox may not ask for a look at all applications"));
}

Result<Item> ConfinedSession::defaultContainer(const std::string& bundleIdentifier) {
    if (library_() == "#" + bundleIdentifier) return session_->defaultContainer(bundleIdentifier);
    Error error = hostframework::invalidParameter("bundleIdentifier", bundleIdentifier);
    error.userInfo[kErrorMessage] = "no such application is installed";
    return failure(std::move(error));
}

Result<session::SearchResult> ConfinedSession::search(const session::SearchRequest& request,
                                                      const std::function<void(std::uint64_t)>& progress) {
    const auto query = search::parseQuery(request.query);
    if (!query) return failure(query.error());
    // Whether there is such a place is an answer, too.
    if (!query->wanted.places.empty() || !query->excluded.places.empty()) {
        return failure(posixError(EINVAL, "an application in a sandbox looks in its own library; leave out in:"));
    }
    session::SearchRequest own = request;
    own.below = request.below ? request.below : library_();
    if (!own.below) return session::SearchResult{};
    if (auto checked = check(*own.below); !checked) return failure(checked.error());
    auto result = session_->search(own, progress);
    const auto library = library_();
    if (result) {
        std::erase_if(result->items, [&](const session::Found& found) { return !holds(library, found.item); });
    }
    return result;
}

Result<session::Status> ConfinedSession::status() {
    return failure(refused("an application in a sandbox may not see how the host is"));
}

}  // namespace tarnwell::host
