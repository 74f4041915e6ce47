#include "bus/server/Workers.h"

namespace tarnwell::bus {

/// Guarded by the mutex of the workers.
class Workers::Lane {
public:
    std::deque<Work> work;
    bool isTaken = false;  ///< in the turn, or held
};

Workers::Workers(std::size_t threads, std::size_t mostTurns) : mostTurns_(mostTurns) {
    for (std::size_t i = 0; i < threads; ++i) threads_.emplace_back([this] { run(); });
}

Workers::~Workers() {
    {
        const std::lock_guard lock(mutex_);
        isStopping_ = true;
    }
    ready_.notify_all();
    for (auto& thread : threads_) thread.join();
}

Workers::LanePtr Workers::makeLane() { return std::make_shared<Lane>(); }

void Workers::add(const LanePtr& lane, Work work) {
    {
        const std::lock_guard lock(mutex_);
        lane->work.push_back(std::move(work));
        if (lane->isTaken) return;
        lane->isTaken = true;
        turn_.push_back(lane);
    }
    ready_.notify_one();
}

void Workers::run() {
    std::unique_lock lock(mutex_);
    for (;;) {
        // Whoever has a turn may add more.
        ready_.wait(lock, [&] { return turn_.empty() ? isStopping_ && held_ == 0 : hasRoom(); });
        if (turn_.empty()) return;
        LanePtr lane = std::move(turn_.front());
        turn_.pop_front();
        Work work = std::move(lane->work.front());
        lane->work.pop_front();
        ++held_;
        lock.unlock();
        work(Turn(*this, std::move(lane)));
        work = {};
        lock.lock();
    }
}

void Workers::goOn(LanePtr lane, bool wasParked) {
    const std::lock_guard lock(mutex_);
    --held_;
    if (wasParked) --parked_;
    if (lane->work.empty()) {
        lane->isTaken = false;
    } else {
        turn_.push_back(std::move(lane));
    }
    if (!turn_.empty()) ready_.notify_one();
    // Within the lock: the last thread may end as soon as it is free.
    if (isStopping_) ready_.notify_all();
}

void Workers::park() {
    const std::lock_guard lock(mutex_);
    ++parked_;
    ready_.notify_one();
}

}  // namespace tarnwell::bus
