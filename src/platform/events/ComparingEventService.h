#pragma once

#include <chrono>
#include <memory>

#include "platform/dispatch/ThreadPool.h"
#include "platform/events/FileEventService.h"
#include "platform/events/LiveIndex.h"
#include "platform/files/Comparer.h"
#include "platform/store/Store.h"
#include "platform/watch/KernelWatcher.h"

namespace tarnwell::events {

class EventHub;

/// The event service of a journal that comparisons fill. By itself its source is comparing: what a request asks about
/// is compared with the index before the answer, and the folders of live streams are compared from time to time. That
/// needs nothing of the kernel, so it works on every file system; `watch` adds what the kernel tells.
///
/// E1: a change whose system call returned before a stream's start is in its history, within the stream's interest.
/// E2: a stream's callbacks come on its queue, with rising event IDs.
class ComparingEventService : public FileEventService {
public:
    struct Options {
        /// From the end of one comparison of the live streams' folders to the next; at least ten times what the last
        /// one took, so that comparing never takes more than a tenth of the time.
        std::chrono::milliseconds pollInterval{2000};
    };
    /// Borrows its services; they outlive it. Streams may outlive it: they deliver nothing more.
    ComparingEventService(const Roots& roots, store::Store& store, files::Comparer& comparer,
                          std::shared_ptr<dispatch::ThreadPool> pool, Options options);
    ~ComparingEventService() override;

    /// From now on kernel hints keep the index; to be called once at most. For programs that stay: it begins with a
    /// look at everything below the roots. Fails where the kernel offers no source, and comparing goes on.
    Result<void> watch(const watch::WatcherOptions& options = {});
    /// Nothing as long as comparing is the source.
    std::optional<LiveIndex::Status> liveStatus() const;

    Result<UUID> deviceUUID(DeviceID device) override;
    Result<EventID> currentEventID(const std::vector<URL>& folders, Interest interest) override;
    EventID recordedEventID() override;
    Result<void> rememberContinuation(const store::BatchKey& key, const store::Continuation& continuation) override;
    Result<std::optional<store::Continuation>> continuationOf(const store::BatchKey& key) override;
    bool tellAgain(FileID object) override;
    Result<void> tellContents(const std::vector<URL>& roots, EventID upTo) override;
    Result<std::unique_ptr<FileEventStream>> createStream(StreamOptions options,
                                                          FileEventStream::Callback callback) override;

private:
    store::Store& store_;
    std::shared_ptr<EventHub> hub_;
};

}  // namespace tarnwell::events
