#include "platform/events/LiveIndex.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "platform/filesystem/Beneath.h"

namespace tarnwell::events {
namespace {

/// Hints are left to gather for so long, so that what a program does in one go is looked at in one go.
constexpr int kGatheringMilliseconds = 10;
/// When nothing has been heard of for so long, nobody is at it for the moment.
constexpr int kQuietMilliseconds = 50;
/// From one look at the folders that cannot be watched to the next, at least.
constexpr std::chrono::milliseconds kPollInterval{2000};
/// Folders that move while they are looked for are looked for so often, now and with the next hints.
constexpr int kMostAttempts = 4;
constexpr int kMostCarriedRounds = 5;
/// After a failure the next try waits.
constexpr int kRetryMilliseconds = 1000;

}  // namespace

LiveIndex::LiveIndex(files::Comparer& comparer, std::unique_ptr<watch::Watcher> watcher)
    : comparer_(comparer), watcher_(std::move(watcher)), wakeUp_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

LiveIndex::~LiveIndex() { end(); }

Result<void> LiveIndex::begin() {
    const std::lock_guard applying(applyMutex_);
    if (live_) return {};
    comparer_.setWatch(this);
    if (auto compared = comparer_.compare({}, files::Detail::everything); !compared) {
        comparer_.setWatch(nullptr);
        return compared;
    }
    std::uint64_t formerEnd = 0;
    (void)!read(wakeUp_.get(), &formerEnd, sizeof formerEnd);
    live_.store(true);
    thread_ = std::thread([this] { run(); });
    return {};
}

void LiveIndex::end() {
    live_.store(false);
    comparer_.setWatch(nullptr);
    wakeUp();
    if (thread_.joinable()) thread_.join();
}

void LiveIndex::wakeUp() {
    const std::uint64_t one = 1;
    (void)!write(wakeUp_.get(), &one, sizeof one);
}

void LiveIndex::run() {
    std::array<pollfd, 2> waited{{{watcher_->descriptor(), POLLIN, 0}, {wakeUp_.get(), POLLIN, 0}}};
    // Ends early when it is woken. False when that was to end.
    const auto rest = [&](int milliseconds) {
        std::uint64_t woken = 0;
        if (poll(&waited[1], 1, milliseconds) > 0) (void)!read(wakeUp_.get(), &woken, sizeof woken);
        return live_.load();
    };
    auto took = std::chrono::milliseconds(0);
    while (live_) {
        // What is only polled may take a tenth of the time.
        const bool polls = pollsNames_.load() || !isComplete();
        const int longest = !polls ? -1 : static_cast<int>(std::max(kPollInterval, took * 10).count());
        const int woken = poll(waited.data(), waited.size(), longest);
        if (woken < 0 && errno != EINTR) return;
        const bool looks = woken == 0 || waited[0].revents != 0;
        if (!rest(looks ? kGatheringMilliseconds : 0)) return;
        if (looks) {
            const auto began = std::chrono::steady_clock::now();
            if (!look() && !rest(kRetryMilliseconds)) return;
            took = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - began);
        }
        if (poll(waited.data(), waited.size(), kQuietMilliseconds) == 0) comparer_.tidyStore();
    }
}

Result<void> LiveIndex::catchUp() {
    auto looked = look();
    // Its thread, which heard of nothing then, waits for a quiet moment.
    if (comparer_.isStoreUntidy()) wakeUp();
    return looked;
}

Result<void> LiveIndex::look() {
    const std::lock_guard applying(applyMutex_);
    auto applied = apply();
    if (!applied) knowsNothing_ = true;
    lastApplied_ = std::chrono::steady_clock::now();
    return applied;
}

