#pragma once

#include <memory>

#include "host/Applications.h"
#include "host/DocumentAccess.h"
#include "host/EnumeratorPool.h"
#include "host/ItemOperations.h"
#include "host/LibraryIcons.h"
#include "host/ProgramContext.h"
#include "host/SearchService.h"
#include "session/Session.h"

namespace tarnwell::host {

/// One client of the provider in this process. The context outlives it; its watches and calls have ended before it
/// goes. A watch calls back on the host's queue, and is not ended within a call back.
class LocalSession : public session::Session {
public:
    explicit LocalSession(ProgramContext& context);

    Each<session::Item> items(const std::vector<session::ItemIdentifier>& identifiers) override;
    Each<session::ItemIdentifier> identifiersAtPaths(const std::vector<std::string>& paths,
                                                     session::PathUse use) override;

    Result<session::Page> enumerate(const session::ItemIdentifier& container,
                                    const std::optional<Bytes>& page) override;
    Result<std::optional<Bytes>> currentAnchor(const session::ItemIdentifier& container) override;
    Result<session::ChangeBatch> changes(const session::ItemIdentifier& container, const Bytes& anchor) override;
    /// The first one of a context makes it watch for changes (see ProgramContext::watchForChanges).
    Result<std::unique_ptr<session::Watch>> watch(const session::ItemIdentifier& container,
                                                  std::function<void()> changed) override;

    Result<Descriptor> open(const session::ItemIdentifier& item, Access access) override;

    Each<session::Item> import(const std::vector<std::string>& paths, const session::ItemIdentifier& parent,
                               session::JobControl& job) override;
    Result<session::Item> makeFolder(const std::string& name, const session::ItemIdentifier& parent) override;
    Result<session::Item> rename(const session::ItemIdentifier& item, const std::string& name) override;
    Each<session::Item> move(const std::vector<session::ItemIdentifier>& items, const session::ItemIdentifier& parent,
                             const std::optional<std::string>& name, session::JobControl& job) override;
    Each<session::Item> trash(const std::vector<session::ItemIdentifier>& items, session::JobControl& job) override;
    Each<session::Item> restore(const std::vector<session::ItemIdentifier>& items,
                                const std::optional<session::ItemIdentifier>& parent,
                                session::JobControl& job) override;
    Each<session::Removed> remove(const std::vector<session::ItemIdentifier>& items, session::JobControl& job) override;
    Result<session::CleanedTrash> cleanTrash(Date olderThan) override;

    Result<session::Item> setTags(const session::ItemIdentifier& item, const std::vector<std::string>& labels) override;
    Result<session::Item> setRank(const session::ItemIdentifier& item,
                                  const std::optional<std::uint64_t>& rank) override;
    Result<session::Item> setLastUsed(const session::ItemIdentifier& item, const std::optional<Date>& date) override;

    Each<Bytes> thumbnails(const std::vector<session::ItemIdentifier>& items, unsigned side) override;
    Result<std::vector<session::Application>> applications() override;
    Result<session::Refreshed> refresh() override;
    Result<session::Item> defaultContainer(const std::string& bundleIdentifier) override;

    Result<session::SearchResult> search(const session::SearchRequest& request,
                                         const std::function<void(std::uint64_t)>& progress) override;
    Result<session::Status> status() override;

    /// Enumerators that are kept for later requests.
    std::size_t idleEnumerators() const { return enumerators_.idle(); }

private:
    Result<session::ChangeBatch> ownChanges(const session::ItemIdentifier& container, const Bytes& anchor);
    using ProviderOutcome = Result<hostframework::ProviderItemPtr>;
    Result<session::Item> record(const ProviderOutcome& outcome) const;
    Result<session::ItemIdentifier> identifierAt(const std::string& path, session::PathUse use) const;

    ProgramContext& context_;
    const ItemOperations operations_;
    const DocumentAccess documents_;
    const LibraryIcons icons_;
    const SearchService search_;
    Applications applications_;
    EnumeratorPool enumerators_;
};

}  // namespace tarnwell::host
