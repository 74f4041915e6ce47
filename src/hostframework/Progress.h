#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

namespace tarnwell::hostframework {

/// How much of a request is done. Any thread may ask and tell.
class Progress {
public:
    explicit Progress(std::int64_t totalUnitCount) : total_(totalUnitCount) {}
    std::int64_t totalUnitCount() const { return total_; }
    std::int64_t completedUnitCount() const { return completed_; }
    bool isFinished() const { return completed_ >= total_; }
    void completeUnit() { ++completed_; }

private:
    const std::int64_t total_;
    std::atomic<std::int64_t> completed_ = 0;
};

using ProgressPtr = std::shared_ptr<Progress>;

}  // namespace tarnwell::hostframework
