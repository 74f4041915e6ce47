#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "platform/base/Ids.h"
#include "platform/base/Result.h"
#include "platform/base/UUID.h"
#include "platform/dispatch/SerialQueue.h"
#include "platform/store/Continuations.h"
#include "platform/url/URL.h"

namespace tarnwell::events {

/// Bits of FileEvent::flags.
enum EventFlags : std::uint32_t {
    kEventUserDropped = 0x02,
    kEventKernelDropped = 0x04,
    kEventIDsWrapped = 0x08,
    kEventHistoryDone = 0x10,
    kEventItemCreated = 0x100,
    kEventItemRemoved = 0x200,
    kEventItemAttributesChanged = 0x400,
    kEventItemRenamed = 0x800,
    kEventItemModified = 0x1000,
    /// The object is a folder that came from outside the stream's folders with what it holds, of which no other event
    /// tells.
    kEventItemBroughtContents = 0x10000000,
};

/// One record of a stream. An event without a path carries only flags and the ID.
struct FileEvent {
    EventID id{};
    std::uint32_t flags = 0;
    /// URL path of the object (where it was, for one that left or went), or "/.docid/<device>/changed/…".
    std::optional<std::string> path;
    std::optional<FileID> fileID;
    /// The document ID by which clients know the object, where it has one.
    std::optional<DocumentID> documentID;
};

/// What a stream, or a look at the current event ID, is interested in. Departures only lets the service look at folders
/// and leave the contents of files alone, which is many times cheaper; nothing (of use for a position only, not for a
/// stream) looks at no disk at all, for whom a position that is too early costs a repetition at worst.
enum class Interest { everything, departuresOnly, nothing };

/// Streams over paths report changes below the folders; the document-ID stream of a device reports document-ID changes.
struct StreamOverPaths {
    std::vector<URL> folders;
};
struct StreamOverDevice {
    DeviceID device;
    std::string path;  ///< "/.docid"
};

inline constexpr std::uint32_t kStreamUseDictionaries = 0x01;
inline constexpr std::uint32_t kStreamFileEvents = 0x10;
inline constexpr std::uint32_t kStreamUseExtendedData = 0x40;

struct StreamOptions {
    std::variant<StreamOverPaths, StreamOverDevice> over;
    EventID since{};
    std::chrono::milliseconds latency{500};  ///< of live batches; history has none
    std::uint32_t flags = kStreamUseDictionaries | kStreamFileEvents | kStreamUseExtendedData;
    Interest interest = Interest::everything;
    std::chrono::milliseconds historyDelay{0};  ///< from the start to the history, for whom only what comes then counts
    /// The position from which this reader began, where an earlier stream told him what came up to `since`; nothing
    /// for `since` itself.
    std::optional<EventID> begunAt;
    /// The history ends here, without a look at the disk, and no live events follow.
    std::optional<EventID> upTo;
};

/// One stream. First the history since the asked position, then "history done" carrying the current ID, then live
/// batches; a position that the journal no longer holds, or one of the future, gives one event with kEventUserDropped
/// (then nothing more until stopped). All callbacks run on the queue set; none comes after `stop` returned on that
/// queue. One of history done or dropped always comes.
class FileEventStream {
public:
    using Callback = std::function<void(const std::vector<FileEvent>&)>;
    virtual ~FileEventStream() = default;
    virtual void setQueue(std::shared_ptr<dispatch::SerialQueue> queue) = 0;
    virtual bool start() = 0;
    virtual void stop() = 0;
    virtual void invalidate() = 0;
};

/// The journal of changes below the roots. Any thread may call any operation.
class FileEventService {
public:
    virtual ~FileEventService() = default;

    /// The identity of the event-ID space that a device's events belong to.
    virtual Result<UUID> deviceUUID(DeviceID device) = 0;

    /// The position of now: every change below `folders` (all roots when empty) whose system call returned before this
    /// call has an ID not above it, within the interest. Blocks for the comparison of those folders with the index.
    virtual Result<EventID> currentEventID(const std::vector<URL>& folders, Interest interest) = 0;

    /// The position reached by what is recorded already, without a look at the disk.
    virtual EventID recordedEventID() = 0;

    /// Where a reader of a history in batches goes on, kept durably with the journal: after a batch it is remembered
    /// under who reads, since when and how many changes were told (store::Continuations has the rules); nothing for a
    /// batch that is not known any more.
    virtual Result<void> rememberContinuation(const store::BatchKey& key, const store::Continuation& continuation) = 0;
    virtual Result<std::optional<store::Continuation>> continuationOf(const store::BatchKey& key) = 0;

    /// For an object that its reader did not find where an event had it: true when a later event tells where it is, for
    /// which it is recorded anew, or that it left.
    virtual bool tellAgain(FileID object) = 0;

    /// For a reader from `upTo` whose folders these roots were not among until now: what is visible below them is
    /// recorded anew, a folder before what it holds, as far as the last record of it is one that this reader would not
    /// be told of. Does not look at the disk: what is not known yet will be recorded when it is found.
    virtual Result<void> tellContents(const std::vector<URL>& roots, EventID upTo) = 0;

    virtual Result<std::unique_ptr<FileEventStream>> createStream(StreamOptions options,
                                                                  FileEventStream::Callback callback) = 0;
};

}  // namespace tarnwell::events
