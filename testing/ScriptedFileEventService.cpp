#include "testing/ScriptedFileEventService.h"

#include <algorithm>
#include <cerrno>

#include "platform/files/LocalFileSystem.h"

namespace tarnwell::testing {

events::FileEvent eventAt(std::uint64_t id, const std::string& path) {
    events::FileEvent event;
    event.id = EventID{id};
    event.path = path;
    return event;
}

events::FileEvent eventAt(std::uint64_t id, const std::string& path, FileID fileID) {
    auto event = eventAt(id, path);
    event.fileID = fileID;
    return event;
}

events::FileEvent eventAt(std::uint64_t id, const std::string& path, DocumentID documentID) {
    auto event = eventAt(id, path);
    event.documentID = documentID;
    return event;
}

events::FileEvent eventWithFlags(std::uint64_t id, std::uint32_t flags) {
    events::FileEvent event;
    event.id = EventID{id};
    event.flags = flags;
    return event;
}

/// What was recorded, and the position of now. Streams look into it on their queues.
struct ScriptedFileEventService::Journal {
    std::mutex mutex;
    EventID now{};
    EventBatch events;
};

/// Shared by the stream, its pending batches and the service; the callback is called on the queue only.
struct ScriptedFileEventService::StreamState {
    std::mutex mutex;
    StreamRecord record;
    std::shared_ptr<dispatch::SerialQueue> queue;
    events::FileEventStream::Callback callback;
    std::vector<EventBatch> history;
    std::shared_ptr<Journal> journal;  ///< nothing for a stream that plays its script
    EventID position{};                ///< told up to here; on the queue only
    bool isLive = false;               ///< its history is told; on the queue only
    bool refusesStart = false;

    bool isRunning() {
        std::lock_guard lock(mutex);
        return record.started && !record.stopped && !record.invalidated && !record.destroyed;
    }
    void deliver(const EventBatch& batch) {
        if (isRunning()) callback(batch);
    }

    bool isAsked(const events::FileEvent& event) const {
        const auto* paths = std::get_if<events::StreamOverPaths>(&record.options.over);
        if (paths == nullptr) {
            return event.path->starts_with(std::get<events::StreamOverDevice>(record.options.over).path + "/");
        }
        if (record.options.interest != events::Interest::everything && (event.flags & events::kEventItemRemoved) == 0) {
            return false;
        }
        return std::ranges::any_of(paths->folders, [&](const URL& folder) {
            return relationship(folder.path(), *event.path) == Relationship::contains;
        });
    }
    /// Under the journal's mutex.
    EventID end() const { return record.options.upTo.value_or(journal->now); }
    /// What is asked of what was recorded since the last time, and how far that reaches.
    EventBatch newEvents() {
        std::lock_guard lock(journal->mutex);
        EventBatch batch;
        for (const auto& event : journal->events) {
            if (raw(event.id) > raw(position) && raw(event.id) <= raw(end()) && isAsked(event)) batch.push_back(event);
        }
        position = end();
        return batch;
    }
    void tellHistory() {
        const EventID since = record.options.since;
        position = since;
        EventBatch batch = newEvents();
        if (raw(since) > raw(position)) return deliver({eventWithFlags(raw(since), events::kEventUserDropped)});
        batch.push_back(historyDoneEvent(raw(position)));
        isLive = !record.options.upTo;
        deliver(batch);
    }
    void tellNews() {
        if (!isLive) return;
        if (const EventBatch batch = newEvents(); !batch.empty()) deliver(batch);
    }
};

class ScriptedFileEventService::Stream : public events::FileEventStream {
public:
    explicit Stream(std::shared_ptr<StreamState> state) : state_(std::move(state)) {}
    ~Stream() override {
        std::lock_guard lock(state_->mutex);
        state_->record.destroyed = true;
    }

