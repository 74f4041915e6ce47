#include "platform/operations/TransferMonitor.h"

#include <cerrno>

namespace tarnwell::operations {

TransferProgress TransferMonitor::progress() const {
    const auto total = [](const std::atomic<std::uint64_t>& value) {
        const std::uint64_t known = value.load(std::memory_order_relaxed);
        return known == kUnknown ? std::nullopt : std::optional(known);
    };
    return {bytesDone_.load(std::memory_order_relaxed), itemsDone_.load(std::memory_order_relaxed), total(bytesTotal_),
            total(itemsTotal_)};
}

Result<void> TransferMonitor::check() const {
    if (!cancelled_.load(std::memory_order_relaxed)) return {};
    return failure(posixError(ECANCELED, "it was cancelled"));
}

Result<void> TransferMonitor::advance(std::uint64_t bytes, std::uint64_t items) {
    bytesDone_.fetch_add(bytes, std::memory_order_relaxed);
    itemsDone_.fetch_add(items, std::memory_order_relaxed);
    if (listener_) listener_(progress());
    return check();
}

void TransferMonitor::setTotals(std::uint64_t bytes, std::uint64_t items) {
    bytesTotal_.store(bytes, std::memory_order_relaxed);
    itemsTotal_.store(items, std::memory_order_relaxed);
}

void TransferMonitor::rewindTo(const TransferProgress& progress) {
    bytesDone_.store(progress.bytesDone, std::memory_order_relaxed);
    itemsDone_.store(progress.itemsDone, std::memory_order_relaxed);
}

}  // namespace tarnwell::operations
