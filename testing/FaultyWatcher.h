#pragma once

#include <atomic>
#include <limits>
#include <memory>

#include "platform/watch/Watcher.h"

namespace tarnwell::testing {

/// A real watcher with the faults that a kernel has: a limit of watches, and a queue that overflows.
class FaultyWatcher : public watch::Watcher {
public:
    explicit FaultyWatcher(std::unique_ptr<watch::Watcher> real) : real_(std::move(real)) {}

    /// From now on no more than that many directories are watched.
    void limitWatches(std::size_t most) { mostWatches_ = most; }
    /// The next drain loses what it reads.
    void overflowOnce() { overflows_ = true; }

    Result<void> watch(int directory, FileID number) override;
    void unwatch(FileID number) override { real_->unwatch(number); }
    bool isWatched(FileID number) const override { return real_->isWatched(number); }
    std::size_t watches() const override { return real_->watches(); }
    std::vector<watch::SourceStatus> sources() const override { return real_->sources(); }
    Result<watch::Drained> drain() override;
    int descriptor() const override { return real_->descriptor(); }

private:
    const std::unique_ptr<watch::Watcher> real_;
    std::atomic<std::size_t> mostWatches_{std::numeric_limits<std::size_t>::max()};
    std::atomic<bool> overflows_{false};
};

}  // namespace tarnwell::testing
