#include "cli/verbs/Transfers.h"

#include "cli/output/Progress.h"
#include "cli/output/Text.h"
#include "cli/verbs/ItemArgument.h"

namespace tarnwell::cli {
namespace {

std::string progressText(const Transfer& transfer, const std::string& text, const operations::TransferProgress& at) {
    std::string line = transfer.going + " " + toDisplay(text) + ": " + humanSize(at.bytesDone);
    if (at.bytesTotal) line += " of " + humanSize(*at.bytesTotal);
    if (at.itemsTotal && *at.itemsTotal > 1) {
        line += ", " + grouped(at.itemsDone) + " of " + grouped(*at.itemsTotal) + " items";
    }
    return line;
}

}  // namespace

Outcome transferAll(Invocation& invocation, const Transfer& transfer, const TransferStep& step) {
    // Before the context, whose threads inherit it.
    const host::InterruptGuard interrupts;
    auto ready = invocation.context();
    if (!ready) return std::unexpected(ready.error());
    host::ItemOperations operations(**ready);
    operations.cancelOn(interrupts);
    ItemBatch batch(invocation, **ready, transfer.cannot, transfer.done, transfer.texts.size());
    const auto parent = resolveItem(invocation, transfer.toParent, transfer.parent);
    if (!parent) {
        if (!invocation.json()) return std::unexpected(parent.error());
        for (const std::string& text : transfer.texts) batch.addFailure(text, parent.error());
        return std::unexpected(parent.error());
    }
    for (const std::string& text : transfer.texts) {
        // The listener is done with when the step is.
        Progress progress;
        operations.reportTo(
            [&](const operations::TransferProgress& at) { progress.show(progressText(transfer, text, at)); });
        step(operations, batch, text, *parent);
        operations.reportTo({});
        if (!operations.wasInterrupted()) continue;
        batch.interrupted();
        break;
    }
    return batch.outcome();
}

}  // namespace tarnwell::cli
