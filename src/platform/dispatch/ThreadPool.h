#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>

namespace tarnwell::dispatch {

/// The threads behind all serial queues of one program. Adds a thread when work arrives and no thread is idle, and
/// lets threads go that were idle for `idleTime`. Any thread may call any operation.
///
/// Every queue keeps its pool, and so does work pending on a queue or given to `after`: the pool goes with the last of
/// them. Destroying it waits for running work (but not for work that is itself destroying it) and drops what was given
/// to `run` and `runAfter` and never started.
class ThreadPool {
public:
    static std::shared_ptr<ThreadPool> create(std::chrono::nanoseconds idleTime = std::chrono::seconds(10));
    ~ThreadPool();
    ThreadPool(const ThreadPool&) = delete;
    ThreadPool& operator=(const ThreadPool&) = delete;

    /// Runs `work` on some thread, soon.
    void run(std::move_only_function<void()> work);
    /// Runs `work` on some thread when `delay` has passed.
    void runAfter(std::chrono::nanoseconds delay, std::move_only_function<void()> work);
    /// Blocks until no work runs and none waits to be run; work that is not due yet does not count. Not from its work.
    void waitUntilQuiet() const;
    /// Threads that wait or work now, the timer's included.
    std::size_t threadCount() const;

private:
    friend class SerialQueue;
    struct Impl;
    /// Runs `work` on the timer's own thread when `delay` has passed, earliest deadline first and equal ones in the
    /// order given. It must neither block nor run code of others: it hands over.
    void handOverAfter(std::chrono::nanoseconds delay, std::move_only_function<void()> work);
    explicit ThreadPool(std::shared_ptr<Impl> impl);
    std::shared_ptr<Impl> impl_;
};

}  // namespace tarnwell::dispatch
