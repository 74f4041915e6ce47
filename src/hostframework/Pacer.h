#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "platform/dispatch/SerialQueue.h"

namespace tarnwell::hostframework {

/// Turns bursts of signals into few events. Made suspended; after `resume`, the first pending signal leads to one event
/// on the queue when the interval has passed, and signals meanwhile join it. A signal that comes while an event runs
/// leads to another. Signals while suspended are remembered. Any thread may call it.
///
/// Destroying the pacer, also from within its event, ends its events; it does not wait for one that already runs on the
/// queue, so the event block holds what it needs weakly.
class Pacer {
public:
    Pacer(std::string name, std::shared_ptr<dispatch::SerialQueue> queue, std::chrono::nanoseconds minimumInterval);
    ~Pacer();
    const std::string& name() const;
    /// Replaces the block; an event without one does nothing.
    void setEventBlock(std::function<void()> block);
    /// Repeated calls do nothing.
    void resume();
    void signal();

private:
    struct State;
    std::shared_ptr<State> state_;
};

}  // namespace tarnwell::hostframework
