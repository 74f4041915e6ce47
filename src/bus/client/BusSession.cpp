#include "bus/client/BusSession.h"

#include <algorithm>
#include <cerrno>
#include <iterator>

#include "bus/client/Calls.h"
#include "bus/wire/Names.h"
#include "bus/wire/Packed.h"
#include "bus/wire/Parcel.h"
#include "bus/wire/Pictures.h"
#include "bus/wire/Records.h"

namespace tarnwell::bus {
namespace {

using session::Item;
using session::ItemIdentifier;
using session::JobControl;
using session::Session;

template <typename T>
Session::Each<T> failed(std::size_t count, const Error& error) {
    return Session::Each<T>(count, failure(error));
}

/// The answer to a request of several things: one outcome for each, whatever the service says.
template <typename T>
Session::Each<T> each(std::size_t count, Result<Session::Each<T>> answer) {
    if (!answer) return failed<T>(count, answer.error());
    if (answer->size() != count) return failed<T>(count, posixError(EPROTO, "the service answered something else"));
    return std::move(*answer);
}

/// Asks for as many at a time as one request may name.
template <typename T, typename Ask>
Session::Each<T> inParts(const std::vector<std::string>& all, Ask ask) {
    Session::Each<T> outcomes;
    outcomes.reserve(all.size());
    for (std::size_t at = 0; at < all.size(); at += kMostPerRequest) {
        const auto end = std::min(all.size(), at + kMostPerRequest);
        const std::vector<std::string> part(all.begin() + std::ptrdiff_t(at), all.begin() + std::ptrdiff_t(end));
        auto answer = each<T>(part.size(), ask(part, at));
        std::ranges::move(answer, std::back_inserter(outcomes));
    }
    return outcomes;
}

/// Ends the watch with itself.
class Watcher : public session::Watch {
public:
    Watcher(std::shared_ptr<Calls> calls, std::uint64_t watch) : calls_(std::move(calls)), watch_(watch) {}
    ~Watcher() override { calls_->removeWatch(watch_); }

private:
    std::shared_ptr<Calls> calls_;
    std::uint64_t watch_;
};

/// Has the service do a job, and waits for its end.
template <typename T>
Session::Each<T> runJob(Calls& calls, const char* member, const Calls::Write& write, std::size_t first,
                        std::size_t count, JobControl& control, Session::Each<T> (*readOutcomes)(Reader&)) {
    if (control.isCancelled()) return failed<T>(count, posixError(ECANCELED));
    const auto job =
        calls.call<std::string>(Calls::host(member), write, [](Reader& reader) { return reader.objectPath(); });
    if (!job) return failed<T>(count, job.error());
    calls.setProgress(*job, [&, first](Reader& reader) {
        session::JobProgress progress = readJobProgress(reader);
        progress.index += first;
        if (reader.error() == 0) control.report(progress);
    });
    control.setCanceller([&] { calls.tell({"Cancel", kJobInterface, *job}, [](Writer&) {}); });
    auto outcomes = calls.call<Session::Each<T>>({"Result", kJobInterface, *job}, [](Writer&) {}, readOutcomes);
    control.setCanceller({});
    calls.clearProgress(*job);
    return each<T>(count, std::move(outcomes));
}

/// Items or changes that are read by who asked, while the connection's thread serves others.
struct PackedAnswer {
    Bytes packed, next;
    bool moreComing = false;

