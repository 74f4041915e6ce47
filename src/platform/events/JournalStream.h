#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <vector>

#include "platform/events/EventHub.h"
#include "platform/events/FileEventService.h"

namespace tarnwell::events {

/// A stream that reads the journal: its history first, then what is recorded while it runs.
///
///   made --start--> replaying --end of history--> live --stop--> stopped
///                   replaying --position unknown, journal unreadable--> dropped --stop--> stopped
class JournalStream : public std::enable_shared_from_this<JournalStream> {
public:
    JournalStream(std::shared_ptr<EventHub> hub, StreamOptions options, FileEventStream::Callback callback);

    /// The folders of a stream over paths; nothing for a stream over the device.
    std::optional<std::vector<URL>> folders() const;
    Interest interest() const { return options_.interest; }
    /// True from the end of the history until it is stopped. Any thread.
    bool isLive() const { return running_.load() && live_.load(); }
    void setQueue(std::shared_ptr<dispatch::SerialQueue> queue) { queue_ = std::move(queue); }
    bool start();
    void stop();
    /// Called by the hub on any thread when records were committed.
    void recordsArrived();

private:
    void replayHistory();
    /// Whether the disk was looked at for what is told.
    enum class Look { taken, missing };
    void tellHistory(EventID upTo, Look look);
    void readOn();
    bool deliverBatch(EventID upTo);
    /// Delivers what lies between the position and `upTo`; false when the journal cannot be read.
    bool deliverUpTo(EventID upTo);
    std::optional<EventID> recordedMeanwhile();
    void deliver(const std::vector<FileEvent>& events);
    void drop();

    std::shared_ptr<EventHub> hub_;
    const StreamOptions options_;
    FileEventStream::Callback callback_;
    std::shared_ptr<dispatch::SerialQueue> queue_;
    std::atomic<bool> running_{false};
    std::atomic<bool> readingOn_{false};  ///< a read of new records is on its way
    std::atomic<bool> live_{false};
    EventID position_;  ///< delivered up to here; on the queue only
    int rounds_ = 0;    ///< of a history that went on meanwhile; on the queue only
};

/// The handle that clients hold: stops the stream when it goes.
class JournalStreamHandle : public FileEventStream {
public:
    explicit JournalStreamHandle(std::shared_ptr<JournalStream> stream) : stream_(std::move(stream)) {}
    ~JournalStreamHandle() override { stream_->stop(); }
    void setQueue(std::shared_ptr<dispatch::SerialQueue> queue) override { stream_->setQueue(std::move(queue)); }
    bool start() override { return stream_->start(); }
    void stop() override { stream_->stop(); }
    void invalidate() override { stream_->stop(); }

private:
    std::shared_ptr<JournalStream> stream_;
};

}  // namespace tarnwell::events
