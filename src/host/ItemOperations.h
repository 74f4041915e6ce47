#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/Guards.h"
#include "host/ProgramContext.h"
#include "platform/operations/TransferMonitor.h"
#include "session/JobControl.h"
#include "session/Session.h"

namespace tarnwell::host {

/// The part of a job that one operation is. The job outlives the operation.
struct JobStep {
    session::JobControl& job;
    std::uint64_t index = 0;  ///< of the item among those that the job is about
};

/// What a person asks of one item: the host's guards, then the provider's operation, waited for. The context outlives
/// it; any thread may call any operation. Failures are the guards', the provider's and the file operations'; of all but
/// "no such item" the error's message says why.
///
/// Operations that may take long take a step: they tell it how far a copy is, and end with ECANCELED once its job is
/// cancelled, unless they were done by then.
class ItemOperations {
public:
    using Outcome = Result<hostframework::ProviderItemPtr>;
    using Identifier = hostframework::ItemIdentifier;

    explicit ItemOperations(ProgramContext& context)
        : context_(context), guards_(context.provider(), context.roots()) {}

    /// A file or folder anywhere, by its path as a person gives it.
    Outcome import(const std::string& path, const Identifier& parent, const JobStep* step = nullptr) const;
    Outcome makeFolder(const std::string& name, const Identifier& parent) const;
    Outcome rename(const Identifier& item, const std::string& name) const;
    Outcome move(const Identifier& item, const Identifier& parent, const std::optional<std::string>& name,
                 const JobStep* step = nullptr) const;
    Outcome trash(const Identifier& item, const JobStep* step = nullptr) const;
    /// To the parent, else to where it came from, as far as the item or else the store remembers it.
    Outcome restore(const Identifier& item, const std::optional<Identifier>& parent,
                    const JobStep* step = nullptr) const;
    Result<session::Removed> remove(const Identifier& item) const;
    /// Fails where an entry could not be looked at. The log says why what is left could not be removed.
    Result<session::CleanedTrash> cleanTrash(Date olderThan) const;

    Outcome setTags(const Identifier& item, const std::vector<std::string>& labels) const;
    Outcome setRank(const Identifier& item, const std::optional<std::uint64_t>& rank) const;
    /// Fails also where the date was not kept.
    Outcome setLastUsed(const Identifier& item, const std::optional<Date>& date) const;

private:
    using Start = std::function<void(hostframework::ItemCompletion)>;
    /// Starts the operation, and waits for it.
    Outcome run(const Start& start) const;
    /// The same for one that may copy the document.
    Outcome runStep(const JobStep* step, const std::optional<URL>& document, const Start& start) const;
    Outcome told(Outcome outcome) const;
    std::string collisionText(const Error& error) const;
    /// The folder that the store remembers, for an item that does not know itself where it came from.
    std::optional<Identifier> rememberedParent(const Identifier& item) const;
    std::vector<std::string> trashEntries() const;

    ProgramContext& context_;
    const Guards guards_;
};

}  // namespace tarnwell::host
