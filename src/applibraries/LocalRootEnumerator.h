#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "applibraries/LocalAppLibraryManager.h"
#include "fs/LocalFileEnumerator.h"

namespace tarnwell::applibraries {

/// Lists the top of the storage for a host: the app libraries, then, through a local file enumerator that it owns, the
/// contents of the storage root (of every monitored folder for AllDirectoriesContainer). Its anchors carry the
/// generation of app libraries that its manager holds.
///
/// A request for changes first brings the app libraries up to the main cache, by the generation T that the anchor
/// carries and L that the manager holds: T above L, or neither 0 nor L, expires; T = 0 is told of all app libraries;
/// T = L is told of what differs. Where that took a new generation, another local file enumerator watches its folders
/// from then on: one that was started is retired and the new one started, and requests that it has begun to answer are
/// answered. Then the file changes follow.
///
/// Listings run on the calling thread; any thread may call any operation. The environment and the services must outlive
/// it.
class LocalRootEnumerator : public hostframework::ProviderEnumerator {
public:
    /// `container` is RootContainer, WorkingSetContainer or AllDirectoriesContainer. Loads a manager of its own: from
    /// the working-set cache for the working set, from the main cache otherwise.
    static std::shared_ptr<LocalRootEnumerator> create(const fs::FSEnvironment& environment,
                                                       const AppLibraryServices& services,
                                                       hostframework::ItemIdentifier container);
    /// Ends the live updates if they still run.
    ~LocalRootEnumerator() override;

    /// The first page begins with all app libraries, in one call that may be empty.
    void enumerateItemsForObserver(const std::shared_ptr<hostframework::EnumerationObserver>& observer,
                                   const hostframework::EnumerationPage& startingAtPage) override;
    void enumerateChangesForObserver(const std::shared_ptr<hostframework::ChangeObserver>& observer,
                                     const hostframework::SyncAnchor& fromSyncAnchor) override;
    void currentSyncAnchorWithCompletionHandler(
        const std::function<void(const std::optional<hostframework::SyncAnchor>&)>& completion) override;

    /// Begin and end the live updates; nothing else changes.
    void start();
    void stop();
    void invalidate() override { stop(); }

    const hostframework::ItemIdentifier& container() const { return container_; }
    LocalAppLibraryManager& appLibraryManager() const { return *appLibraryManager_; }
    std::shared_ptr<fs::LocalFileEnumerator> localFileEnumerator() const;
    /// Puts another one, never null, in its place; stopping the old one and starting the new one is the caller's.
    void setLocalFileEnumerator(std::shared_ptr<fs::LocalFileEnumerator> enumerator);
    /// True from `start` to `stop` or `invalidate`.
    bool isRunning() const;
    void setRunning(bool isRunning);
    /// For work of the enumerator's own; none of its operations waits for it.
    const std::shared_ptr<dispatch::SerialQueue>& enumQueue() const { return enumQueue_; }

    /// The storage root, then the root folder of every app library of the manager, in its order.
    std::vector<URL> monitoredFolders() const;

private:
    LocalRootEnumerator(const fs::FSEnvironment& environment, const AppLibraryServices& services,
                        hostframework::ItemIdentifier container);
    Result<void> bringUpToMainCache(hostframework::ChangeObserver& observer, fs::ChangeToken& token);
    bool upgrade(hostframework::ChangeObserver* observer);
    Result<void> tellContentsOf(const std::vector<URL>& roots, const fs::ChangeToken& token);
    void updateMonitoredFolders();
    std::string stateText(std::uint64_t tokenVersion, std::uint64_t localVersion) const;
    bool isWorkingSet() const { return container_ == hostframework::kWorkingSetContainer; }

    const fs::FSEnvironment& environment_;
    const AppLibraryServices services_;
    const hostframework::ItemIdentifier container_;
    const std::shared_ptr<dispatch::SerialQueue> enumQueue_;
    const std::shared_ptr<LocalAppLibraryManager> appLibraryManager_;
    /// Guards the fields below; nothing inside calls out.
    mutable std::mutex mutex_;
    std::shared_ptr<fs::LocalFileEnumerator> localFileEnumerator_;
    bool isRunning_ = false;
};

}  // namespace tarnwell::applibraries
