#include "bus/server/Workers.h"

namespace tarnwell::bus {

/// Guarded by the mutex of the workers.
class Workers::Lane {
public:
    std::deque<Work> work;
    bool isTaken = false;  ///< in the turn, or running
};

Workers::Workers(std::size_t threads) {
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
        // What is running may add more.
        ready_.wait(lock, [&] { return !turn_.empty() || (isStopping_ && running_ == 0); });
        if (turn_.empty()) return;
        const LanePtr lane = std::move(turn_.front());
        turn_.pop_front();
        Work work = std::move(lane->work.front());
        lane->work.pop_front();
        ++running_;
        lock.unlock();
        work();
        work = {};
        lock.lock();
        --running_;
        if (lane->work.empty()) {
            lane->isTaken = false;
        } else {
            turn_.push_back(lane);
            ready_.notify_one();
        }
        if (isStopping_) ready_.notify_all();
    }
}

}  // namespace tarnwell::bus
