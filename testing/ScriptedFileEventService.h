#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "platform/events/FileEventService.h"

namespace tarnwell::testing {

using EventBatch = std::vector<events::FileEvent>;

/// Item events and conditions, in the few forms that scripts need.
events::FileEvent eventAt(std::uint64_t id, const std::string& path);
events::FileEvent eventAt(std::uint64_t id, const std::string& path, FileID fileID);
events::FileEvent eventAt(std::uint64_t id, const std::string& path, DocumentID documentID);
events::FileEvent eventWithFlags(std::uint64_t id, std::uint32_t flags);
inline events::FileEvent historyDoneEvent(std::uint64_t id) { return eventWithFlags(id, events::kEventHistoryDone); }

/// A journal that plays what a test wrote down. Any thread may call it; streams must go before it does.
///
/// Streams say what the test has them say, whatever the real service would: a script may leave out the end of the
/// history, or tell of what lies before the position. With `keepJournal` they keep every promise of the interface.
class ScriptedFileEventService : public events::FileEventService {
public:
    /// What became of one stream that was created.
    struct StreamRecord {
        events::StreamOptions options;
        std::string queueLabel;
        bool started = false;
        bool stopped = false;
        bool invalidated = false;
        bool destroyed = false;
    };
    struct CurrentEventIDRequest {
        std::vector<URL> folders;
        events::Interest interest;
    };

    explicit ScriptedFileEventService(UUID uuid);

    /// Nothing makes `deviceUUID` fail.
    void setDeviceUUID(std::optional<UUID> uuid);
    /// What both kinds of "now" answer; 0 at first.
    void setEventID(std::uint64_t id);
    /// `currentEventID` fails with it; nothing lets it succeed again.
    void failCurrentEventID(std::optional<Error> error);
    enum class Refusal { none, create, start };
    void refuseStreams(Refusal refusal);
    /// The batches that every stream plays as soon as it starts.
    void setHistory(std::vector<EventBatch> batches);
    /// The batches that streams of document IDs play instead.
    void setDocumentHistory(std::vector<EventBatch> batches);
    /// Remembering and finding continuations fails with it; nothing lets it succeed again.
    void failContinuations(std::optional<Error> error);

    /// Streams created from now on play what `record` was given, instead of scripts: what came after their position,
    /// then history done, then what comes. Nothing is forgotten, so that only positions of the future are dropped.
    void keepJournal();
    /// Adds the event under the next ID, which is returned, and tells it to the streams that run. Its path and whether
    /// it is a removal decide which.
    EventID record(events::FileEvent event);

    /// Plays one batch on every stream that runs, on its queue, and returns when it was received. Not on such a queue.
    void play(const EventBatch& batch);

    std::vector<StreamRecord> streams() const;
    std::size_t runningStreams() const;
    std::vector<CurrentEventIDRequest> currentEventIDRequests() const;

    Result<UUID> deviceUUID(DeviceID device) override;
    Result<EventID> currentEventID(const std::vector<URL>& folders, events::Interest interest) override;
    EventID recordedEventID() override;
    Result<void> rememberContinuation(const store::BatchKey& key, const store::Continuation& continuation) override;
    Result<std::optional<store::Continuation>> continuationOf(const store::BatchKey& key) override;
    /// True for the known objects, which it keeps as asked for; at first none is known.
    bool tellAgain(FileID object) override;
    /// Only kept: a script tells what it tells.
    Result<void> tellContents(const std::vector<URL>& roots, EventID upTo) override;
    std::vector<std::string> contentsToTell() const;
    void knowObjects(std::vector<FileID> objects);
    std::vector<FileID> objectsToTellAgain() const;
    Result<std::unique_ptr<events::FileEventStream>> createStream(events::StreamOptions options,
                                                                  events::FileEventStream::Callback callback) override;

private:
    class Stream;
    struct StreamState;
    struct Journal;
    std::vector<std::shared_ptr<StreamState>> allStreams() const;

    mutable std::mutex mutex_;
    std::optional<UUID> uuid_;
    const std::shared_ptr<Journal> journal_;
    bool keepsJournal_ = false;
    std::optional<Error> currentEventIDError_;
    Refusal refusal_ = Refusal::none;
    std::vector<EventBatch> history_;
    std::optional<std::vector<EventBatch>> documentHistory_;
    std::optional<Error> continuationError_;
    std::map<std::tuple<std::string, EventID, std::uint64_t>, store::Continuation> continuations_;
    std::vector<CurrentEventIDRequest> requests_;
    std::vector<FileID> known_, toldAgain_;
    std::vector<std::string> contentsToTell_;
    std::vector<std::shared_ptr<StreamState>> streams_;
};

}  // namespace tarnwell::testing