    void setQueue(std::shared_ptr<dispatch::SerialQueue> queue) override {
        std::lock_guard lock(state_->mutex);
        state_->record.queueLabel = queue->label();
        state_->queue = std::move(queue);
    }
    bool start() override {
        std::lock_guard lock(state_->mutex);
        if (state_->refusesStart || state_->queue == nullptr || state_->record.started) return false;
        state_->record.started = true;
        if (state_->journal != nullptr) {
            state_->queue->async([state = state_] { state->tellHistory(); });
            return true;
        }
        for (auto& batch : state_->history) {
            state_->queue->async([state = state_, batch] { state->deliver(batch); });
        }
        return true;
    }
    void stop() override {
        std::lock_guard lock(state_->mutex);
        state_->record.stopped = true;
    }
    void invalidate() override {
        std::lock_guard lock(state_->mutex);
        state_->record.invalidated = true;
    }

private:
    std::shared_ptr<StreamState> state_;
};

ScriptedFileEventService::ScriptedFileEventService(UUID uuid) : uuid_(uuid), journal_(std::make_shared<Journal>()) {}

void ScriptedFileEventService::setDeviceUUID(std::optional<UUID> uuid) {
    std::lock_guard lock(mutex_);
    uuid_ = uuid;
}

void ScriptedFileEventService::setEventID(std::uint64_t id) {
    std::lock_guard lock(journal_->mutex);
    journal_->now = EventID{id};
}

void ScriptedFileEventService::failCurrentEventID(std::optional<Error> error) {
    std::lock_guard lock(mutex_);
    currentEventIDError_ = std::move(error);
}

void ScriptedFileEventService::refuseStreams(Refusal refusal) {
    std::lock_guard lock(mutex_);
    refusal_ = refusal;
}

void ScriptedFileEventService::setHistory(std::vector<EventBatch> batches) {
    std::lock_guard lock(mutex_);
    history_ = std::move(batches);
}

void ScriptedFileEventService::setDocumentHistory(std::vector<EventBatch> batches) {
    std::lock_guard lock(mutex_);
    documentHistory_ = std::move(batches);
}

void ScriptedFileEventService::failContinuations(std::optional<Error> error) {
    std::lock_guard lock(mutex_);
    continuationError_ = std::move(error);
}

void ScriptedFileEventService::keepJournal() {
    std::lock_guard lock(mutex_);
    keepsJournal_ = true;
}

EventID ScriptedFileEventService::record(events::FileEvent event) {
    TARNWELL_CHECK(event.path.has_value());
    {
        std::lock_guard lock(journal_->mutex);
        journal_->now = EventID{raw(journal_->now) + 1};
        event.id = journal_->now;
        journal_->events.push_back(event);
    }
    for (const auto& stream : allStreams()) {
        if (stream->journal == nullptr || !stream->isRunning()) continue;
        stream->queue->async([stream] { stream->tellNews(); });
    }
    return event.id;
}

std::vector<std::shared_ptr<ScriptedFileEventService::StreamState>> ScriptedFileEventService::allStreams() const {
    std::lock_guard lock(mutex_);
    return streams_;
}

void ScriptedFileEventService::play(const EventBatch& batch) {
    for (const auto& stream : allStreams()) {
        if (stream->isRunning()) stream->queue->sync([&] { stream->deliver(batch); });
    }
}

std::vector<ScriptedFileEventService::StreamRecord> ScriptedFileEventService::streams() const {
    std::lock_guard lock(mutex_);
    std::vector<StreamRecord> records;
    for (const auto& stream : streams_) {
        std::lock_guard streamLock(stream->mutex);
        records.push_back(stream->record);
    }
    return records;
}

std::size_t ScriptedFileEventService::runningStreams() const {
    std::size_t count = 0;
    for (const auto& record : streams()) count += record.started && !record.stopped;
    return count;
}

std::vector<ScriptedFileEventService::CurrentEventIDRequest> ScriptedFileEventService::currentEventIDRequests() const {
    std::lock_guard lock(mutex_);
    return requests_;
}

Result<UUID> ScriptedFileEventService::deviceUUID(DeviceID device) {
    std::lock_guard lock(mutex_);
    if (!uuid_ || device != files::kRootsDevice) return failure(posixError(ENODEV));
    return *uuid_;
}

Result<EventID> ScriptedFileEventService::currentEventID(const std::vector<URL>& folders, events::Interest interest) {
    std::lock_guard lock(mutex_);
    requests_.push_back({folders, interest});
    if (currentEventIDError_) return failure(*currentEventIDError_);
    return recordedEventID();
}

EventID ScriptedFileEventService::recordedEventID() {
    std::lock_guard lock(journal_->mutex);
    return journal_->now;
}

Result<void> ScriptedFileEventService::rememberContinuation(const store::BatchKey& key,
                                                            const store::Continuation& continuation) {
    std::lock_guard lock(mutex_);
    if (continuationError_) return failure(*continuationError_);
    const auto [known, isNew] = continuations_.try_emplace({key.reader, key.since, key.offset}, continuation);
    if (!isNew && continuation.isBefore(known->second)) known->second = continuation;
    return {};
}

Result<std::optional<store::Continuation>> ScriptedFileEventService::continuationOf(const store::BatchKey& key) {
    std::lock_guard lock(mutex_);
    if (continuationError_) return failure(*continuationError_);
    const auto found = continuations_.find({key.reader, key.since, key.offset});
    return found != continuations_.end() ? std::optional(found->second) : std::nullopt;
}

bool ScriptedFileEventService::tellAgain(FileID object) {
    std::lock_guard lock(mutex_);
    if (std::ranges::find(known_, object) == known_.end()) return false;
    toldAgain_.push_back(object);
    return true;
}

Result<void> ScriptedFileEventService::tellContents(const std::vector<URL>& roots, EventID upTo) {
    std::lock_guard lock(mutex_);
    for (const URL& root : roots) contentsToTell_.push_back(root.path() + " up to " + std::to_string(raw(upTo)));
    return {};
}

std::vector<std::string> ScriptedFileEventService::contentsToTell() const {
    std::lock_guard lock(mutex_);
    return contentsToTell_;
}

void ScriptedFileEventService::knowObjects(std::vector<FileID> objects) {
    std::lock_guard lock(mutex_);
    known_ = std::move(objects);
}

std::vector<FileID> ScriptedFileEventService::objectsToTellAgain() const {
    std::lock_guard lock(mutex_);
    return toldAgain_;
}

Result<std::unique_ptr<events::FileEventStream>> ScriptedFileEventService::createStream(
    events::StreamOptions options, events::FileEventStream::Callback callback) {
    std::lock_guard lock(mutex_);
    if (refusal_ == Refusal::create) return failure(posixError(ENFILE));
    if (const auto* paths = std::get_if<events::StreamOverPaths>(&options.over); paths != nullptr) {
        if (paths->folders.empty()) return failure(posixError(EINVAL));
    } else if (std::get<events::StreamOverDevice>(options.over).device != files::kRootsDevice) {
        return failure(posixError(ENODEV));
    }
    auto state = std::make_shared<StreamState>();
    state->record.options = std::move(options);
    state->callback = std::move(callback);
    if (keepsJournal_)
        state->journal = journal_;
    else
        state->history =
            documentHistory_ && !std::holds_alternative<events::StreamOverPaths>(state->record.options.over)
                ? *documentHistory_
                : history_;
    state->refusesStart = refusal_ == Refusal::start;
    streams_.push_back(state);
    return std::make_unique<Stream>(std::move(state));
}

}  // namespace tarnwell::testing
