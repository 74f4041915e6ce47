#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "applibraries/AppLibraryServices.h"
#include "applibraries/LibraryNames.h"
#include "applibraries/OrderedDictionary.h"
#include "hostframework/ProviderEnumerator.h"
#include "items/LocalItem.h"

namespace tarnwell::applibraries {

/// Which cache file a manager loads from and saves to.
enum class CacheSource : std::uint8_t { main = 0, workingSet = 1 };
/// "main cache" or "working-set cache".
std::string_view nameOf(CacheSource source);

/// Whether an upgrade removes the search-index entries of app libraries that are gone.
enum class IndexCleanup { no, yes };

using AppLibraryItemPtr = std::shared_ptr<items::LocalAppLibraryItem>;

/// One generation of the app libraries, indexed two ways. Both dictionaries are read in the order of the cache file,
/// which is registry order; a later record with the key of an earlier one takes its value's place.
struct AppLibraryGeneration {
    std::uint64_t versionToken = 0;
    OrderedDictionary<hostframework::ItemIdentifier, AppLibraryItemPtr> appLibrariesByItemIDs;
    OrderedDictionary<URL, registry::BundleRecordPtr, URLHash, URLEqual> bundleProxiesByRootURLs;
    /// Of records in a loaded cache file that gave no item.
    std::vector<hostframework::ItemIdentifier> withoutItem;
};

/// Holds one generation of the app libraries: filled from its cache file when it is made, and changed only by an
/// upgrade to the main cache's generation. Each root enumerator owns one; one further is shared by the program.
///
/// Any thread may call any operation, but not on a cache's queue. A generation never changes, so what an operation
/// returns stays whole while an upgrade runs. Two upgrades of one manager at once each put in place what they read.
class LocalAppLibraryManager : public items::AppLibraryDirectory {
public:
    enum class Instance { own, shared };

    /// Loads the cache file. Never fails: one that is missing or damaged gives no app libraries and token 0. The
    /// services must outlive the manager.
    static std::shared_ptr<LocalAppLibraryManager> create(const AppLibraryServices& services, CacheSource cacheSource,
                                                          Instance instance);

    CacheSource cacheSource() const { return cacheSource_; }
    /// "tarnwell.app-library-manager". Every read and every change of the generation takes its turn there.
    dispatch::SerialQueue& queue() const { return *queue_; }
    std::uint64_t versionToken() const { return generation()->versionToken; }
    /// The generation held now; never null.
    std::shared_ptr<const AppLibraryGeneration> generation() const;
    /// Every app library, in the dictionary's order.
    std::vector<hostframework::ProviderItemPtr> appLibraryItems() const;
    /// Null when there is no such app library.
    AppLibraryItemPtr appLibraryForItemIdentifier(const hostframework::ItemIdentifier& identifier) const;

    std::vector<URL> rootURLsForAppLibraries() const override;
    registry::BundleRecordPtr recordForURL(const URL& url, Relationship relationship) const override;
    Relationship relationshipToRoots(const URL& url) const override;
    registry::BundleRecordPtr recordForItemIdentifier(const std::string& identifier) const override;

    /// Writes the records and the token of the generation held to the manager's cache file. On failure file and
    /// manager are as before; the error is not logged.
    Result<void> saveToCache();

    /// Takes the main cache's generation; true when it took one, false when it held it already. The observer, if any,
    /// is told on the calling thread, before the manager changes: every app library of the new generation as an update,
    /// then the identifiers of those gone as deletions; it must not wait for another upgrade of this manager. With
    /// index cleanup the call blocks until the host has answered (see deleteSearchableItemsOfDomains).
    bool upgradeFromMainCache(hostframework::ChangeObserver* observer, IndexCleanup indexCleanup);

    /// The names of the items held, and those that their applications have now.
    LibraryNames::Names shownNames() const;
    LibraryNames::Names currentNames() const;
    /// Makes the items anew that have another name there, within the generation held.
    void showNames(const LibraryNames::Names& names);

    /// For log lines: the object, "SHARED" where it is, token, cache source, number of app libraries.
    std::string description() const;

private:
    LocalAppLibraryManager(const AppLibraryServices& services, CacheSource cacheSource, Instance instance);
    void load();
    registry::BundleRecordPtr recordForRootPath(std::string_view rootPath) const;
    std::shared_ptr<AppLibraryGeneration> build(const AppLibraryRecords& records, std::string_view failureText) const;
    std::string descriptionOf(const AppLibraryGeneration& generation) const;
    LocalAppLibraryCache& cache() const;

    const AppLibraryServices services_;
    const CacheSource cacheSource_;
    const Instance instance_;
    const std::shared_ptr<dispatch::SerialQueue> queue_;
    /// Read and replaced on `queue_` only.
    std::shared_ptr<const AppLibraryGeneration> generation_;
};

}  // namespace tarnwell::applibraries
