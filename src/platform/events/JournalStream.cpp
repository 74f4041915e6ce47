#include "platform/events/JournalStream.h"

#include "platform/events/JournalReplay.h"

namespace tarnwell::events {

JournalStream::JournalStream(std::shared_ptr<EventHub> hub, StreamOptions options, FileEventStream::Callback callback)
    : hub_(std::move(hub)), options_(std::move(options)), callback_(std::move(callback)), position_(options_.since) {}

std::optional<std::vector<URL>> JournalStream::folders() const {
    auto paths = std::get_if<StreamOverPaths>(&options_.over);
    return paths != nullptr ? std::optional(paths->folders) : std::nullopt;
}

bool JournalStream::start() {
    if (queue_ == nullptr || running_.exchange(true)) return false;
    if (options_.historyDelay == std::chrono::milliseconds(0)) {
        queue_->async([self = shared_from_this()] { self->replayHistory(); });
    } else {
        queue_->after(options_.historyDelay, [weak = weak_from_this()] {
            if (auto self = weak.lock()) self->replayHistory();
        });
    }
    return true;
}

void JournalStream::stop() {
    if (running_.exchange(false)) hub_->leave(this);
}

void JournalStream::deliver(const std::vector<FileEvent>& events) {
    if (running_.load() && !events.empty()) callback_(events);
}

void JournalStream::drop() {
    live_.store(false);  // what comes after a gap is no continuation
    deliver({FileEvent{position_, kEventUserDropped, std::nullopt, std::nullopt, std::nullopt}});
}

bool JournalStream::deliverBatch(EventID upTo) {
    auto batch = hub_->withServices([&](store::Store& store, files::Comparer& comparer) {
        return JournalReplay(comparer, store, options_, hub_->scopeOf(folders())).batchAfter(position_, upTo);
    });
    if (!batch) return false;
    position_ = batch->reached;
    deliver(batch->events);
    return true;
}

bool JournalStream::deliverUpTo(EventID upTo) {
    while (running_.load() && raw(position_) < raw(upTo)) {
        if (!deliverBatch(upTo)) return false;
    }
    return true;
}

void JournalStream::replayHistory() {
    if (!running_.load()) return;
    // Joined before the journal is read, so that nothing recorded meanwhile is missed.
    if (!options_.upTo) hub_->join(shared_from_this());
    // Who goes on with a history is told what is recorded before anybody looks at the disk: he may have enough of that.
    const bool isGoingOn = !options_.upTo && options_.begunAt && raw(*options_.begunAt) < raw(options_.since);
    auto reached = options_.upTo ? Result<EventID>(*options_.upTo)
                   : isGoingOn   ? hub_->barrier(folders(), Interest::nothing)
                                 : hub_->barrier(folders(), options_.interest);
    if (!reached) return drop();
    auto possible = hub_->withServices([&](store::Store& store, files::Comparer& comparer) {
        return JournalReplay(comparer, store, options_, {}).canReplayAfter(options_.since);
    });
    if (!possible || !*possible) return drop();
    tellHistory(*reached, isGoingOn ? Look::missing : Look::taken);
}

/// One batch at a time, so that whoever has heard enough can stop it in between.
void JournalStream::tellHistory(EventID upTo, Look look) {
    if (!running_.load()) return;
    if (raw(position_) < raw(upTo)) {
        if (!deliverBatch(upTo)) return drop();
        if (raw(position_) < raw(upTo)) {
            queue_->async([self = shared_from_this(), upTo, look] { self->tellHistory(upTo, look); });
            return;
        }
    }
    if (!running_.load()) return;
    if (look == Look::missing) {
        const auto reached = hub_->barrier(folders(), options_.interest);
        if (!reached) return drop();
        queue_->async([self = shared_from_this(), now = *reached] { self->tellHistory(now, Look::taken); });
        return;
    }
    if (const auto further = recordedMeanwhile()) {
        queue_->async([self = shared_from_this(), upTo = *further, look] { self->tellHistory(upTo, look); });
        return;
    }
    deliver({FileEvent{position_, kEventHistoryDone, std::nullopt, std::nullopt, std::nullopt}});
    if (options_.upTo) return;
    live_.store(true);
    readOn();
}

/// Whoever is told of a change looks at the disk, and what is found then is recorded behind the position that was to be
/// reached. An object that was not told of before has its only record there now, so the history ends behind that one:
/// who begins there would not learn where the object had come from.
std::optional<EventID> JournalStream::recordedMeanwhile() {
    constexpr int kMostRounds = 64;
    if (options_.upTo || rounds_++ == kMostRounds) return std::nullopt;
    const auto last = hub_->withServices(
        [](store::Store& store, files::Comparer&) -> Result<EventID> { return store.lastEventID(); });
    return last && raw(*last) > raw(position_) ? std::optional(*last) : std::nullopt;
}

void JournalStream::recordsArrived() {
    if (!running_.load() || !live_.load() || readingOn_.exchange(true)) return;
    queue_->after(options_.latency, [weak = weak_from_this()] {
        if (auto self = weak.lock()) self->readOn();
    });
}

void JournalStream::readOn() {
    readingOn_.store(false);
    if (!running_.load()) return;
    auto reached = hub_->withServices(
        [&](store::Store& store, files::Comparer&) -> Result<EventID> { return store.lastEventID(); });
    if (reached && !deliverUpTo(*reached)) drop();
}

}  // namespace tarnwell::events
