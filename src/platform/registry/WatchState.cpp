#include "platform/registry/WatchState.h"

#include <sys/ioctl.h>

namespace tarnwell::registry {

std::optional<std::uint64_t> WatchState::current() const {
    // Nobody may take an event out of the queue between the two looks.
    const std::lock_guard lock(mutex_);
    int waiting = 0;
    if (!isKnown_ || ::ioctl(queue_.get(), FIONREAD, &waiting) != 0 || waiting != 0) return std::nullopt;
    return number_;
}

void WatchState::suspend() {
    const std::lock_guard lock(mutex_);
    isKnown_ = false;
}

void WatchState::resume(Outcome outcome, bool isComplete) {
    const std::lock_guard lock(mutex_);
    if (outcome == Outcome::changed) ++number_;
    isKnown_ = isComplete;
}

}  // namespace tarnwell::registry
