#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "host/Changes.h"
#include "hostframework/ProviderItem.h"
#include "platform/base/UUID.h"
#include "platform/log/Log.h"
#include "platform/search/EntryTable.h"
#include "platform/search/Finder.h"
#include "session/Status.h"

namespace tarnwell::host {

/// The host's search index: a row for each item of the working set, in a file that can be made anew. The file is opened
/// when it is first needed; one that is damaged, of another version or of another store is set aside
/// ("search.sqlite.old") and begun anew, empty. Any thread may call any operation; each is one transaction, done whole
/// or not at all. Fails with StoreError::damaged where damage is met: the next operation begins a new file.
class SearchIndex {
public:
    /// `directory` is made when it is needed. The log outlives the index.
    SearchIndex(std::string directory, const UUID& store, log::Log& log);

    /// To be held by who brings it up to date: one at a time. Nothing here takes it.
    std::mutex& turn() { return turn_; }

    /// Up to where the working set's changes are in it; nothing for an index that was never filled to the end.
    Result<std::optional<hostframework::SyncAnchor>> anchor();

    /// Filling anew, in place: what is in it stays until `finishFill`, which drops what was not added since.
    Result<void> beginFill();
    Result<void> add(const std::vector<hostframework::ProviderItemPtr>& items);
    /// `anchor` is from before the fill. What happened during it is told from there; until `settle` is called, folders
    /// may turn up whose contents nobody has listed.
    Result<void> finishFill(const hostframework::SyncAnchor& anchor);
    Result<bool> isSettled();

    /// Which folders of the batch are not in it yet.
    Result<std::vector<hostframework::ItemIdentifier>> unknownFoldersIn(const ChangeBatch& batch);
    /// The batch's reports in their order, and its anchor.
    Result<void> apply(const ChangeBatch& batch);
    /// All changes up to now are in it.
    Result<void> settle();

    /// Removes the items of those domains. The provider names a domain by the identifier of its library ("#" and the
    /// bundle identifier), items by the bundle identifier alone: either is taken, and what hangs under the library goes
    /// with it. Succeeds where there is no index.
    Result<void> removeDomains(const std::vector<std::string>& domains);

    Result<std::vector<search::Hit>> find(const search::Search& search);
    /// Nothing where there is no index.
    Result<std::optional<session::SearchStatus>> status();
    /// See search::EntryTable::lines.
    Result<std::vector<std::string>> lines();

private:
    template <typename Work>
    auto use(Work work) -> decltype(work(std::declval<search::EntryTable&>()));
    template <typename Work>
    Result<void> write(Work work);
    Result<void> open();
    Result<void> setAside() const;
    bool exists() const;

    const std::string directory_, path_;
    const std::string origin_;
    log::Log& log_;
    std::mutex turn_;
    std::mutex mutex_;
    std::unique_ptr<search::EntryTable> table_;
};

/// True for what is said of an index that turned out to be damaged, and is begun anew by the next operation.
bool isDamagedIndex(const Error& error);

}  // namespace tarnwell::host
