#include "applibraries/LocalRootEnumerator.h"

namespace tarnwell::applibraries {

namespace {

CacheSource cacheSourceFor(const hostframework::ItemIdentifier& container) {
    return container == hostframework::kWorkingSetContainer ? CacheSource::workingSet : CacheSource::main;
}

}  // namespace

LocalRootEnumerator::LocalRootEnumerator(const fs::FSEnvironment& environment, const AppLibraryServices& services,
                                         hostframework::ItemIdentifier container)
    : environment_(environment),
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
