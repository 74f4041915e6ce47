#include <tarnwell/client.h>

#include <unistd.h>

#include <cerrno>
#include <utility>

#include "bus/client/BusSession.h"
#include "bus/wire/Errors.h"
#include "session/Listing.h"

namespace tarnwell::client {
namespace {

Error::Kind kindOf(const tarnwell::Error& error) {
    if (error.domain == ErrorDomain::host) {
        switch (error.code) {
            case session::kSyncAnchorExpired:
                return Error::Kind::anchorExpired;
            case session::kNoSuchItem:
                return Error::Kind::noSuchItem;
            case session::kFilenameCollision:
                return Error::Kind::nameTaken;
            default:
                return Error::Kind::other;
        }
    }
    if (error.domain == ErrorDomain::provider) return Error::Kind::noSuchItem;
    if (error.is(ErrorDomain::generalFile, kFileExists)) return Error::Kind::nameTaken;
    if (error.is(ErrorDomain::generalFile, kWriteNotPermitted)) return Error::Kind::denied;
    if (error.is(ErrorDomain::generalFile, kNoSuchFileOnRead)) return Error::Kind::noSuchItem;
    if (error.domain != ErrorDomain::posix) return Error::Kind::other;
    switch (error.code) {
        case EACCES:
        case EPERM:
        case EROFS:
            return Error::Kind::denied;
        case EEXIST:
            return Error::Kind::nameTaken;
        case ENOENT:
            return Error::Kind::noSuchItem;
        case EBUSY:
            return Error::Kind::limits;
        case ECANCELED:
            return Error::Kind::cancelled;
        case ECONNRESET:
        case ECONNREFUSED:
            return Error::Kind::unavailable;
        default:
            return Error::Kind::other;
    }
}

Error errorOf(const tarnwell::Error& error) { return {kindOf(error), bus::errorName(error), bus::errorMessage(error)}; }

template <typename T>
T valueOf(Result<T> result) {
    if (!result) throw errorOf(result.error());
    return std::move(*result);
}

Item itemOf(session::Item given) {
    Item item;
    item.identifier = std::move(given.identifier);
    item.parent = std::move(given.parent);
    item.filename = std::move(given.filename);
    item.type = std::move(given.typeIdentifier);
    item.path = std::move(given.path);
    item.size = given.documentSize;
    item.childCount = given.childItemCount;
    item.created = given.creationDate;
    item.modified = given.contentModificationDate;
    item.lastUsed = given.lastUsedDate;
    if (given.tags) item.tags = std::move(*given.tags);
    item.favoriteRank = given.favoriteRank;
    item.capabilities = given.capabilities;
    item.fileID = given.fileID;
    item.documentID = given.docID;
    item.application = std::move(given.appContainerBundleIdentifier);
    item.isFolder = given.isFolder;
    item.isLibrary = given.isContainer;
    item.isTrashed = given.isTrashed;
    return item;
}

std::vector<Outcome> outcomesOf(session::Session::Each<session::Item> given) {
    std::vector<Outcome> outcomes;
    outcomes.reserve(given.size());
    for (auto& one : given) {
        Outcome outcome;
        if (one) {
            outcome.item = itemOf(std::move(*one));
        } else {
            outcome.error = errorOf(one.error());
        }
        outcomes.push_back(std::move(outcome));
    }
    return outcomes;
}

/// The only outcome of a request for one thing.
template <typename T>
T single(session::Session::Each<T> outcomes) {
    if (outcomes.size() != 1) throw errorOf(posixError(EPROTO));
    return valueOf(std::move(outcomes.front()));
}

/// A job whose listener may cancel it.
class Control {
public:
    explicit Control(const OnProgress& progress)
        : control_([this, &progress](const session::JobProgress& at) {
              if (!progress) return;
              const Progress told{at.index, at.bytesDone, at.itemsDone, at.bytesTotal, at.itemsTotal};
              if (!progress(told)) control_.cancel();
          }) {}
    session::JobControl& get() { return control_; }

private:
    session::JobControl control_;
};

}  // namespace

Error::Error(Kind kind, std::string name, const std::string& message)
    : std::runtime_error(message), kind_(kind), name_(std::move(name)) {}
Error::~Error() = default;

File& File::operator=(File&& other) noexcept {
    if (this != &other) {
        if (descriptor_ >= 0) ::close(descriptor_);
        descriptor_ = other.release();
    }
    return *this;
}
File::~File() {
    if (descriptor_ >= 0) ::close(descriptor_);
}

struct Watch::Impl {
    std::unique_ptr<session::Watch> watch;
};
Watch::Watch(std::unique_ptr<Impl> impl) noexcept : impl_(std::move(impl)) {}
Watch::Watch(Watch&&) noexcept = default;
Watch& Watch::operator=(Watch&&) noexcept = default;
Watch::~Watch() = default;

struct Client::Impl {
    std::unique_ptr<bus::BusSession> session;
};

Client::Client(const std::string& busAddress) : impl_(std::make_unique<Impl>()) {
    impl_->session = valueOf(bus::BusSession::connect(bus::BusSession::Start::ifNeeded, busAddress));
}
Client::~Client() = default;

Item Client::item(const std::string& identifier) { return itemOf(single(impl_->session->items({identifier}))); }

std::vector<Outcome> Client::items(const std::vector<std::string>& identifiers) {
    return outcomesOf(impl_->session->items(identifiers));
}

Item Client::itemAtPath(const std::string& absolutePath) {
    return item(single(impl_->session->identifiersAtPaths({absolutePath}, session::PathUse::lookUp)));
}

Page Client::list(const std::string& container, const Bytes& page) {
    auto given = valueOf(impl_->session->enumerate(container, page.empty() ? std::nullopt : std::optional(page)));
    Page result;
    for (auto& one : given.items) result.items.push_back(itemOf(std::move(one)));
    if (given.next) result.next = std::move(*given.next);
    return result;
}

std::vector<Item> Client::listAll(const std::string& container) {
    std::vector<Item> all;
    for (auto& listed : valueOf(session::listContainer(*impl_->session, container))) {
        all.push_back(itemOf(std::move(listed.item)));
    }
    return all;
}

Bytes Client::anchor(const std::string& container) {
    auto anchor = valueOf(impl_->session->currentAnchor(container));
    if (!anchor) throw errorOf(posixError(ENOTSUP, "its changes cannot be told on this device"));
    return std::move(*anchor);
}

Changes Client::changes(const std::string& container, const Bytes& anchor) {
    auto batch = valueOf(impl_->session->changes(container, anchor));
    Changes result;
    result.anchor = std::move(batch.anchor);
    result.moreComing = batch.moreComing;
    for (auto& one : std::move(batch.changes).take()) {
        Change change;
        change.identifier = std::move(one.identifier);
        if (one.item) change.item = itemOf(std::move(*one.item));
        result.changes.push_back(std::move(change));
    }
    return result;
}

Watch Client::watch(const std::string& container, std::function<void()> changed) {
    auto watch = std::make_unique<Watch::Impl>();
    watch->watch = valueOf(impl_->session->watch(container, std::move(changed)));
    return Watch(std::move(watch));
}

File Client::open(const std::string& identifier, bool forWriting) {
    const auto access = forWriting ? session::Session::Access::readWrite : session::Session::Access::read;
    return File(valueOf(impl_->session->open(identifier, access)).release());
}

std::vector<Outcome> Client::import(const std::vector<std::string>& absolutePaths, const std::string& parent,
                                    const OnProgress& progress) {
    Control control(progress);
    return outcomesOf(impl_->session->import(absolutePaths, parent, control.get()));
}

Item Client::createFolder(const std::string& name, const std::string& parent) {
    return itemOf(valueOf(impl_->session->makeFolder(name, parent)));
}

Item Client::rename(const std::string& identifier, const std::string& name) {
    return itemOf(valueOf(impl_->session->rename(identifier, name)));
}

std::vector<Outcome> Client::move(const std::vector<std::string>& identifiers, const std::string& parent,
                                  const OnProgress& progress) {
    Control control(progress);
    return outcomesOf(impl_->session->move(identifiers, parent, std::nullopt, control.get()));
}

std::vector<Outcome> Client::trash(const std::vector<std::string>& identifiers) {
    session::JobControl control;
    return outcomesOf(impl_->session->trash(identifiers, control));
}

std::vector<Outcome> Client::restore(const std::vector<std::string>& identifiers,
                                     const std::optional<std::string>& parent) {
    session::JobControl control;
    return outcomesOf(impl_->session->restore(identifiers, parent, control));
}

std::vector<Outcome> Client::remove(const std::vector<std::string>& identifiers) {
    session::JobControl control;
    std::vector<Outcome> outcomes;
    for (const auto& one : impl_->session->remove(identifiers, control)) {
        Outcome outcome;
        if (!one) outcome.error = errorOf(one.error());
        outcomes.push_back(std::move(outcome));
    }
    return outcomes;
}

Item Client::setTags(const std::string& identifier, const std::vector<std::string>& labels) {
    return itemOf(valueOf(impl_->session->setTags(identifier, labels)));
}

Item Client::setFavoriteRank(const std::string& identifier, std::optional<std::uint64_t> rank) {
    return itemOf(valueOf(impl_->session->setRank(identifier, rank)));
}

Item Client::setLastUsed(const std::string& identifier, std::optional<Time> date) {
    return itemOf(valueOf(impl_->session->setLastUsed(identifier, date)));
}

std::vector<Library> Client::libraries() {
    std::vector<Library> libraries;
    for (auto& one : valueOf(impl_->session->applications())) {
        libraries.push_back({itemOf(std::move(one.item)), one.origin.value_or("")});
    }
    return libraries;
}

Bytes Client::icon(const std::string& library, unsigned side) {
    return single(impl_->session->thumbnails({library}, side));
}

std::vector<Item> Client::search(const std::string& query, std::uint64_t limit) {
    std::vector<Item> items;
    for (auto& found : valueOf(impl_->session->search({.query = query, .limit = limit}, {})).items) {
        items.push_back(itemOf(std::move(found.item)));
    }
    return items;
}

}  // namespace tarnwell::client
