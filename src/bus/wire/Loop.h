#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "platform/base/Result.h"

struct sd_bus;

namespace tarnwell::bus {

/// One connection to the session bus and the thread that it belongs to.
class Loop {
public:
    /// Runs on the loop's thread; without a connection (nullptr) when that has ended.
    using Task = std::move_only_function<void(sd_bus* connection)>;

    /// Connects to the bus of that D-Bus address; an empty one stands for that of DBUS_SESSION_BUS_ADDRESS, else of the
    /// runtime folder. `begin` sets up what the connection answers, on the calling thread. Nothing is read from it, and
    /// nothing of what is posted is run, before `start`. Fails with a POSIX error.
    static Result<std::unique_ptr<Loop>> connect(const std::string& address,
                                                 const std::function<Result<void>(sd_bus*)>& begin,
                                                 std::function<void()> onEnd = {});
    /// Runs what was posted, sends what is to be sent, and ends the connection. Not on the loop's thread.
    ~Loop();
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    /// Once. Whoever is called back may need what holds the loop, so that comes first.
    void start();
    /// Any thread may call it.
    void post(Task task);
    /// Not before so much time has gone by. On the loop's thread. What is not due when the loop ends is dropped.
    void postLater(std::chrono::milliseconds pause, Task task);
    /// Called on the loop's thread whenever messages were read or written, and without a connection when it has ended.
    /// Before `start`.
    void afterMessages(std::function<void(sd_bus*)> handler);
    bool isCurrent() const;

private:
    struct State;
    explicit Loop(std::unique_ptr<State> state);
    std::unique_ptr<State> state_;
};

}  // namespace tarnwell::bus
