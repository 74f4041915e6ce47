#include "applibraries/LocalRootEnumerator.h"

#include <string>
#include <unordered_set>

#include "applibraries/ListText.h"
#include "hostframework/HostError.h"

namespace tarnwell::applibraries {

namespace {

CacheSource cacheSourceFor(const hostframework::ItemIdentifier& container) {
    return container == hostframework::kWorkingSetContainer ? CacheSource::workingSet : CacheSource::main;
}

}  // namespace

LocalRootEnumerator::LocalRootEnumerator(const fs::FSEnvironment& environment, const AppLibraryServices& services,
                                         hostframework::ItemIdentifier container)
    : environment_(environment),
      services_(services),
      container_(std::move(container)),
      enumQueue_(dispatch::SerialQueue::create(environment.pool, "tarnwell.root-enumerator.queue")),
      appLibraryManager_(LocalAppLibraryManager::create(services, cacheSourceFor(container_),
                                                        LocalAppLibraryManager::Instance::own)) {}

std::shared_ptr<LocalRootEnumerator> LocalRootEnumerator::create(const fs::FSEnvironment& environment,
                                                                 const AppLibraryServices& services,
                                                                 hostframework::ItemIdentifier container) {
    std::shared_ptr<LocalRootEnumerator> enumerator(
        new LocalRootEnumerator(environment, services, std::move(container)));
    enumerator->setLocalFileEnumerator(
        fs::LocalFileEnumerator::create(environment, enumerator->container_, enumerator->monitoredFolders()));
    return enumerator;
}

LocalRootEnumerator::~LocalRootEnumerator() {
    if (isRunning_) localFileEnumerator_->stop();
}

std::vector<URL> LocalRootEnumerator::monitoredFolders() const {
    std::vector<URL> folders{environment_.items.providerManager.documentStorageURL()};
    for (URL& url : appLibraryManager_->rootURLsForAppLibraries()) folders.push_back(std::move(url));
    return folders;
}

void LocalRootEnumerator::enumerateItemsForObserver(const std::shared_ptr<hostframework::EnumerationObserver>& observer,
                                                    const hostframework::EnumerationPage& startingAtPage) {
    items::ProgramLog& log = environment_.items.log;
    items::LogSection section(log, "enumerate root items for " + container_);
    if (startingAtPage == hostframework::kInitialPageSortedByDate ||
        startingAtPage == hostframework::kInitialPageSortedByName) {
        const auto items = appLibraryManager_->appLibraryItems();
        observer->didEnumerateItems(items);
        log.debug([&] { return "discovered " + std::to_string(items.size()) + " app-libraries"; });
    }
    localFileEnumerator()->enumerateItemsForObserver(observer, startingAtPage);
}

void LocalRootEnumerator::enumerateChangesForObserver(const std::shared_ptr<hostframework::ChangeObserver>& observer,
                                                      const hostframework::SyncAnchor& fromSyncAnchor) {
    items::ProgramLog& log = environment_.items.log;
    const items::LogSection section(log, "enumerate root changes for " + container_);
    auto token = fs::ChangeToken::decode(fromSyncAnchor);
    if (!token) {
        log.error("can't create change token from anchor data, resetting");
        observer->finishEnumeratingWithError(hostframework::syncAnchorExpired());
        return;
    }
    log.debug("notifying app library changes since " + std::to_string(token->appLibraryVersionToken));
    if (auto upToDate = bringUpToMainCache(*observer, *token); !upToDate) {
        observer->finishEnumeratingWithError(upToDate.error());
        return;
    }
    localFileEnumerator()->enumerateChangesForObserver(observer, token->encode());
}

/// The version decision: leaves the token at the generation that the manager holds then, or fails with the error that
/// ends the request.
Result<void> LocalRootEnumerator::bringUpToMainCache(hostframework::ChangeObserver& observer, fs::ChangeToken& token) {
    items::ProgramLog& log = environment_.items.log;
    const std::uint64_t known = token.appLibraryVersionToken, local = appLibraryManager_->versionToken();
    if (known > local) {
        log.debug([&] {
            return "app-library version is in advance, need to restart from scratch " + stateText(known, local);
        });
        return failure(hostframework::syncAnchorExpired());
    }
    if (known == 0) {
        log.debug("change token version is zero, let's send all the app-libraries known");
        upgrade(nullptr);
        if (auto told = tellContentsOf(appLibraryManager_->rootURLsForAppLibraries(), token); !told) return told;
        observer.didUpdateItems(appLibraryManager_->appLibraryItems());
        token.appLibraryVersionToken = appLibraryManager_->versionToken();
        return {};
    }
    if (known != local) {
        log.error("change token version matches nothing, need to restart from scratch " + stateText(known, local));
        return failure(hostframework::syncAnchorExpired());
    }
    log.debug("change token version matches local version");
    std::unordered_set<std::string> former;
    for (const URL& root : appLibraryManager_->rootURLsForAppLibraries()) former.insert(root.path());
    if (!upgrade(&observer)) return {};
    token.appLibraryVersionToken = appLibraryManager_->versionToken();
    auto added = appLibraryManager_->rootURLsForAppLibraries();
    std::erase_if(added, [&](const URL& root) { return former.contains(root.path()); });
    return tellContentsOf(added, token);
}

/// What lies in a library was recorded when anybody first looked at it, and that may be before the anchor of a client
/// who did not know of the library then.
Result<void> LocalRootEnumerator::tellContentsOf(const std::vector<URL>& roots, const fs::ChangeToken& token) {
    if (roots.empty()) return {};
    const auto told = environment_.events.tellContents(roots, token.streamEventID);
    if (told) return {};
    environment_.items.log.error("can't tell what new app libraries hold; " + describe(told.error()));
    return failure(hostframework::syncAnchorExpired());
}

/// Takes the main cache's generation; true when it was another one.
bool LocalRootEnumerator::upgrade(hostframework::ChangeObserver* observer) {
    const auto cleanup = isWorkingSet() ? IndexCleanup::yes : IndexCleanup::no;
    if (!appLibraryManager_->upgradeFromMainCache(observer, cleanup)) return false;
    updateMonitoredFolders();
    if (isWorkingSet()) {
        // The working-set file names the generation whose items the search index holds.
        if (auto saved = appLibraryManager_->saveToCache(); !saved) {
            environment_.items.log.error("can't save working-set cache to disk; " + describe(saved.error()));
        }
    }
    return true;
}

void LocalRootEnumerator::updateMonitoredFolders() {
    const auto folders = monitoredFolders();
    auto next = fs::LocalFileEnumerator::create(environment_, container_, folders);
    const auto former = localFileEnumerator();
    // Live updates go on with the new folders, also where only they were started.
    const auto& notifier = former->notifier();
    const bool wasLive = isRunning() || (notifier && notifier->isStarted());
    if (wasLive) former->retire();
    setLocalFileEnumerator(next);
    environment_.items.log.debug([&] {
        std::vector<std::string> paths;
        for (const URL& folder : folders) paths.push_back(folder.path());
        return "updated root enumerator to monitor " + listText(paths);
    });
    if (wasLive) next->start();
}

std::string LocalRootEnumerator::stateText(std::uint64_t tokenVersion, std::uint64_t localVersion) const {
    std::string text =
        "[changeTokenVersion: " + std::to_string(tokenVersion) + ", localVersion: " + std::to_string(localVersion);
    if (isWorkingSet()) text += ", workingSetVersion: " + std::to_string(services_.sharedVersionToken());
    LocalAppLibraryCache& cache = services_.mainCache;
    return text + ", mainCacheVersion: " + std::to_string(cache.queue().sync([&] { return cache.versionToken(); })) +
           "]";
}

void LocalRootEnumerator::currentSyncAnchorWithCompletionHandler(
    const std::function<void(const std::optional<hostframework::SyncAnchor>&)>& completion) {
    localFileEnumerator()->currentSyncAnchorWithCompletionHandler(
        [completion, manager = appLibraryManager_](const std::optional<hostframework::SyncAnchor>& anchor) {
            if (!anchor) {
                completion(std::nullopt);
                return;
            }
            auto token = fs::ChangeToken::decode(*anchor);
            TARNWELL_CHECK(token.has_value());
            token->appLibraryVersionToken = manager->versionToken();
            completion(token->encode());
        });
}

void LocalRootEnumerator::start() {
    localFileEnumerator()->start();
    setRunning(true);
}

void LocalRootEnumerator::stop() {
    localFileEnumerator()->stop();
    setRunning(false);
}

std::shared_ptr<fs::LocalFileEnumerator> LocalRootEnumerator::localFileEnumerator() const {
    std::lock_guard lock(mutex_);
    return localFileEnumerator_;
}

void LocalRootEnumerator::setLocalFileEnumerator(std::shared_ptr<fs::LocalFileEnumerator> enumerator) {
    TARNWELL_CHECK(enumerator != nullptr);
    std::lock_guard lock(mutex_);
    localFileEnumerator_.swap(enumerator);
}

bool LocalRootEnumerator::isRunning() const {
    std::lock_guard lock(mutex_);
    return isRunning_;
}

void LocalRootEnumerator::setRunning(bool isRunning) {
    std::lock_guard lock(mutex_);
    isRunning_ = isRunning;
}

}  // namespace tarnwell::applibraries