Result<void> LiveIndex::apply() {
    if (std::chrono::steady_clock::now() - lastApplied_ > files::Comparer::kSavingTime) {
        // Whatever is gone was so at that time already, and nothing has been heard of it since.
        if (auto purged = comparer_.purgeGone(); !purged) return purged;
    }
    if (auto compared = comparer_.compareNewRoots(); !compared) return compared;
    Pending pending = std::exchange(carried_, {});
    for (int attempt = 0;; ++attempt) {
        if (!takeHints(pending)) knowsNothing_ = true;
        if (knowsNothing_) {
            rewatch_.store(true);
            auto compared = comparer_.compare({}, files::Detail::everything);
            rewatch_.store(false);
            if (!compared) return compared;
            knowsNothing_ = false;
            pending.clear();
            carried_.clear();
            // What happened while it ran has been hinted at again.
            if (attempt == 0) continue;
        }
        addPolled(pending);
        if (pending.empty() && !comparer_.hasUnread()) return {};
        std::vector<files::HintedFolder> hinted;
        hinted.reserve(pending.size());
        for (auto& [folder, one] : pending) hinted.push_back(std::move(one));
        pending.clear();
        auto left = comparer_.compareHinted(std::move(hinted));
        if (!left) return failure(left.error());
        if (left->empty() && !comparer_.hasUnread()) {
            carriedRounds_ = 0;
            return {};
        }
        // They moved. The hint of that came meanwhile, or is to be had in a moment: they go on moving.
        if (attempt == kMostAttempts) {
            for (auto& one : *left) carried_.insert_or_assign(one.folder, std::move(one));
            if (++carriedRounds_ <= kMostCarriedRounds) return {};
            // What is not found for long is nowhere that the index leads to.
            carriedRounds_ = 0;
            comparer_.forgetUnread();
            knowsNothing_ = true;
            return {};
        }
        if (attempt > 0 && !left->empty()) {
            if (auto compared = comparer_.compare({}, files::Detail::names); !compared) return compared;
        }
        for (auto& one : *left) pending.insert_or_assign(one.folder, std::move(one));
    }
}

/// False when hints were lost.
bool LiveIndex::takeHints(Pending& pending) {
    auto drained = watcher_->drain();
    if (!drained) return false;
    events_ += drained->events;
    for (watch::Hint& hint : drained->hints) {
        files::HintedFolder& hinted =
            pending.try_emplace(hint.directory, files::HintedFolder{hint.directory, false, {}}).first->second;
        // Without a name it is the folder itself, which is looked at in any case.
        if (hint.name.empty()) continue;
        bool& isNamesChange = hinted.names.try_emplace(std::move(hint.name), false).first->second;
        isNamesChange = isNamesChange || hint.namesChanged;
    }
    for (const FileID folder : drained->unwatched) {
        pending.try_emplace(folder, files::HintedFolder{folder, false, {}}).first->second.everything = true;
    }
    if (drained->overflowed) ++overflows_;
    return !drained->overflowed;
}

void LiveIndex::addPolled(Pending& pending) {
    auto names = comparer_.namedElsewhere();
    pollsNames_.store(!names.empty());
    for (auto& [folder, name] : names) {
        pending.try_emplace(folder, files::HintedFolder{folder, false, {}})
            .first->second.names.try_emplace(std::move(name), false);
    }
    const std::lock_guard lock(mutex_);
    for (const FileID folder : polled_) {
        pending.try_emplace(folder, files::HintedFolder{folder, false, {}}).first->second.everything = true;
    }
}

void LiveIndex::watch(int handle, FileID folder) {
    const bool isTold = watcher_->watch(handle, folder) && !filesystem::isChangedElsewhere(handle);
    const std::lock_guard lock(mutex_);
    if (isTold) {
        polled_.erase(folder);
    } else {
        polled_.insert(folder);
    }
}

bool LiveIndex::isComplete() const {
    const std::lock_guard lock(mutex_);
    return polled_.empty();
}

void LiveIndex::forget(FileID folder) {
    watcher_->unwatch(folder);
    const std::lock_guard lock(mutex_);
    polled_.erase(folder);
}

LiveIndex::Status LiveIndex::status() const {
    Status status{watcher_->sources(), 0, overflows_.load(), events_.load()};
    const std::lock_guard lock(mutex_);
    status.polledFolders = polled_.size();
    return status;
}

}  // namespace tarnwell::events
