#pragma once

#include "platform/base/Descriptor.h"

namespace tarnwell::service {

/// What a service's main thread waits for: SIGTERM and SIGINT to end, SIGHUP to look at the applications again, and
/// that the connection to the bus has ended. Keeps these signals from ending the process. Make it before any thread is
/// started: threads inherit it.
class SignalQueue {
public:
    enum class Event { end, reload, disconnected };

    SignalQueue();
    /// Any thread.
    void disconnected();
    /// Blocks until there is one. What came several times meanwhile is told once.
    Event wait() const;

private:
    Descriptor signals_, counter_;
};

}  // namespace tarnwell::service
