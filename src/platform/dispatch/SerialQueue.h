#pragma once

#include <chrono>
#include <concepts>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>

namespace tarnwell::dispatch {

class ThreadPool;

using Work = std::move_only_function<void()>;

/// Runs the work given to it one piece at a time, in the order given. Any thread may call any operation.
///
/// Queues share the threads of one ThreadPool, which adds a thread whenever a queue has work and none is idle, so
/// that queues waiting for queues never starve. Work that is pending when the last reference goes still runs.
class SerialQueue : public std::enable_shared_from_this<SerialQueue> {
public:
    static std::shared_ptr<SerialQueue> create(std::shared_ptr<ThreadPool> pool, std::string label);
    ~SerialQueue();
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    const std::string& label() const { return label_; }

    /// Adds work and returns at once.
    void async(Work work);

    /// Adds work like `async`; if nobody is at the queue's work, the calling thread does all of it, also what it adds,
    /// before this returns. For a caller that waits for the work anyway: no other thread has to be woken for it.
    void asyncAndHelp(Work work);

    /// Adds work once `delay` from now has passed; work with an earlier deadline comes first, equal deadlines in the
    /// order given. Keeps the queue's work alive until then.
    void after(std::chrono::nanoseconds delay, Work work);

    /// Runs `work` on the calling thread after all work before it, at once on an idle queue, and returns its result.
    /// Calling it on the queue itself would never return, so it stops the process with a message.
    template <std::invocable F>
    std::invoke_result_t<F> sync(F&& work) {
        if constexpr (std::is_void_v<std::invoke_result_t<F>>) {
            syncErased([&] { work(); });
        } else {
            std::optional<std::invoke_result_t<F>> result;
            syncErased([&] { result.emplace(work()); });
            return std::move(*result);
        }
    }

    /// True while the calling thread runs work of this queue, a nested `sync` of another queue included.
    bool isCurrent() const;

    /// Stops the process unless `isCurrent`.
    void assertCurrent() const;

private:
    struct State;
    SerialQueue(std::shared_ptr<ThreadPool> pool, std::string label);
    void syncErased(const std::function<void()>& work);

    std::string label_;
    std::shared_ptr<State> state_;
};

}  // namespace tarnwell::dispatch
