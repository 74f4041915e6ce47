#pragma once

#include <functional>
#include <memory>
#include <thread>

#include "platform/base/Descriptor.h"

namespace tarnwell::host {

/// Keeps SIGINT and SIGTERM from ending the process, so that whoever waits for something is told of them instead. Make
/// it before any thread is started: threads inherit it.
class InterruptGuard {
public:
    InterruptGuard();
    /// Becomes readable when the process was asked to end; for poll.
    int descriptor() const { return descriptor_.get(); }
    bool wasInterrupted() const;

private:
    Descriptor descriptor_;
};

/// Wakes one thread that waits for one thing.
class Wakeup {
public:
    Wakeup();
    enum class Woken { bySignal, byInterrupt };
    /// The thing has come. Any thread may call it.
    void signal() const;
    /// Blocks until it has come since the last call, or until the process is asked to end.
    Woken wait(const InterruptGuard& interrupts) const;

private:
    Descriptor counter_;
};

/// Tells of the process having been asked to end, once, on a thread of its own. The guard outlives it.
class InterruptWatch {
public:
    InterruptWatch(const InterruptGuard& interrupts, std::function<void()> onInterrupt);
    /// After it returned nothing is told any more.
    ~InterruptWatch();
    InterruptWatch(const InterruptWatch&) = delete;
    InterruptWatch& operator=(const InterruptWatch&) = delete;

private:
    Wakeup end_;
    std::thread thread_;
};

}  // namespace tarnwell::host
