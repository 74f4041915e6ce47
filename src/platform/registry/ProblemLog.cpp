#include "platform/registry/ProblemLog.h"

namespace tarnwell::registry {
namespace {

constexpr std::size_t kMaxReportedThings = 16'384;

}  // namespace

void ProblemLog::report(const std::string& thing, const std::string& message) {
    {
        std::lock_guard lock(mutex_);
        if (reported_.size() >= kMaxReportedThings) reported_.clear();
        std::string& last = reported_[thing];
        if (last == message) return;
        last = message;
    }
    log_.write(log::Level::debug, "[DEBUG] " + message);
}

void ProblemLog::settle(const std::string& thing) {
    std::lock_guard lock(mutex_);
    reported_.erase(thing);
}

}  // namespace tarnwell::registry
