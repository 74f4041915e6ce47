#include "platform/events/EventHub.h"

#include <algorithm>
#include <cerrno>

#include "platform/events/JournalStream.h"

namespace tarnwell::events {

EventHub::EventHub(const Roots& roots, store::Store& store, files::Comparer& comparer,
                   std::shared_ptr<dispatch::ThreadPool> pool, std::chrono::milliseconds pollInterval)
    : roots_(roots),
      store_(store),
      comparer_(comparer),
      pollInterval_(pollInterval),
      pollQueue_(dispatch::SerialQueue::create(std::move(pool), "tarnwell.event-poll")) {}

std::vector<Place> EventHub::placesOf(const std::vector<URL>& folders) const {
    std::vector<Place> places;
    for (const URL& folder : folders) {
        if (auto place = roots_.locate(folder.path())) places.push_back(std::move(*place));
    }
    return places;
}

JournalReplay::Scope EventHub::scopeOf(const std::optional<std::vector<URL>>& folders) const {
    if (!folders) return {{}, true};
    JournalReplay::Scope scope{placesOf(*folders), true};
    for (const auto& root : roots_.all()) {
        const bool isIn = std::any_of(scope.folders.begin(), scope.folders.end(),
                                      [&](const Place& place) { return place.root == root && place.relative.empty(); });
        scope.isEverything = scope.isEverything && isIn;
    }
    return scope;
}

Result<EventID> EventHub::barrier(const std::optional<std::vector<URL>>& folders, Interest interest) {
    files::Detail detail = interest == Interest::departuresOnly ? files::Detail::names : files::Detail::everything;
    return withServices([&](store::Store& store, files::Comparer& comparer) -> Result<EventID> {
        std::vector<Place> places;
        if (isLive()) {
            // What costs next to nothing is done for everybody, so that all see one state.
            if (auto caughtUp = live_->catchUp(); !caughtUp) return failure(caughtUp.error());
            return store.lastEventID();
        }
        if (interest == Interest::nothing) return store.lastEventID();
        if (folders) places = placesOf(*folders);
        // An empty list means all roots to the comparer; folders that are below no root have nothing to compare.
        if (!folders || !places.empty()) {
            if (auto compared = comparer.compare(places, detail); !compared) return failure(compared.error());
        }
        return store.lastEventID();
    });
}

void EventHub::watch(std::unique_ptr<watch::Watcher> watcher) {
    live_ = std::make_unique<LiveIndex>(comparer_, std::move(watcher));
    published_.store(live_.get(), std::memory_order_release);
    pollQueue_->async([weak = weak_from_this()] {
        const auto hub = weak.lock();
        if (!hub) return;
        // A failure leaves the polling, which reports it to whoever asks.
        (void)hub->withServices([&](store::Store&, files::Comparer&) { return hub->live_->begin(); });
    });
}

void EventHub::join(const std::shared_ptr<JournalStream>& stream) {
    std::lock_guard lock(streamsMutex_);
    streams_.push_back(stream);
    if (polling_) return;
    polling_ = true;
    schedulePoll(pollInterval_);
}

void EventHub::leave(const JournalStream* stream) {
    std::lock_guard lock(streamsMutex_);
    std::erase_if(streams_, [&](const std::weak_ptr<JournalStream>& weak) {
        auto strong = weak.lock();
        return strong == nullptr || strong.get() == stream;
    });
}

std::vector<std::shared_ptr<JournalStream>> EventHub::streams() {
    std::vector<std::shared_ptr<JournalStream>> alive;
    std::lock_guard lock(streamsMutex_);
    for (const auto& weak : streams_) {
        if (auto strong = weak.lock()) alive.push_back(std::move(strong));
    }
    return alive;
}

void EventHub::advanced() {
    for (const auto& stream : streams()) stream->recordsArrived();
}

void EventHub::schedulePoll(std::chrono::nanoseconds delay) {
    // Weakly: a hub that nobody needs any more polls no more.
    pollQueue_->after(delay, [weak = weak_from_this()] {
        if (auto hub = weak.lock()) hub->poll();
    });
}

void EventHub::poll() {
    // Only streams that are past their history wait for something; each is compared as closely as it asked for.
    struct Wanted {
        std::vector<URL> folders;
        bool allRoots = false;
    };
    Wanted closely, names;
    for (const auto& stream : streams()) {
        if (!stream->isLive() || isLive()) continue;
        Wanted& wanted = stream->interest() == Interest::everything ? closely : names;
        if (auto its = stream->folders()) {
            wanted.folders.insert(wanted.folders.end(), its->begin(), its->end());
        } else {
            wanted.allRoots = true;
        }
    }
    auto began = std::chrono::steady_clock::now();
    auto compare = [&](Wanted& wanted, Interest interest) {
        if (wanted.folders.empty() && !wanted.allRoots) return;
        // A failed comparison is tried again with the next poll; requests report it to whoever asks.
        (void)barrier(wanted.allRoots ? std::nullopt : std::optional(std::move(wanted.folders)), interest);
    };
    compare(closely, Interest::everything);
    compare(names, Interest::departuresOnly);
    auto took = std::chrono::steady_clock::now() - began;

    {
        std::shared_lock openLock(openMutex_);
        if (!open_) return;
    }
    std::lock_guard lock(streamsMutex_);
    if (streams_.empty() || isLive()) {
        polling_ = false;
        return;
    }
    schedulePoll(std::max<std::chrono::nanoseconds>(pollInterval_, took * 10));
}

void EventHub::close() {
    {
        std::unique_lock lock(openMutex_);
        open_ = false;
    }
    // Its thread needs no lock of the hub, and nobody else comes to it any more.
    if (live_) live_->end();
}

}  // namespace tarnwell::events
