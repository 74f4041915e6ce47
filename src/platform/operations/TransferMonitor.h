#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>

#include "platform/base/Result.h"

namespace tarnwell::operations {

/// How far a copy is. Totals are known once the source has been looked at as a whole.
struct TransferProgress {
    std::uint64_t bytesDone = 0;
    std::uint64_t itemsDone = 0;
    std::optional<std::uint64_t> bytesTotal, itemsTotal;
};

/// Watches one copy and may cancel it. Any thread may call any operation; the listener is called on the copying thread,
/// at least each 8 MiB, and may cancel.
class TransferMonitor {
public:
    using Listener = std::function<void(const TransferProgress&)>;
    explicit TransferMonitor(Listener listener = {}) : listener_(std::move(listener)) {}

    /// From the next look of the copy on; one that has its name already is not undone.
    void cancel() { cancelled_.store(true, std::memory_order_relaxed); }
    TransferProgress progress() const;

    /// For the copy. ECANCELED with a sentence once it was cancelled.
    Result<void> check() const;
    Result<void> advance(std::uint64_t bytes, std::uint64_t items);
    void setTotals(std::uint64_t bytes, std::uint64_t items);
    /// A copy that begins again counts from there.
    void rewindTo(const TransferProgress& progress);

private:
    static constexpr std::uint64_t kUnknown = ~std::uint64_t{0};
    const Listener listener_;
    std::atomic<bool> cancelled_{false};
    std::atomic<std::uint64_t> bytesDone_{0}, itemsDone_{0}, bytesTotal_{kUnknown}, itemsTotal_{kUnknown};
};

}  // namespace tarnwell::operations
