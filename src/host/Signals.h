#pragma once

#include <functional>
#include <memory>
#include <thread>

#include "host/HostProviderManager.h"
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
    /// Blocks until then, or until the process is asked to end.
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

/// Wakes a thread when the provider says that something changed, without waking it for anything else.
class ChangeSignal {
public:
    explicit ChangeSignal(HostProviderManager& manager);
    ~ChangeSignal();
    ChangeSignal(const ChangeSignal&) = delete;
    ChangeSignal& operator=(const ChangeSignal&) = delete;

    enum class Woken { byChange, byInterrupt };
    /// Blocks until a container was signalled since the last call, or the process was asked to end.
    Woken wait(const InterruptGuard& interrupts);

private:
    HostProviderManager& manager_;
    std::shared_ptr<Descriptor> counter_;
    HostProviderManager::HandlerID handler_;
};

}  // namespace tarnwell::host
