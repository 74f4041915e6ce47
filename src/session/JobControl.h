#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>

namespace tarnwell::session {

/// How far an operation is. Totals are known once the source has been looked at as a whole.
struct JobProgress {
    std::uint64_t index = 0;  ///< of the item that is under way, among those that were asked for
    std::uint64_t bytesDone = 0, itemsDone = 0;
    std::optional<std::uint64_t> bytesTotal, itemsTotal;
    friend bool operator==(const JobProgress&, const JobProgress&) = default;
};

/// Watches one operation that may take long, and may cancel it: what is done by then stays done, what is under way is
/// taken back as far as it can be, and the rest is not begun. Any thread may call anything; it outlives the operation.
class JobControl {
public:
    using Listener = std::function<void(const JobProgress&)>;
    /// The listener is called on a thread of the host's and may cancel.
    explicit JobControl(Listener listener = {}) : listener_(std::move(listener)) {}
    JobControl(const JobControl&) = delete;
    JobControl& operator=(const JobControl&) = delete;

    void cancel();
    bool isCancelled() const;

    /// For who does the work.
    void report(const JobProgress& progress) const;
    /// What cancels the step that is under way; called at once where the job was cancelled before. An empty one ends
    /// the step: after it returned, the last one is not called any more.
    void setCanceller(std::function<void()> canceller);

private:
    const Listener listener_;
    mutable std::mutex mutex_;
    bool cancelled_ = false;
    std::function<void()> canceller_;
};

}  // namespace tarnwell::session
