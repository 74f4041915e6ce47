#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace tarnwell::bus {

/// Runs the requests of many clients on a few threads: those of one client one after the other, in their order, and the
/// clients in turn, so that one who asks a lot delays another by one request for each thread at most.
class Workers {
public:
    using Work = std::move_only_function<void()>;

    /// The requests of one client.
    class Lane;
    using LanePtr = std::shared_ptr<Lane>;

    explicit Workers(std::size_t threads);
    /// Runs what was added, and waits for it.
    ~Workers();
    Workers(const Workers&) = delete;
    Workers& operator=(const Workers&) = delete;

    static LanePtr makeLane();
    /// Any thread may call it, also from within work.
    void add(const LanePtr& lane, Work work);

private:
    void run();

    std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<LanePtr> turn_;  ///< lanes that have work and of which none is running
    bool isStopping_ = false;
    std::size_t running_ = 0;
    std::vector<std::thread> threads_;
};

}  // namespace tarnwell::bus
