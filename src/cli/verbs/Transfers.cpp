#include "cli/verbs/Transfers.h"

#include <mutex>

#include "cli/output/Progress.h"
#include "cli/output/Text.h"
#include "cli/verbs/ItemArgument.h"
#include "host/Signals.h"

namespace tarnwell::cli {
namespace {

std::string progressText(const Transfer& transfer, const std::string& text, const session::JobProgress& at) {
    std::string line = transfer.going + " " + toDisplay(text) + ": " + humanSize(at.bytesDone);
    if (at.bytesTotal) line += " of " + humanSize(*at.bytesTotal);
    if (at.itemsTotal && *at.itemsTotal > 1) {
        line += ", " + grouped(at.itemsDone) + " of " + grouped(*at.itemsTotal) + " items";
    }
    return line;
}

/// One line for each text in turn. Progress is told on another thread.
class ProgressLine {
public:
    explicit ProgressLine(const Transfer& transfer) : transfer_(transfer) {}
    void begin(const std::string& text) {
        const std::lock_guard lock(mutex_);
        text_ = &text;
        progress_.emplace();
    }
    void end() {
        const std::lock_guard lock(mutex_);
        progress_.reset();
    }
    void show(const session::JobProgress& at) {
        const std::lock_guard lock(mutex_);
        if (progress_) progress_->show(progressText(transfer_, *text_, at));
    }

private:
    const Transfer& transfer_;
    std::mutex mutex_;
    const std::string* text_ = nullptr;
    std::optional<Progress> progress_;
};

}  // namespace

Outcome transferAll(Invocation& invocation, const Transfer& transfer, const TransferStep& step) {
    // Before the session, whose threads inherit it.
    const host::InterruptGuard interrupts;
    auto session = invocation.session();
    if (!session) return std::unexpected(session.error());
    ItemBatch batch(invocation, transfer.cannot, transfer.done, transfer.texts.size());
    const auto parent = resolveItem(invocation, transfer.toParent, transfer.parent);
    if (!parent) {
        if (!invocation.json()) return std::unexpected(parent.error());
        for (const std::string& text : transfer.texts) batch.addFailure(text, parent.error());
        return std::unexpected(parent.error());
    }
    ProgressLine line(transfer);
    session::JobControl job([&](const session::JobProgress& at) { line.show(at); });
    const host::InterruptWatch watch(interrupts, [&] { job.cancel(); });
    for (const std::string& text : transfer.texts) {
        line.begin(text);
        step(**session, job, batch, text, *parent);
        line.end();
        if (!job.isCancelled()) continue;
        batch.interrupted();
        break;
    }
    return batch.outcome();
}

}  // namespace tarnwell::cli
