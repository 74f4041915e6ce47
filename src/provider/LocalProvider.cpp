#include "provider/LocalProvider.h"

#include <chrono>

#include "applibraries/LocalRootEnumerator.h"
#include "fs/LocalFileEnumerator.h"
#include "hostframework/HostError.h"
#include "items/LocalItem.h"

namespace tarnwell::provider {

using hostframework::Completion;
using hostframework::ItemCompletion;
using hostframework::ItemIdentifier;
using hostframework::ProgressPtr;
using hostframework::ProviderEnumerator;
using hostframework::ThumbnailCompletion;
using hostframework::ThumbnailSize;
using hostframework::TypedThumbnailCompletion;
using items::LogSection;

namespace {

constexpr const char* kRefreshQueueLabel = "tarnwell.app-refresh.queue";
constexpr const char* kRefreshPacerName = "tarnwell.app-refresh.pacer";
constexpr std::chrono::milliseconds kRefreshInterval{500};

bool isListedByRootEnumerator(const ItemIdentifier& identifier) {
    return identifier == hostframework::kRootContainer || identifier == hostframework::kWorkingSetContainer ||
           identifier == hostframework::kAllDirectoriesContainer;
}

}  // namespace

std::shared_ptr<LocalProvider> LocalProvider::create(const ProviderContext& context) {
    std::shared_ptr<LocalProvider> provider(new LocalProvider(context));
    provider->startUp();
    return provider;
}

LocalProvider::LocalProvider(const ProviderContext& context)
    : context_(context),
      lookup_(context),
      creation_(context),
      trash_(context),
      trashCleanup_(context),
      userMetadata_(context),
      thumbnails_(context),
      appRefreshQueue_(dispatch::SerialQueue::create(context.fs.pool, kRefreshQueueLabel)),
      appRefreshPacer_(std::make_unique<hostframework::Pacer>(kRefreshPacerName, appRefreshQueue_, kRefreshInterval)) {}

void LocalProvider::startUp() {
    appRefreshPacer_->setEventBlock([weakSelf = weak_from_this()] {
        if (auto self = weakSelf.lock()) self->pacerEvent();
    });
    appRefreshPacer_->resume();
    appRefreshPacer_->signal();
    context_.fs.items.log.info("auto notify changes on " + hostframework::kWorkingSetContainer + " at startup");
    context_.fs.items.providerManager.signalEnumeratorForContainer(hostframework::kWorkingSetContainer,
                                                                   [](const std::optional<Error>&) {});
}

Result<hostframework::ProviderItemPtr> LocalProvider::itemForIdentifier(const ItemIdentifier& identifier) {
    return lookup_.itemForIdentifier(identifier);
}

std::optional<URL> LocalProvider::URLForItemWithPersistentIdentifier(const ItemIdentifier& identifier) {
    return urlForItemWithPersistentIdentifier(identifier);
}

std::optional<ItemIdentifier> LocalProvider::persistentIdentifierForItemAtURL(const URL& url) {
    return persistentIdentifierForItemAt(url);
}

std::optional<URL> LocalProvider::urlForItemWithPersistentIdentifier(const ItemIdentifier& identifier) const {
    return lookup_.urlIfFound(identifier);
}

std::optional<ItemIdentifier> LocalProvider::persistentIdentifierForItemAt(const URL& url) const {
    return lookup_.identifierForURL(url);
}

void LocalProvider::providePlaceholderAtURL(const URL&, const hostframework::Completion& completionHandler) {
    completionHandler(std::nullopt);
}

void LocalProvider::startProvidingItemAtURL(const URL&, const hostframework::Completion& completionHandler) {
    completionHandler(std::nullopt);
}

void LocalProvider::stopProvidingItemAtURL(const URL&) {}

void LocalProvider::itemChangedAtURL(const URL&) {}

void LocalProvider::importDocumentAtURL(const URL& documentURL, const ItemIdentifier& toParentItemIdentifier,
                                        ItemCompletion completionHandler) {
    creation_.importDocument(documentURL, toParentItemIdentifier, std::move(completionHandler));
}

void LocalProvider::createDirectoryWithName(const std::string& name, const ItemIdentifier& inParentItemIdentifier,
                                            ItemCompletion completionHandler) {
    creation_.createDirectory(name, inParentItemIdentifier, std::move(completionHandler));
}

void LocalProvider::renameItemWithIdentifier(const ItemIdentifier& identifier, const std::string& toName,
                                             ItemCompletion completionHandler) {
    creation_.rename(identifier, toName, std::move(completionHandler));
}

void LocalProvider::reparentItemWithIdentifier(const ItemIdentifier& identifier,
                                               const ItemIdentifier& toParentItemWithIdentifier,
                                               const std::optional<std::string>& newName,
                                               ItemCompletion completionHandler) {
    creation_.reparent(identifier, toParentItemWithIdentifier, newName, std::move(completionHandler));
}

void LocalProvider::trashItemWithIdentifier(const ItemIdentifier& identifier, ItemCompletion completionHandler) {
    trash_.trashItem(identifier, std::move(completionHandler));
}

void LocalProvider::untrashItemWithIdentifier(const ItemIdentifier& identifier,
                                              const std::optional<ItemIdentifier>& toParentItemIdentifier,
                                              ItemCompletion completionHandler) {
    trash_.untrashItem(identifier, toParentItemIdentifier, std::move(completionHandler));
}

void LocalProvider::deleteItemWithIdentifier(const ItemIdentifier& identifier, Completion completionHandler) {
    trash_.deleteItem(identifier, std::move(completionHandler));
}

void LocalProvider::removeTrashedItemsOlderThanDate(Date date, Completion completionHandler) {
    trashCleanup_.removeTrashedItemsOlderThan(date, std::move(completionHandler));
}

void LocalProvider::setLastUsedDate(const std::optional<Date>& date, const ItemIdentifier& forItemIdentifier,
                                    ItemCompletion completionHandler) {
    userMetadata_.setLastUsedDate(date, forItemIdentifier, completionHandler);
}

void LocalProvider::setTagData(const std::optional<Bytes>& tagData, const ItemIdentifier& forItemIdentifier,
                               ItemCompletion completionHandler) {
    userMetadata_.setTagData(tagData, forItemIdentifier, completionHandler);
}

void LocalProvider::setFavoriteRank(const std::optional<std::uint64_t>& rank, const ItemIdentifier& forItemIdentifier,
                                    ItemCompletion completionHandler) {
    userMetadata_.setFavoriteRank(rank, forItemIdentifier, completionHandler);
}

ProgressPtr LocalProvider::fetchThumbnailsForItemIdentifiers(const std::vector<ItemIdentifier>& identifiers,
                                                             ThumbnailSize /*requestedSize*/,
                                                             const ThumbnailCompletion& perThumbnailCompletionHandler,
                                                             const Completion& completionHandler) {
    return thumbnails_.fetch(identifiers, perThumbnailCompletionHandler, completionHandler);
}

ProgressPtr LocalProvider::fetchThumbnailsForItemIdentifiers(
    const std::vector<ItemIdentifier>& identifiers, ThumbnailSize /*requestedSize*/,
    const TypedThumbnailCompletion& perThumbnailCompletionHandlerWithType, const Completion& completionHandler) {
    return thumbnails_.fetch(identifiers, perThumbnailCompletionHandlerWithType, completionHandler);
}

void LocalProvider::defaultApplicationContainerForBundleIdentifier(const std::string& bundleIdentifier,
                                                                   const ItemCompletion& completionHandler) {
    auto& log = context_.fs.items.log;
    const LogSection section(log, "default location for " + bundleIdentifier);
    const auto record = context_.appLibraries.services().registry.recordForBundleIdentifier(bundleIdentifier);
    if (!record) {
        log.error("can't create bundle proxy with '" + bundleIdentifier + "'");
        return completionHandler(failure(hostframework::invalidParameter("bundleIdentifier", bundleIdentifier)));
    }
    const auto item = items::LocalAppLibraryItem::initFrom(context_.fs.items, *record);
    if (!item) {
        log.error("can't create an app library item with " + record->description());
        return completionHandler(failure(hostframework::invalidParameter("bundleIdentifier", bundleIdentifier)));
    }
    completionHandler(hostframework::ProviderItemPtr(item));
}

Result<std::shared_ptr<ProviderEnumerator>> LocalProvider::enumeratorForContainerItemIdentifier(
    const ItemIdentifier& identifier) {
    const LogSection section(context_.fs.items.log, "enumerator for " + identifier);
    if (isListedByRootEnumerator(identifier)) return rootEnumerator(identifier);
    auto url = lookup_.urlForIdentifier(identifier);
    if (!url) return failure(url.error());
    auto enumerator = fs::LocalFileEnumerator::create(context_.fs, identifier, {std::move(*url)});
    if (const auto& notifier = enumerator->notifier()) notifier->start();
    return enumerator;
}

std::shared_ptr<ProviderEnumerator> LocalProvider::rootEnumerator(const ItemIdentifier& identifier) const {
    auto enumerator =
        applibraries::LocalRootEnumerator::create(context_.fs, context_.appLibraries.services(), identifier);
    if (!enumerator->isRunning()) {
        if (const auto& notifier = enumerator->localFileEnumerator()->notifier()) notifier->start();
    }
    return enumerator;
}

void LocalProvider::refreshInstalledAppsWithCompletionHandler(RefreshCompletion completionHandler) {
    appRefreshQueue_->async([self = shared_from_this(), completion = std::move(completionHandler)]() mutable {
        // Kept, an empty one would end the process at every later event.
        if (completion) self->appRefreshCompletionHandlers_.push_back(std::move(completion));
        self->appRefreshPacer_->signal();
    });
}

void LocalProvider::pacerEvent() {
    auto& log = context_.fs.items.log;
    appRefreshQueue_->assertCurrent();
    const LogSection section(log, "pacer event");
    const bool didMainListChange = context_.appLibraries.refreshAppLibraries();
    log.debug("auto-upgrading shared app library manager");
    const bool didManagerChange =
        context_.appLibraries.sharedManager().upgradeFromMainCache(nullptr, applibraries::IndexCleanup::no);
    for (const auto& completion : appRefreshCompletionHandlers_) completion();
    if (didMainListChange) notifyChanges(hostframework::kRootContainer);
    if (didManagerChange) notifyChanges(hostframework::kWorkingSetContainer);
}

void LocalProvider::notifyChanges(const ItemIdentifier& container) {
    context_.fs.items.log.info("notify changes on " + container);
    context_.fs.items.providerManager.signalEnumeratorForContainer(container, [](const std::optional<Error>&) {});
}

}  // namespace tarnwell::provider
