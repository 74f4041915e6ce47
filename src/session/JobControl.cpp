#include "session/JobControl.h"

namespace tarnwell::session {

void JobControl::cancel() {
    const std::lock_guard lock(mutex_);
    if (cancelled_) return;
    cancelled_ = true;
    if (canceller_) canceller_();
}

bool JobControl::isCancelled() const {
    const std::lock_guard lock(mutex_);
    return cancelled_;
}

void JobControl::report(const JobProgress& progress) const {
    if (listener_) listener_(progress);
}

void JobControl::setCanceller(std::function<void()> canceller) {
    const std::lock_guard lock(mutex_);
    canceller_ = std::move(canceller);
    if (cancelled_ && canceller_) canceller_();
}

}  // namespace tarnwell::session
