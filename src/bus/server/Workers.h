#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace tarnwell::bus {

/// Runs the requests of many clients on a few threads: those of one client one after the other, in their order, and the
/// clients in turn, so that one who asks a lot delays another by one request for each thread at most.
class Workers {
public:
    /// The requests of one client.
    class Lane;
    using LanePtr = std::shared_ptr<Lane>;

    /// What the work that is running on a lane holds: the next work on it begins when this goes, so whoever keeps it
    /// holds the lane. Any thread may let it go, before the workers go.
    class Turn {
    public:
        Turn() = default;
        Turn(Turn&& other) noexcept
            : workers_(std::exchange(other.workers_, nullptr)),
              lane_(std::move(other.lane_)),
              isParked_(other.isParked_) {}
        Turn& operator=(Turn&& other) noexcept {
            end();
            workers_ = std::exchange(other.workers_, nullptr);
            lane_ = std::move(other.lane_);
            isParked_ = other.isParked_;
            return *this;
        }
        ~Turn() { end(); }
        explicit operator bool() const { return workers_ != nullptr; }
        void end() {
            if (workers_ != nullptr) std::exchange(workers_, nullptr)->goOn(std::move(lane_), isParked_);
        }
        /// It will be kept for long, so it no longer counts among those that may be out.
        void park() {
            if (workers_ != nullptr && !std::exchange(isParked_, true)) workers_->park();
        }

    private:
        friend class Workers;
        Turn(Workers& workers, LanePtr lane) : workers_(&workers), lane_(std::move(lane)) {}
        Workers* workers_ = nullptr;
        LanePtr lane_;
        bool isParked_ = false;
    };
    using Work = std::move_only_function<void(Turn)>;

    /// `mostTurns`: so many turns may be out before no further work begins, so that what was made and could not be
    /// handed on yet does not pile up.
    Workers(std::size_t threads, std::size_t mostTurns);
    /// Runs what was added, and waits for it and for every turn.
    ~Workers();
    Workers(const Workers&) = delete;
    Workers& operator=(const Workers&) = delete;

    static LanePtr makeLane();
    /// Any thread may call it, also from within work.
    void add(const LanePtr& lane, Work work);

private:
    void run();
    bool hasRoom() const { return held_ - parked_ < mostTurns_; }
    void goOn(LanePtr lane, bool wasParked);
    void park();

    const std::size_t mostTurns_;

    std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<LanePtr> turn_;  ///< lanes that have work and of which none is running
    bool isStopping_ = false;
    std::size_t held_ = 0;    ///< lanes whose turn somebody has
    std::size_t parked_ = 0;  ///< of these
    std::vector<std::thread> threads_;
};

}  // namespace tarnwell::bus
