#pragma once

#include <functional>
#include <memory>

namespace tarnwell::dispatch {

class SerialQueue;

/// Counts work under way; tells when none is left. Any thread may call any operation.
class Group {
public:
    Group();
    ~Group();
    void enter();
    /// One `leave` for each `enter`; one too many stops the process.
    void leave();
    /// Runs `work` on `queue` once the group is empty: at once if it is so now.
    void notify(std::shared_ptr<SerialQueue> queue, std::move_only_function<void()> work);
    /// Blocks until the group is empty.
    void wait();

private:
    struct State;
    std::shared_ptr<State> state_;
};

}  // namespace tarnwell::dispatch
