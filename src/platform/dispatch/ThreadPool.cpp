#include "platform/dispatch/ThreadPool.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <pthread.h>

#include "platform/base/Result.h"

namespace tarnwell::dispatch {
namespace {

using Clock = std::chrono::steady_clock;
using Work = std::move_only_function<void()>;

/// Longer delays would overflow the clock; nothing waits for them anyway.
constexpr std::chrono::nanoseconds kLongestDelay = std::chrono::hours(24 * 365);

}  // namespace

/// Every thread holds the Impl, so that it outlives a pool that one of its own threads destroys.
struct ThreadPool::Impl : std::enable_shared_from_this<Impl> {
    struct Timed {
        Work work;
        bool onTimerThread;
    };

    explicit Impl(std::chrono::nanoseconds idleThreadTime) : idleTime(idleThreadTime) {}

    const std::chrono::nanoseconds idleTime;
    mutable std::mutex mutex;
    std::condition_variable workArrived;
    std::condition_variable timersChanged;
    mutable std::condition_variable becameQuiet;
    bool stopping = false;

    std::deque<Work> ready;
    /// Threads that wait for work, those already notified included. Never fewer than `ready` holds, except while a
    /// thread cannot be had.
    std::size_t idle = 0;
    std::map<std::thread::id, std::thread> workers;
    /// Threads that left after idling and are still to be joined; the next one that leaves joins them.
    std::vector<std::thread> leavers;

    std::multimap<Clock::time_point, Timed> timers;
    std::thread timerThread;

    bool isQuiet() const { return ready.empty() && idle == workers.size(); }
    void addReady(std::unique_lock<std::mutex>& lock, Work work);
    void startWorker();
    void work();
    void addTimer(std::chrono::nanoseconds delay, Work work, bool onTimerThread);
    void runTimers();
    void stop();
};

void ThreadPool::Impl::startWorker() {
    try {
        std::thread thread([self = shared_from_this()] { self->work(); });
        auto id = thread.get_id();
        workers.emplace(id, std::move(thread));
    } catch (const std::system_error&) {
        // The work stays queued for the next thread that is done with its own; with no thread at all nothing would run.
        if (workers.empty()) fatal("can't start a thread for work");
    }
}

void ThreadPool::Impl::addReady(std::unique_lock<std::mutex>& lock, Work work) {
    TARNWELL_CHECK(lock.owns_lock());
    ready.push_back(std::move(work));
    if (idle >= ready.size())
        workArrived.notify_one();
    else
        startWorker();
}

void ThreadPool::Impl::work() {
    ::pthread_setname_np(::pthread_self(), "tarnwell-work");
    std::unique_lock lock(mutex);
    while (!stopping) {
        if (!ready.empty()) {
            Work next = std::move(ready.front());
            ready.pop_front();
            lock.unlock();
            next();
            next = nullptr;  // what it holds may run code of its own when it goes: never under the lock
            lock.lock();
            continue;
        }
        ++idle;
        if (isQuiet()) becameQuiet.notify_all();
        bool awaited = workArrived.wait_for(lock, idleTime, [this] { return stopping || !ready.empty(); });
        --idle;
        if (awaited) continue;

        auto self = workers.find(std::this_thread::get_id());
        std::vector<std::thread> earlier = std::exchange(leavers, {});
        leavers.push_back(std::move(self->second));
        workers.erase(self);
        lock.unlock();
        for (std::thread& thread : earlier) thread.join();
        return;
    }
}

void ThreadPool::Impl::addTimer(std::chrono::nanoseconds delay, Work work, bool onTimerThread) {
    auto due = Clock::now() + std::clamp(delay, std::chrono::nanoseconds(0), kLongestDelay);
    std::lock_guard lock(mutex);
    if (stopping) return;
    timers.emplace(due, Timed{std::move(work), onTimerThread});
    timersChanged.notify_one();
    if (timerThread.joinable()) return;
    try {
        timerThread = std::thread([self = shared_from_this()] { self->runTimers(); });
    } catch (const std::system_error&) {
        fatal("can't start a thread for timers");
    }
}

void ThreadPool::Impl::runTimers() {
    ::pthread_setname_np(::pthread_self(), "tarnwell-timer");
    std::unique_lock lock(mutex);
    while (!stopping) {
        if (timers.empty()) {
            timersChanged.wait(lock);
            continue;
        }
        auto first = timers.begin();
        auto due = first->first;
        if (Clock::now() < due) {
            timersChanged.wait_until(lock, due);
            continue;
        }
        Timed next = std::move(first->second);
        timers.erase(first);
        if (!next.onTimerThread) {
            addReady(lock, std::move(next.work));
            continue;
        }
        lock.unlock();
        next.work();
        next.work = nullptr;
        lock.lock();
    }
}

void ThreadPool::Impl::stop() {
    std::vector<std::thread> threads;
    std::deque<Work> neverStarted;
    std::multimap<Clock::time_point, Timed> neverDue;
    {
        std::lock_guard lock(mutex);
        stopping = true;
        for (auto& [id, thread] : workers) threads.push_back(std::move(thread));
        for (std::thread& thread : leavers) threads.push_back(std::move(thread));
        if (timerThread.joinable()) threads.push_back(std::move(timerThread));
        workers.clear();
        leavers.clear();
        neverStarted.swap(ready);
        neverDue.swap(timers);
        workArrived.notify_all();
        timersChanged.notify_all();
    }
    for (std::thread& thread : threads) {
        if (thread.get_id() == std::this_thread::get_id())
            thread.detach();  // it destroys the pool from within its work, and leaves when that work is done
        else
            thread.join();
    }
}

ThreadPool::ThreadPool(std::shared_ptr<Impl> impl) : impl_(std::move(impl)) {}

ThreadPool::~ThreadPool() { impl_->stop(); }

std::shared_ptr<ThreadPool> ThreadPool::create(std::chrono::nanoseconds idleTime) {
    return std::shared_ptr<ThreadPool>(new ThreadPool(std::make_shared<Impl>(idleTime)));
}

void ThreadPool::run(std::move_only_function<void()> work) {
    std::unique_lock lock(impl_->mutex);
    if (!impl_->stopping) impl_->addReady(lock, std::move(work));
}

void ThreadPool::runAfter(std::chrono::nanoseconds delay, std::move_only_function<void()> work) {
    impl_->addTimer(delay, std::move(work), false);
}

void ThreadPool::handOverAfter(std::chrono::nanoseconds delay, std::move_only_function<void()> work) {
    impl_->addTimer(delay, std::move(work), true);
}

void ThreadPool::waitUntilQuiet() const {
    std::unique_lock lock(impl_->mutex);
    impl_->becameQuiet.wait(lock, [this] { return impl_->isQuiet(); });
}

std::size_t ThreadPool::threadCount() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->workers.size() + (impl_->timerThread.joinable() ? 1 : 0);
}

}  // namespace tarnwell::dispatch
