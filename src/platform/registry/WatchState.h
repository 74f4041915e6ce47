#pragma once

#include <cstdint>
#include <mutex>
#include <optional>

#include "platform/base/Descriptor.h"

namespace tarnwell::registry {

/// Whether what a RegistryWatch watches is as it was, so that what was read of it need not be looked at again. Any
/// thread may ask; the watch's own thread says what it reads.
class WatchState {
public:
    /// `queue` is the inotify instance.
    explicit WatchState(Descriptor queue) : queue_(std::move(queue)) {}

    /// As long as the answer is the same number, nothing changed of which the kernel tells. A change whose system call
    /// returned before is no more covered by the number. Nothing where it cannot be known, and while a change is looked
    /// at.
    std::optional<std::uint64_t> current() const;

    int queue() const { return queue_.get(); }
    /// Before the queue is read: what is taken from it is looked at only later.
    void suspend();
    enum class Outcome { nothingChanged, changed };
    /// After what was read was looked at. Incomplete, the kernel does not tell of everything.
    void resume(Outcome outcome, bool isComplete);

private:
    const Descriptor queue_;
    mutable std::mutex mutex_;
    std::uint64_t number_ = 0;
    bool isKnown_ = false;
};

}  // namespace tarnwell::registry
