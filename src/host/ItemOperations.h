#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/Guards.h"
#include "host/ProgramContext.h"
#include "host/Signals.h"
#include "platform/operations/TransferMonitor.h"

namespace tarnwell::host {

/// What became of what was too old in the trashes, by real paths.
struct CleanedTrash {
    std::vector<std::string> removed;
    std::vector<std::string> left;  ///< could not be removed; the log says why
};

/// What a person asks of one item: the host's guards, then the provider's operation, waited for. The context outlives
/// it. Failures are the guards', the provider's and the file operations'; of all but "no such item" the error's message
/// says why.
class ItemOperations {
public:
    using Outcome = Result<hostframework::ProviderItemPtr>;
    using Identifier = hostframework::ItemIdentifier;
    using Listener = operations::TransferMonitor::Listener;

    explicit ItemOperations(ProgramContext& context)
        : context_(context), guards_(context.provider(), context.roots()) {}

    /// For operations that may take long: when the process is asked to end they are cancelled, and end with ECANCELED.
    /// The guard outlives the operations.
    void cancelOn(const InterruptGuard& interrupts) { interrupts_ = &interrupts; }
    /// True once they were. Whoever does several things stops then.
    bool wasInterrupted() const { return interrupted_; }
    /// Told, on a thread of the host's, how far a copy is.
    void reportTo(Listener listener) { listener_ = std::move(listener); }

    /// A file or folder anywhere, by its path as a person gives it.
    Outcome import(const std::string& path, const Identifier& parent);
    Outcome makeFolder(const std::string& name, const Identifier& parent);
    Outcome rename(const Identifier& item, const std::string& name);
    Outcome move(const Identifier& item, const Identifier& parent, const std::optional<std::string>& name);
    Outcome trash(const Identifier& item);
    /// To the parent, else to where it came from, as far as the item or else the store remembers it.
    Outcome restore(const Identifier& item, const std::optional<Identifier>& parent);
    /// The real path that it had.
    Result<std::string> remove(const Identifier& item);
    /// Fails where an entry could not be looked at.
    Result<CleanedTrash> cleanTrash(Date olderThan);

    Outcome setTags(const Identifier& item, const std::vector<std::string>& labels);
    Outcome setRank(const Identifier& item, const std::optional<std::uint64_t>& rank);
    /// Fails also where the date was not kept.
    Outcome setLastUsed(const Identifier& item, const std::optional<Date>& date);

private:
    /// The folder that the store remembers, for an item that does not know itself where it came from.
    std::optional<Identifier> rememberedParent(const Identifier& item) const;
    std::vector<std::string> trashEntries() const;
    std::shared_ptr<operations::TransferMonitor> monitor(const URL& document);
    template <typename T, typename Start>
    T waitFor(Start start, const std::shared_ptr<operations::TransferMonitor>& monitor = {});

    ProgramContext& context_;
    const Guards guards_;
    const InterruptGuard* interrupts_ = nullptr;
    bool interrupted_ = false;
    Listener listener_;
};

}  // namespace tarnwell::host