    static PackedAnswer read(Reader& reader) {
        PackedAnswer answer;
        answer.packed = Parcel::read(reader);
        answer.next = reader.bytes(kLongestText);
        return answer;
    }
};

Calls::Write noArguments() {
    return [](Writer&) {};
}

Result<Item> itemFrom(Calls& calls, const char* member, Calls::Write write) {
    return calls.call<Item>(Calls::host(member), std::move(write), readItem);
}

}  // namespace

Result<std::unique_ptr<BusSession>> BusSession::connect(Start start, const std::string& busAddress, Form form) {
    auto calls = Calls::connect(start == Start::ifNeeded, busAddress);
    if (!calls) return failure(calls.error());
    auto service = (*calls)->call<ServiceInfo>(Calls::host("Info"), noArguments(), [](Reader& reader) {
        ServiceInfo info;
        info.interfaceVersion = reader.uint32();
        info.programVersion = reader.string();
        info.storageRoot = reader.text();
        info.stateDirectory = reader.text();
        return info;
    });
    if (!service) return failure(service.error());
    if (service->interfaceVersion < kPackedSince) form = Form::plain;
    return std::unique_ptr<BusSession>(new BusSession(std::move(*calls), std::move(*service), form));
}

BusSession::BusSession(std::shared_ptr<Calls> calls, ServiceInfo service, Form form)
    : calls_(std::move(calls)), service_(std::move(service)), form_(form) {}
BusSession::~BusSession() = default;

void BusSession::giveUp() { calls_->giveUp(); }

Session::Each<Item> BusSession::items(const std::vector<ItemIdentifier>& identifiers) {
    return inParts<Item>(identifiers, [&](const std::vector<std::string>& part, std::size_t) {
        return calls_->call<Each<Item>>(
            Calls::host("Items"), [&](Writer& writer) { writeIdentifiers(writer, part); }, readItemOutcomes);
    });
}

Session::Each<ItemIdentifier> BusSession::identifiersAtPaths(const std::vector<std::string>& paths,
                                                             session::PathUse use) {
    return inParts<ItemIdentifier>(paths, [&](const std::vector<std::string>& part, std::size_t) {
        return calls_->call<Each<ItemIdentifier>>(
            Calls::host("IdentifiersAtPaths"),
            [&](Writer& writer) {
                writeTexts(writer, part);
                writer.boolean(use == session::PathUse::target);
            },
            readIdentifierOutcomes);
    });
}

Result<session::Page> BusSession::enumerate(const ItemIdentifier& container, const std::optional<Bytes>& page) {
    if (form_ == Form::packed) {
        auto answer = calls_->call<PackedAnswer>(
            Calls::host("EnumeratePacked"),
            [&](Writer& writer) { writer.string(container).bytes(page.value_or(Bytes{})); },
            [](Reader& reader) { return PackedAnswer::read(reader); });
        if (!answer) return failure(answer.error());
        auto items = unpackItems(answer->packed);
        if (!items) return failure(items.error());
        session::Page found{std::move(*items), std::nullopt};
        if (!answer->next.empty()) found.next = std::move(answer->next);
        return found;
    }
    return calls_->call<session::Page>(
        Calls::host("Enumerate"), [&](Writer& writer) { writer.string(container).bytes(page.value_or(Bytes{})); },
        readPage);
}

Result<std::optional<Bytes>> BusSession::currentAnchor(const ItemIdentifier& container) {
    return calls_->call<std::optional<Bytes>>(
        Calls::host("CurrentAnchor"), [&](Writer& writer) { writer.string(container); },
        [](Reader& reader) {
            Bytes anchor = reader.bytes(kLongestText);
            return anchor.empty() ? std::nullopt : std::optional(std::move(anchor));
        });
}

Result<session::ChangeBatch> BusSession::changes(const ItemIdentifier& container, const Bytes& anchor) {
    if (form_ == Form::packed) {
        auto answer = calls_->call<PackedAnswer>(
            Calls::host("ChangesPacked"), [&](Writer& writer) { writer.string(container).bytes(anchor); },
            [](Reader& reader) {
                PackedAnswer read = PackedAnswer::read(reader);
                read.moreComing = reader.boolean();
                return read;
            });
        if (!answer) return failure(answer.error());
        auto changes = unpackChanges(answer->packed);
        if (!changes) return failure(changes.error());
        return session::ChangeBatch{std::move(*changes), std::move(answer->next), answer->moreComing};
    }
    return calls_->call<session::ChangeBatch>(
        Calls::host("Changes"), [&](Writer& writer) { writer.string(container).bytes(anchor); }, readChangeBatch);
}

Result<std::unique_ptr<session::Watch>> BusSession::watch(const ItemIdentifier& container,
                                                          std::function<void()> changed) {
    const auto watch = calls_->addWatch(container, std::move(changed));
    if (!watch) return failure(watch.error());
    return std::make_unique<Watcher>(calls_, *watch);
}

Result<Descriptor> BusSession::open(const ItemIdentifier& item, Access access) {
    auto opened = calls_->call<std::shared_ptr<Descriptor>>(
        Calls::host("Open"), [&](Writer& writer) { writer.string(item).boolean(access == Access::readWrite); },
        [](Reader& reader) { return std::make_shared<Descriptor>(reader.descriptor()); });
    if (!opened) return failure(opened.error());
    return std::move(**opened);
}

Session::Each<Item> BusSession::import(const std::vector<std::string>& paths, const ItemIdentifier& parent,
                                       JobControl& job) {
    return inParts<Item>(paths, [&](const std::vector<std::string>& part, std::size_t first) -> Result<Each<Item>> {
        const auto write = [&](Writer& writer) {
            writeTexts(writer, part);
            writer.string(parent);
        };
        return runJob<Item>(*calls_, "Import", write, first, part.size(), job, readItemOutcomes);
    });
}

Result<Item> BusSession::makeFolder(const std::string& name, const ItemIdentifier& parent) {
    return itemFrom(*calls_, "MakeFolder", [&](Writer& writer) { writer.bytes(name).string(parent); });
}

Result<Item> BusSession::rename(const ItemIdentifier& item, const std::string& name) {
    return itemFrom(*calls_, "Rename", [&](Writer& writer) { writer.string(item).bytes(name); });
}

Session::Each<Item> BusSession::move(const std::vector<ItemIdentifier>& items, const ItemIdentifier& parent,
                                     const std::optional<std::string>& name, JobControl& job) {
    return inParts<Item>(items, [&](const std::vector<std::string>& part, std::size_t first) -> Result<Each<Item>> {
        const auto write = [&](Writer& writer) {
            writeIdentifiers(writer, part);
            writer.string(parent);
            writeTexts(writer, name ? std::vector{*name} : std::vector<std::string>{});
        };
        return runJob<Item>(*calls_, "Move", write, first, part.size(), job, readItemOutcomes);
    });
}

Session::Each<Item> BusSession::trash(const std::vector<ItemIdentifier>& items, JobControl& job) {
    return inParts<Item>(items, [&](const std::vector<std::string>& part, std::size_t first) -> Result<Each<Item>> {
        const auto write = [&](Writer& writer) { writeIdentifiers(writer, part); };
        return runJob<Item>(*calls_, "Trash", write, first, part.size(), job, readItemOutcomes);
    });
}

Session::Each<Item> BusSession::restore(const std::vector<ItemIdentifier>& items,
                                        const std::optional<ItemIdentifier>& parent, JobControl& job) {
    return inParts<Item>(items, [&](const std::vector<std::string>& part, std::size_t first) -> Result<Each<Item>> {
        const auto write = [&](Writer& writer) {
            writeIdentifiers(writer, part);
            writeIdentifiers(writer, parent ? std::vector{*parent} : std::vector<std::string>{});
        };
        return runJob<Item>(*calls_, "Restore", write, first, part.size(), job, readItemOutcomes);
    });
}

Session::Each<session::Removed> BusSession::remove(const std::vector<ItemIdentifier>& items, JobControl& job) {
    return inParts<session::Removed>(
        items, [&](const std::vector<std::string>& part, std::size_t first) -> Result<Each<session::Removed>> {
            const auto write = [&](Writer& writer) { writeIdentifiers(writer, part); };
            return runJob<session::Removed>(*calls_, "Delete", write, first, part.size(), job, readRemovedOutcomes);
        });
}

Result<session::CleanedTrash> BusSession::cleanTrash(Date olderThan) {
    return calls_->call<session::CleanedTrash>(
        Calls::host("CleanTrash"), [&](Writer& writer) { writer.int64(olderThan.time_since_epoch().count()); },
        readCleanedTrash);
}

Result<Item> BusSession::setTags(const ItemIdentifier& item, const std::vector<std::string>& labels) {
    return itemFrom(*calls_, "SetTags", [&](Writer& writer) {
        writer.string(item);
        writeTexts(writer, labels);
    });
}

Result<Item> BusSession::setRank(const ItemIdentifier& item, const std::optional<std::uint64_t>& rank) {
    return itemFrom(*calls_, "SetFavoriteRank", [&](Writer& writer) {
        writer.string(item);
        writeOptional(writer, rank);
    });
}

Result<Item> BusSession::setLastUsed(const ItemIdentifier& item, const std::optional<Date>& date) {
    return itemFrom(*calls_, "SetLastUsedDate", [&](Writer& writer) {
        writer.string(item);
        writeOptional(writer, date);
    });
}

Session::Each<Bytes> BusSession::thumbnails(const std::vector<ItemIdentifier>& items, unsigned side) {
    // Each comes with a descriptor, of which a message holds a few hundred at most.
    Each<Bytes> outcomes;
    for (std::size_t at = 0; at < items.size(); at += kMostThumbnails) {
        const std::vector<ItemIdentifier> part(
            items.begin() + std::ptrdiff_t(at),
            items.begin() + std::ptrdiff_t(std::min(items.size(), at + kMostThumbnails)));
        auto answer = calls_->call<Each<Bytes>>(
            Calls::host("Thumbnails"),
            [&](Writer& writer) {
                writeIdentifiers(writer, part);
                writer.uint32(side);
            },
            readPictures);
        auto read = each<Bytes>(part.size(), std::move(answer));
        std::ranges::move(read, std::back_inserter(outcomes));
    }
    return outcomes;
}

Result<std::vector<session::Application>> BusSession::applications() {
    return calls_->call<std::vector<session::Application>>(Calls::host("Applications"), noArguments(),
                                                           readApplications);
}

Result<session::Refreshed> BusSession::refresh() {
    return calls_->call<session::Refreshed>(Calls::host("Refresh"), noArguments(), readRefreshed);
}

Result<Item> BusSession::defaultContainer(const std::string& bundleIdentifier) {
    return itemFrom(*calls_, "DefaultContainer", [&](Writer& writer) { writer.string(bundleIdentifier); });
}

Result<session::SearchResult> BusSession::search(const session::SearchRequest& request,
                                                 const std::function<void(std::uint64_t)>&) {
    return calls_->call<session::SearchResult>(
        Calls::host("Search"), [&](Writer& writer) { write(writer, request); }, readSearchResult);
}

Result<session::Status> BusSession::status() {
    return calls_->call<session::Status>(Calls::host("Status"), noArguments(), readStatus);
}

}  // namespace tarnwell::bus
