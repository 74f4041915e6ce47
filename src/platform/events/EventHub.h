#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <vector>

#include "platform/dispatch/SerialQueue.h"
#include "platform/events/FileEventService.h"
#include "platform/events/JournalReplay.h"
#include "platform/events/LiveIndex.h"
#include "platform/files/Comparer.h"
#include "platform/store/Store.h"

namespace tarnwell::events {

class JournalStream;

/// What the streams of one service share: the way to the journal, and the comparisons that fill it. Streams keep the
/// hub alive; the services that it borrows end with `close`, after which it answers ESHUTDOWN.
class EventHub : public std::enable_shared_from_this<EventHub> {
public:
    EventHub(const Roots& roots, store::Store& store, files::Comparer& comparer,
             std::shared_ptr<dispatch::ThreadPool> pool, std::chrono::milliseconds pollInterval);

    /// Runs `work` with the borrowed services; ESHUTDOWN once the hub is closed. `close` waits for it.
    template <typename F>
    auto withServices(F&& work) -> std::invoke_result_t<F, store::Store&, files::Comparer&> {
        std::shared_lock lock(openMutex_);
        if (!open_) return failure(posixError(ESHUTDOWN));
        return work(store_, comparer_);
    }

    /// Compares the folders, all roots when there is no list, and returns the position reached.
    Result<EventID> barrier(const std::optional<std::vector<URL>>& folders, Interest interest);
    std::vector<Place> placesOf(const std::vector<URL>& folders) const;
    JournalReplay::Scope scopeOf(const std::optional<std::vector<URL>>& folders) const;

    /// From now on the kernel's hints keep the index, instead of comparing from time to time: begins soon, on a thread
    /// of its own, also while others ask. To be called once at most.
    void watch(std::unique_ptr<watch::Watcher> watcher);
    /// The source of hints, null without one. Not after `close`.
    const LiveIndex* live() const { return published_.load(std::memory_order_acquire); }

    void join(const std::shared_ptr<JournalStream>& stream);
    void leave(const JournalStream* stream);
    /// Records were committed: live streams read on.
    void advanced();
    void close();

private:
    bool isLive() const { return live() != nullptr && live()->isLive(); }
    void schedulePoll(std::chrono::nanoseconds delay);
    void poll();
    std::vector<std::shared_ptr<JournalStream>> streams();

    const Roots& roots_;
    store::Store& store_;
    files::Comparer& comparer_;
    const std::chrono::milliseconds pollInterval_;
    std::shared_ptr<dispatch::SerialQueue> pollQueue_;
    std::unique_ptr<LiveIndex> live_;
    std::atomic<LiveIndex*> published_{nullptr};  ///< `live_` for those who ask while it is set
    std::shared_mutex openMutex_;
    bool open_ = true;
    std::mutex streamsMutex_;
    std::vector<std::weak_ptr<JournalStream>> streams_;
    bool polling_ = false;
};

}  // namespace tarnwell::events
