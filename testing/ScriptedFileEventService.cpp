#include "testing/ScriptedFileEventService.h"

#include <cerrno>

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

/// Shared by the stream, its pending batches and the service; the callback is called on the queue only.
struct ScriptedFileEventService::StreamState {
    std::mutex mutex;
    StreamRecord record;
    std::shared_ptr<dispatch::SerialQueue> queue;
    events::FileEventStream::Callback callback;
    std::vector<EventBatch> history;
    bool refusesStart = false;

    bool isRunning() {
        std::lock_guard lock(mutex);
        return record.started && !record.stopped;
    }
    void deliver(const EventBatch& batch) {
        if (isRunning()) callback(batch);
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
        if (state_->refusesStart) return false;
        state_->record.started = true;
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

void ScriptedFileEventService::setDeviceUUID(std::optional<UUID> uuid) {
    std::lock_guard lock(mutex_);
    uuid_ = uuid;
}

void ScriptedFileEventService::setEventID(std::uint64_t id) {
    std::lock_guard lock(mutex_);
    eventID_ = EventID{id};
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

void ScriptedFileEventService::play(const EventBatch& batch) {
    std::vector<std::shared_ptr<StreamState>> streams;
    {
        std::lock_guard lock(mutex_);
        streams = streams_;
    }
    for (const auto& stream : streams) {
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

Result<UUID> ScriptedFileEventService::deviceUUID(DeviceID) {
    std::lock_guard lock(mutex_);
    if (!uuid_) return failure(posixError(ENODEV));
    return *uuid_;
}

Result<EventID> ScriptedFileEventService::currentEventID(const std::vector<URL>& folders, events::Interest interest) {
    std::lock_guard lock(mutex_);
    requests_.push_back({folders, interest});
    if (currentEventIDError_) return failure(*currentEventIDError_);
    return eventID_;
}

EventID ScriptedFileEventService::recordedEventID() {
    std::lock_guard lock(mutex_);
    return eventID_;
}

Result<std::unique_ptr<events::FileEventStream>> ScriptedFileEventService::createStream(
    events::StreamOptions options, events::FileEventStream::Callback callback) {
    std::lock_guard lock(mutex_);
    if (refusal_ == Refusal::create) return failure(posixError(ENFILE));
    auto state = std::make_shared<StreamState>();
    state->record.options = std::move(options);
    state->callback = std::move(callback);
    state->history = history_;
    state->refusesStart = refusal_ == Refusal::start;
    streams_.push_back(state);
    return std::make_unique<Stream>(std::move(state));
}

}  // namespace tarnwell::testing
