#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "fs/FSEnvironment.h"
#include "items/LocalItem.h"
#include "platform/base/UUID.h"
#include "platform/dispatch/SerialQueue.h"

namespace tarnwell::fs {

/// Receives what an FSEventReader makes of the file events. All calls come on the reader's stream queue.
class FSEventReaderDelegate {
public:
    virtual ~FSEventReaderDelegate() = default;
    /// The URL is the one that the item was built from.
    virtual void itemChanged(const URL& url, const std::shared_ptr<const items::LocalItem>& item) = 0;
    /// The URL's cache carries the document ID or else the file ID by which the object was known. No item: it is gone.
    virtual void itemDeleted(const URL& url, const std::shared_ptr<const items::LocalItem>& item) = 0;
    virtual void historyDone() = 0;
    /// What happened since the position asked for cannot be told.
    virtual void eventsDropped() = 0;
    virtual void batchFinished() = 0;
};

/// Reads one stream of file events over a set of folders and tells its delegate of each what is true now.
///
/// Which event ends in what:
/// - Wrapped IDs come first, then dropped events, then history done; these need no path. Any other event without a path
///   is ignored with an error line.
/// - Path mode: the event is a deletion when nothing stands at its path (links not followed), or when it tells of a
///   removal and something else has the name by now. Where it tells of no removal, the object that it names is first
///   looked for at another place: a folder above it may have moved since the event was read. Where it is not found and
///   a later event tells what became of it, this one is dropped: told too early, a deletion would take along what left
///   the folder before it went. A deletion's identifier is the event's document ID, else its file ID, kept in the URL's
///   cache; an event with neither is dropped.
/// - Document-ID mode: the event is a deletion when the document's identifier leads to no URL. There is no place to
///   name then, so the URL reported is the event's path, with the document ID in its cache.
/// - A removal below a monitored folder that is hidden itself is a deletion: what was known below it went out of sight
///   with it.
/// - Any other hidden path is dropped, then one that is not below a monitored folder (the folders themselves are not
///   below themselves); this holds for deletions by path as well. Then an object must give an item, whose identifier
///   must be one that the event named, if it named any: the document ID, or the file ID of the same object.
/// - Hidden means a component that begins with "." below the root; only a root's own ".Trash" is none.
/// `lastProcessedFSEventID` advances with every event, history done included, before the delegate is told of it, so
/// that a reader started again goes on where it was stopped.
class FSEventReader : public std::enable_shared_from_this<FSEventReader> {
public:
    enum class Mode { pathBased, docIDBased };
    struct Configuration {
        std::vector<URL> urls = {};
        EventID since{};
        Mode mode = Mode::pathBased;
        /// True logs every event, and dropped ones.
        bool verbose = false;
        events::Interest interest = events::Interest::everything;
        /// How long the history may wait; none for somebody who waits for it.
        std::chrono::milliseconds historyDelay{0};
        /// What came up to here since `since` was told by an earlier reader.
        std::optional<EventID> toldUpTo = {};
        /// The reader ends with the history up to here; without it the history goes up to now, and live events follow.
        std::optional<EventID> upTo = {};
    };

    static std::shared_ptr<FSEventReader> create(const FSEnvironment& environment, Configuration configuration);
    /// May run on any thread. A reader that is still started logs an error line and releases its stream.
    ~FSEventReader();
    FSEventReader(const FSEventReader&) = delete;
    FSEventReader& operator=(const FSEventReader&) = delete;

    /// To be called before `start`.
    void setDelegate(std::weak_ptr<FSEventReaderDelegate> delegate) { delegate_ = std::move(delegate); }

    /// Opens the stream at `lastProcessedFSEventID`; does nothing when started already. On the stream queue only. A
    /// stream that cannot be created stops the process; one that cannot be started, or has no device, is told as
    /// dropped events.
    void start();
    /// Closes the stream: no delegate call comes after the batch under way. Nothing when not started. On the stream
    /// queue only.
    void stop();

    /// Stops it soon, and reports nothing more of the batch under way either. On the stream queue only.
    void stopSoon();

    /// The queue of all callbacks and delegate calls.
    const std::shared_ptr<dispatch::SerialQueue>& streamQueue() const { return streamQueue_; }
    /// On the stream queue only.
    EventID lastProcessedFSEventID() const;
    /// The flags of the event that the delegate is being told of. On the stream queue only.
    std::uint32_t currentEventFlags() const;
    const std::vector<URL>& urls() const { return configuration_.urls; }
    Mode mode() const { return configuration_.mode; }
    bool verbose() const { return configuration_.verbose; }
    /// One line for logs: since, urls, mode.
    std::string description() const;

    /// The identity of the event IDs of the device that holds the URL; the error of ErrorDomain::deviceUUID without
    /// one.
    static Result<UUID> deviceUUID(const FSEnvironment& environment, const URL& url);

private:
    FSEventReader(const FSEnvironment& environment, Configuration configuration);
    Result<events::StreamOptions> streamOptions() const;
    void failToStart(const std::string& reason);
    void releaseStream();
    void receive(const std::vector<events::FileEvent>& batch);
    void logEvents(const std::vector<events::FileEvent>& batch) const;
    void handle(const events::FileEvent& event, std::size_t index, FSEventReaderDelegate* delegate);

    const FSEnvironment& environment_;
    const Configuration configuration_;
    const std::shared_ptr<dispatch::SerialQueue> streamQueue_;
    std::weak_ptr<FSEventReaderDelegate> delegate_;
    // On the stream queue only.
    EventID lastProcessedFSEventID_;
    std::uint32_t currentEventFlags_ = 0;
    std::unique_ptr<events::FileEventStream> stream_;
    bool isReceiving_ = false;
    bool isStopping_ = false;
};

}  // namespace tarnwell::fs
