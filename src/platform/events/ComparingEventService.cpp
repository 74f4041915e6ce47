#include "platform/events/ComparingEventService.h"

#include <cerrno>

#include "platform/events/EventHub.h"
#include "platform/events/JournalStream.h"
#include "platform/files/LocalFileSystem.h"

namespace tarnwell::events {

ComparingEventService::ComparingEventService(const Roots& roots, store::Store& store, files::Comparer& comparer,
                                             std::shared_ptr<dispatch::ThreadPool> pool, Options options)
    : store_(store), hub_(std::make_shared<EventHub>(roots, store, comparer, std::move(pool), options.pollInterval)) {
    store_.setCommitListener([weak = std::weak_ptr(hub_)] {
        if (auto hub = weak.lock()) hub->advanced();
    });
}

ComparingEventService::~ComparingEventService() {
    store_.setCommitListener({});
    hub_->close();
}

Result<void> ComparingEventService::watch(const watch::WatcherOptions& options) {
    auto watcher = watch::makeWatcher(options);
    if (!watcher) return failure(watcher.error());
    hub_->watch(std::move(*watcher));
    return {};
}

std::optional<LiveIndex::Status> ComparingEventService::liveStatus() const {
    const LiveIndex* live = hub_->live();
    return live != nullptr && live->isLive() ? std::optional(live->status()) : std::nullopt;
}

Result<UUID> ComparingEventService::deviceUUID(DeviceID device) {
    if (device != files::kRootsDevice) return failure(posixError(ENODEV));
    return store_.uuid();
}

Result<EventID> ComparingEventService::currentEventID(const std::vector<URL>& folders, Interest interest) {
    return hub_->barrier(folders.empty() ? std::nullopt : std::optional(folders), interest);
}

EventID ComparingEventService::recordedEventID() { return store_.lastEventID(); }

Result<void> ComparingEventService::rememberContinuation(const store::BatchKey& key,
                                                         const store::Continuation& continuation) {
    store::Session session(store_);
    session.write();
    session.continuations().remember(key, continuation);
    return session.commit();
}

Result<std::optional<store::Continuation>> ComparingEventService::continuationOf(const store::BatchKey& key) {
    store::Session session(store_);
    auto found = session.continuations().find(key);
    if (auto checked = session.check(); !checked) return failure(checked.error());
    return found;
}

bool ComparingEventService::tellAgain(FileID object) {
    store::Session session(store_);
    auto row = session.index().byFileID(object);
    if (!row || row->state != store::ObjectState::live || !row->visible) {
        return session.journal().departureOf(object).has_value();
    }
    session.write();
    session.journal().recordChange(*row, row->change);
    session.index().update(*row);
    return session.commit().has_value();
}

Result<void> ComparingEventService::tellContents(const std::vector<URL>& roots, EventID upTo) {
    constexpr std::size_t kAtOnce = 1000;
    std::vector<FileID> pending;
    if (upTo > store_.lastEventID()) return {};  // nobody can have that position
    const auto places = hub_->placesOf(roots);
    for (auto place = places.rbegin(); place != places.rend(); ++place) {
        if (!place->relative.empty()) continue;  // no root
        // Not by its name, which may have been that of another folder before.
        auto row = hub_->withServices([&](store::Store&, files::Comparer& comparer) { return comparer.rowAt(*place); });
        if (row) {
            pending.push_back(row->fileID);
        } else if (row.error().domain != ErrorDomain::posix) {
            return failure(row.error());
        }
    }
    while (!pending.empty()) {
        const FileID folder = pending.back();
        pending.pop_back();
        std::vector<FileID> below;
        for (std::uint64_t position = 0;;) {
            // In parts, so that others get at the store meanwhile.
            store::Session session(store_);
            auto children = session.index().allChildren(folder, position, kAtOnce);
            for (store::ObjectRow& child : children) {
                position = child.position;
                if (!child.visible || child.state != store::ObjectState::live) continue;
                if (child.isDirectory() && !child.package) below.push_back(child.fileID);
                if (child.event > raw(upTo)) continue;
                session.write();
                session.journal().recordChange(child, store::kChangeCreated);
                session.index().update(child);
            }
            const bool isEnd = children.size() < kAtOnce;
            if (auto committed = session.commit(); !committed) return committed;
            if (isEnd) break;
        }
        pending.insert(pending.end(), below.rbegin(), below.rend());
    }
    return {};
}

Result<std::unique_ptr<FileEventStream>> ComparingEventService::createStream(StreamOptions options,
                                                                             FileEventStream::Callback callback) {
    if (auto paths = std::get_if<StreamOverPaths>(&options.over); paths != nullptr && paths->folders.empty()) {
        return failure(posixError(EINVAL, "a stream needs a folder to watch"));
    }
    if (auto device = std::get_if<StreamOverDevice>(&options.over);
        device != nullptr && device->device != files::kRootsDevice) {
        return failure(posixError(ENODEV));
    }
    return std::make_unique<JournalStreamHandle>(
        std::make_shared<JournalStream>(hub_, std::move(options), std::move(callback)));
}

}  // namespace tarnwell::events
