#include "testing/ScriptedSession.h"

#include <cerrno>

namespace tarnwell::testing {

using session::Item;
using session::ItemIdentifier;
using session::JobControl;

namespace {

std::string joined(const std::vector<std::string>& parts) {
    std::string text;
    for (const auto& part : parts) text += (text.empty() ? "" : ",") + part;
    return "[" + text + "]";
}

std::string textOfToken(const std::optional<Bytes>& token) { return token ? std::string(textOf(*token)) : "none"; }

std::string textOfDate(Date date) { return std::to_string(date.time_since_epoch().count()); }

}  // namespace

class ScriptedSession::Watched : public session::Watch {
public:
    Watched(ScriptedSession& session, std::uint64_t id) : session_(session), id_(id) {}
    ~Watched() override {
        const std::lock_guard lock(session_.mutex_);
        session_.watches_.erase(id_);
    }

private:
    ScriptedSession& session_;
    std::uint64_t id_;
};

std::vector<std::string> ScriptedSession::requests() const {
    const std::lock_guard lock(mutex_);
    return requests_;
}

void ScriptedSession::note(const std::string& name, std::vector<std::string> arguments) {
    {
        const std::lock_guard lock(mutex_);
        std::string line = name;
        for (const auto& argument : arguments) line += " " + argument;
        requests_.push_back(line);
    }
    if (onRequest) onRequest(name);
}

void ScriptedSession::change(const std::string& container) {
    const std::lock_guard lock(mutex_);
    for (const auto& [id, watched] : watches_) {
        if (watched.first == container) watched.second();
    }
}

std::size_t ScriptedSession::watches() const {
    const std::lock_guard lock(mutex_);
    return watches_.size();
}

session::Session::Each<Item> ScriptedSession::job(const std::string& name, std::vector<std::string> arguments,
                                                  JobControl& control) {
    for (const auto& told : progress) control.report(told);
    note(name, std::move(arguments));
    if (control.isCancelled()) return Each<Item>(itemOutcomes.size(), failure(posixError(ECANCELED)));
    return itemOutcomes;
}

session::Session::Each<Item> ScriptedSession::items(const std::vector<ItemIdentifier>& identifiers) {
    note("items", {joined(identifiers)});
    return itemOutcomes;
}
session::Session::Each<ItemIdentifier> ScriptedSession::identifiersAtPaths(const std::vector<std::string>& paths,
                                                                           session::PathUse use) {
    note("identifiersAtPaths", {joined(paths), use == session::PathUse::target ? "target" : "lookUp"});
    return identifierOutcomes;
}
Result<session::Page> ScriptedSession::enumerate(const ItemIdentifier& container, const std::optional<Bytes>& token) {
    note("enumerate", {container, textOfToken(token)});
    return page;
}
Result<std::optional<Bytes>> ScriptedSession::currentAnchor(const ItemIdentifier& container) {
    note("currentAnchor", {container});
    return anchor;
}
Result<session::ChangeBatch> ScriptedSession::changes(const ItemIdentifier& container, const Bytes& since) {
    note("changes", {container, std::string(textOf(since))});
    return batch;
}
Result<std::unique_ptr<session::Watch>> ScriptedSession::watch(const ItemIdentifier& container,
                                                               std::function<void()> changed) {
    note("watch", {container});
    if (!watching) return failure(watching.error());
    const std::lock_guard lock(mutex_);
    watches_[++lastWatch_] = {container, std::move(changed)};
    return std::make_unique<Watched>(*this, lastWatch_);
}
Result<Descriptor> ScriptedSession::open(const ItemIdentifier& identifier, Access access) {
    note("open", {identifier, access == Access::read ? "read" : "readWrite"});
    return opens ? opens() : failure(posixError(ENOSYS));
}
session::Session::Each<Item> ScriptedSession::import(const std::vector<std::string>& paths,
                                                     const ItemIdentifier& parent, JobControl& control) {
    return job("import", {joined(paths), parent}, control);
}
Result<Item> ScriptedSession::makeFolder(const std::string& name, const ItemIdentifier& parent) {
    note("makeFolder", {name, parent});
    return item;
}
Result<Item> ScriptedSession::rename(const ItemIdentifier& identifier, const std::string& name) {
    note("rename", {identifier, name});
    return item;
}
session::Session::Each<Item> ScriptedSession::move(const std::vector<ItemIdentifier>& identifiers,
                                                   const ItemIdentifier& parent, const std::optional<std::string>& name,
                                                   JobControl& control) {
    return job("move", {joined(identifiers), parent, name.value_or("none")}, control);
}
session::Session::Each<Item> ScriptedSession::trash(const std::vector<ItemIdentifier>& identifiers,
                                                    JobControl& control) {
    return job("trash", {joined(identifiers)}, control);
}
session::Session::Each<Item> ScriptedSession::restore(const std::vector<ItemIdentifier>& identifiers,
                                                      const std::optional<ItemIdentifier>& parent,
                                                      JobControl& control) {
    return job("restore", {joined(identifiers), parent.value_or("none")}, control);
}
session::Session::Each<session::Removed> ScriptedSession::remove(const std::vector<ItemIdentifier>& identifiers,
                                                                 JobControl&) {
    note("remove", {joined(identifiers)});
    return removedOutcomes;
}
Result<session::CleanedTrash> ScriptedSession::cleanTrash(Date olderThan) {
    note("cleanTrash", {textOfDate(olderThan)});
    return cleaned;
}
Result<Item> ScriptedSession::setTags(const ItemIdentifier& identifier, const std::vector<std::string>& labels) {
    note("setTags", {identifier, joined(labels)});
    return item;
}
Result<Item> ScriptedSession::setRank(const ItemIdentifier& identifier, const std::optional<std::uint64_t>& rank) {
    note("setRank", {identifier, rank ? std::to_string(*rank) : "none"});
    return item;
}
Result<Item> ScriptedSession::setLastUsed(const ItemIdentifier& identifier, const std::optional<Date>& date) {
    note("setLastUsed", {identifier, date ? textOfDate(*date) : "none"});
    return item;
}
session::Session::Each<Bytes> ScriptedSession::thumbnails(const std::vector<ItemIdentifier>& identifiers,
                                                          unsigned side) {
    note("thumbnails", {joined(identifiers), std::to_string(side)});
    return pictureOutcomes;
}
Result<std::vector<session::Application>> ScriptedSession::applications() {
    note("applications", {});
    return applicationList;
}
Result<session::Refreshed> ScriptedSession::refresh() {
    note("refresh", {});
    return refreshed;
}
Result<Item> ScriptedSession::defaultContainer(const std::string& bundleIdentifier) {
    note("defaultContainer", {bundleIdentifier});
    return item;
}
Result<session::SearchResult> ScriptedSession::search(const session::SearchRequest& request,
                                                      const std::function<void(std::uint64_t)>&) {
    note("search", {request.query, joined(request.types), joined(request.tags), request.below.value_or("none"),
                    request.order == session::SearchRequest::Order::newestFirst ? "newest"
                    : request.order == session::SearchRequest::Order::byName    ? "by name of " + request.locale
                                                                                : "relevance",
                    request.withTrashed ? "trashed" : "untrashed", std::to_string(request.limit)});
    return found;
}
Result<session::Status> ScriptedSession::status() {
    note("status", {});
    return state;
}

Item fullItem() {
    const auto date = [](std::int64_t nanoseconds) { return Date(std::chrono::nanoseconds(nanoseconds)); };
    Item item;
    item.identifier = "did=17";
    item.parent = "#org.example.Notes";
    item.filename = "caf\xe9 \xff.txt";
    item.typeIdentifier = "text/plain";
    item.documentSize = 0xFFFF'FFFF'FFFF'FFFE;
    item.creationDate = date(-1'000'000'001);
    item.contentModificationDate = date(1'700'000'000'123'456'789);
    item.childItemCount = 65'535;
    item.capabilities = 0x3F;
    item.isTrashed = true;
    item.lastUsedDate = date(0);
    item.tags = std::vector<std::string>{"urgent", "", "B\xfcro"};
    item.favoriteRank = 3;
    item.fileID = 1ULL << 63;
    item.docID = -5;
    item.path = "/home/p/\x01\xfe/caf\xe9";
    item.searchDomainIdentifier = "org.example.Notes";
    item.appContainerBundleIdentifier = "org.example.Other";
    item.isFolder = true;
    item.isContainer = true;
    item.isUbiquitous = true;
    return item;
}

}  // namespace tarnwell::testing
