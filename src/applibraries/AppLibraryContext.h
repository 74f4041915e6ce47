#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "applibraries/AppLibraryServices.h"
#include "applibraries/LibraryNames.h"
#include "applibraries/LocalAppLibraryManager.h"

namespace tarnwell::applibraries {

/// The file of the main cache below the application-support folder.
URL mainCacheURL(const std::string& applicationSupport);

/// What of the app libraries exists once in a program: the two caches, the shared manager, the queue for background
/// work. While it lives it is the environment's directory of app libraries.
///
/// Made before the environment is used by other threads and destroyed after the last of them; environment and registry
/// outlive it, and it outlives every manager made with its services. Any thread may call any operation.
class AppLibraryContext {
public:
    /// The cache files lie in "Tarnwell Storage" below the application-support folder, given by its real path; an empty
    /// path stops the process. Touches no file: the folder is made by the first save, the shared manager on its first
    /// use.
    AppLibraryContext(items::Environment& environment, registry::AppRegistry& registry,
                      std::shared_ptr<dispatch::ThreadPool> pool, const std::string& applicationSupport);
    ~AppLibraryContext();
    AppLibraryContext(const AppLibraryContext&) = delete;
    AppLibraryContext& operator=(const AppLibraryContext&) = delete;

    const AppLibraryServices& services() const { return services_; }
    LocalAppLibraryCache& mainCache() { return mainCache_; }
    LocalAppLibraryCache& workingSetCache() { return workingSetCache_; }
    /// "tarnwell.app-library.background".
    dispatch::SerialQueue& backgroundQueue() { return *backgroundQueue_; }

    /// Made, and loaded from the working-set cache, by the first call; others wait for it. Not while that call loads
    /// it, on its own thread, which stops the process.
    LocalAppLibraryManager& sharedManager();
    /// The shared manager as a directory. Asked by the thread that is loading it, it finds nothing.
    const items::AppLibraryDirectory& directory() const { return directory_; }

    /// See applibraries::refreshAppLibraries.
    bool refreshAppLibraries();
    /// Whether names are those of the shared manager's items, or looked up again.
    enum class Look { none, again };
    /// Compares the libraries' names with those that they were last noted with. A name makes no other list to a
    /// refresh, but to clients it is another item: where there are others, the same list becomes a new generation, so
    /// that every anchor from before is answered as after an installation. True when it did.
    bool renewNames(const std::string& languages, Look look);

private:
    class SharedDirectory : public items::AppLibraryDirectory {
    public:
        explicit SharedDirectory(AppLibraryContext& context) : context_(context) {}
        std::vector<URL> rootURLsForAppLibraries() const override;
        registry::BundleRecordPtr recordForURL(const URL& url, Relationship relationship) const override;
        Relationship relationshipToRoots(const URL& url) const override;
        registry::BundleRecordPtr recordForItemIdentifier(const std::string& identifier) const override;

    private:
        AppLibraryContext& context_;
    };

    /// Writes the list down once more, with the next version token. False where there is none, or it cannot be.
    bool beginGeneration();
    /// Null only on the thread that is loading it.
    LocalAppLibraryManager* sharedManagerUnlessLoading();

    items::Environment& environment_;
    LocalAppLibraryCache mainCache_;
    LocalAppLibraryCache workingSetCache_;
    std::shared_ptr<dispatch::SerialQueue> backgroundQueue_;
    AppLibraryServices services_;
    std::mutex namesMutex_;
    LibraryNames names_;
    std::optional<LibraryNames::Names> lastNames_;  ///< those of the last look in this program, in whatever languages
    SharedDirectory directory_;
    std::once_flag sharedOnce_;
    std::atomic<std::thread::id> loadingThread_{};
    std::atomic<bool> isSharedMade_ = false;
    std::shared_ptr<LocalAppLibraryManager> shared_;
};

}  // namespace tarnwell::applibraries
