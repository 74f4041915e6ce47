#include "fs/LocalFileEnumerator.h"

#include <unordered_map>

#include "fs/FileIDUpdate.h"
#include "fs/GatherPhaseResumeCheck.h"
#include "fs/LocalChangesObserverContext.h"
#include "hostframework/HostError.h"
#include "items/LocalItem.h"
#include "items/TWPFileObjectIdentifier.h"
#include "items/TarnwellError.h"
#include "platform/mime/TypeDatabase.h"

namespace tarnwell::fs {
namespace {

using hostframework::EnumerationObserver;
using hostframework::EnumerationPage;
using hostframework::ProviderItemPtr;
using hostframework::syncAnchorExpired;

std::optional<std::string> labelOfInitialPage(const EnumerationPage& page) {
    if (page == hostframework::kInitialPageSortedByDate) return "initialPageSortedByDate";
    if (page == hostframework::kInitialPageSortedByName) return "initialPageSortedByName";
    return std::nullopt;
}

/// The identifiers of the folders that entries of one page lie in, so that entries of one folder share one lookup.
class ParentIdentifiers {
public:
    explicit ParentIdentifiers(const items::Environment& environment) : identifiers_(environment) {}

    /// Nothing when the parent has no identifier; the item then looks for itself and says so.
    std::optional<std::string> ofParent(const URL& url) {
        const std::string_view path = url.path();
        const auto parentPath = path.substr(0, path.rfind('/'));
        if (last_ && last_->first == parentPath) return last_->second;
        auto found = known_.find(std::string(parentPath));
        if (found == known_.end()) {
            auto identifier = identifiers_.itemIdentifier(url.deletingLastPathComponent());
            if (!identifier) return std::nullopt;
            found = known_.emplace(parentPath, std::move(*identifier)).first;
        }
        last_ = &*found;
        return found->second;
    }

private:
    const items::TWPFileObjectIdentifier identifiers_;
    std::unordered_map<std::string, std::string> known_;
    const std::pair<const std::string, std::string>* last_ = nullptr;
};

/// True when what was prefetched already says that the entry is no folder.
bool isKnownToBeNoFolder(const items::Environment& environment, const URL& url) {
    const auto type = environment.files.resourceValue(url, files::ResourceKey::typeIdentifier);
    const auto* text = type ? std::get_if<std::string>(&*type) : nullptr;
    return text && *text != mime::kFolderType;
}

std::string pathsOf(const std::vector<URL>& urls) {
    std::string text;
    for (const URL& url : urls) text += (text.empty() ? "" : ", ") + url.path();
    return text;
}

std::vector<URL> checkedURLs(std::vector<URL> urls) {
    if (urls.empty()) fatal("can't create enumerator for an empty list of URLs");
    return urls;
}

}  // namespace

std::shared_ptr<LocalFileEnumerator> LocalFileEnumerator::create(const FSEnvironment& environment,
                                                                 std::string container, std::vector<URL> urls) {
    return std::shared_ptr<LocalFileEnumerator>(
        new LocalFileEnumerator(environment, std::move(container), checkedURLs(std::move(urls))));
}

LocalFileEnumerator::LocalFileEnumerator(const FSEnvironment& environment, std::string container, std::vector<URL> urls)
    : environment_(environment),
      container_(std::move(container)),
      urls_(std::move(urls)),
      notifier_(FSChangesNotifier::create(environment, container_, urls_)),
      shouldUpdateFileIDInGenstore_(container_ == hostframework::kWorkingSetContainer) {
    if (!notifier_) {
        environment_.items.log.error("can't create notifier for " + items::quoted(urls_.front().path()) +
                                     "; enumeration will have no live update");
    }
}

void LocalFileEnumerator::start() {
    if (notifier_) notifier_->start();
}

void LocalFileEnumerator::stop() {
    retire();
    for (const auto& enumerator : enumerators()) enumerator->stop();
}

void LocalFileEnumerator::retire() {
    if (notifier_) notifier_->stop();
}

LocalFileEnumerator::Enumerators LocalFileEnumerator::enumerators() const {
    const std::lock_guard lock(mutex_);
    return enumerators_;
}

void LocalFileEnumerator::removeEnumerator(const std::shared_ptr<FSChangesEnumerator>& enumerator) {
    const std::lock_guard lock(mutex_);
    enumerators_.erase(enumerator);
}

void LocalFileEnumerator::enumerateChangesForObserver(const std::shared_ptr<hostframework::ChangeObserver>& observer,
                                                      const hostframework::SyncAnchor& fromSyncAnchor) {
    const auto token = ChangeToken::decode(fromSyncAnchor);
    if (!token) {
        environment_.items.log.error("can't create change token from anchor data, resetting");
        observer->finishEnumeratingWithError(syncAnchorExpired());
        return;
    }
    const items::LogSection section(environment_.items.log,
                                    "enumerate changes for " + container_ + " with token " + token->description());
    startEnumeratingChanges(observer, *token);
}

/// A folder that moved on may have left its path to another one, of which this container's host is not to be told.
Result<void> LocalFileEnumerator::checkContainer() const {
    if (!container_.starts_with("fid=")) return {};
    const auto identifier =
        items::TWPFileObjectIdentifier(environment_.items).itemIdentifier(URL::file(urls_.front().path()));
    if (identifier == container_) return {};
    environment_.items.log.debug([&] { return "container " + container_ + " is not at " + urls_.front().path(); });
    return failure(items::makeError(items::DeviceUUIDError::unableToGetDeviceUUID));
}

void LocalFileEnumerator::startEnumeratingChanges(const std::shared_ptr<hostframework::ChangeObserver>& observer,
                                                  const ChangeToken& token) {
    const auto uuid = volumeUUID();
    if (!uuid) return observer->finishEnumeratingWithError(uuid.error());
    if (token.deviceUUID != *uuid) {
        environment_.items.log.debug("device UUID changed (" + token.deviceUUID.text() + " -> " + uuid->text() + ")");
        return observer->finishEnumeratingWithError(syncAnchorExpired());
    }
    if (const auto replaced = checkContainer(); !replaced) {
        return observer->finishEnumeratingWithError(replaced.error());
    }
    const auto context = std::make_shared<LocalChangesObserverContext>(environment_, observer, shared_from_this(),
                                                                       shouldUpdateFileIDInGenstore_);
    const auto enumerator = FSChangesEnumerator::create(environment_, token, container_, urls_, context);
    context->setFSChangesEnumerator(enumerator);
    {
        const std::lock_guard lock(mutex_);
        enumerators_.insert(enumerator);
    }
    enumerator->start();
}

std::optional<unsigned> LocalFileEnumerator::directoryEnumerationOptionsFor(const URL& url) {
    if (url.lastPathComponent() != ".Trash") return std::nullopt;
    return files::kSkipSubdirectoryDescendants | files::kSkipPackageDescendants | files::kSkipHiddenFiles;
}

void LocalFileEnumerator::enumerateItemsForObserver(const std::shared_ptr<EnumerationObserver>& observer,
                                                    const EnumerationPage& startingAtPage) {
    std::optional<ChangeToken> token;
    auto label = labelOfInitialPage(startingAtPage);
    if (!label) {
        token = ChangeToken::decode(startingAtPage);
        if (!token) {
            environment_.items.log.error("can't create change token from anchor data, resetting");
            observer->finishEnumeratingWithError(syncAnchorExpired());
            return;
        }
        label = token->description();
    }
    const items::LogSection section(environment_.items.log,
                                    "enumerate items for " + container_ + " with page " + *label);
    gather(*observer, token);
}

void LocalFileEnumerator::currentSyncAnchorWithCompletionHandler(
    const std::function<void(const std::optional<hostframework::SyncAnchor>&)>& completion) {
    if (!notifier_) return completion(std::nullopt);
    const auto now = environment_.events.currentEventID(urls_, events::Interest::everything);
    if (!now) {
        environment_.items.log.error("can't get current event ID for " + pathsOf(urls_) + "; " + describe(now.error()));
        return completion(std::nullopt);
    }
    completion(ChangeToken{.deviceUUID = notifier_->deviceUUID(), .streamEventID = *now}.encode());
}

Result<UUID> LocalFileEnumerator::volumeUUID() const {
    auto uuid = FSEventReader::deviceUUID(environment_, urls_.front());
    if (!uuid) environment_.items.log.error("can't get volume UUID for " + urls_.front().path());
    return uuid;
}

void LocalFileEnumerator::gather(EnumerationObserver& observer, const std::optional<ChangeToken>& token) const {
    const auto uuid = volumeUUID();
    if (!uuid) return observer.finishEnumeratingWithError(uuid.error());
    const auto begin = token ? resumeGathering(*token, *uuid) : beginGathering();
    if (!begin) return observer.finishEnumeratingWithError(begin.error());

    const DirectoryScanOptions options{.urls = listsAllDirectories() ? urls_ : std::vector{urls_.front()},
                                       .recursively = listsAllDirectories(),
                                       .offset = begin->offset,
                                       .limit = kPageSize,
                                       .directoryEnumerationOptionsFor = directoryEnumerationOptionsFor};
    std::vector<ProviderItemPtr> items;
    const auto counter = collect(options, items);
    if (!counter) return observer.finishEnumeratingWithError(counter.error());
    environment_.items.log.debug([&] { return "discovered " + std::to_string(items.size()) + " items"; });
    observer.didEnumerateItems(items);

    if (*counter >= begin->offset && *counter - begin->offset == kPageSize) {
        observer.finishEnumeratingUpToPage(
            ChangeToken{.deviceUUID = *uuid, .streamEventID = begin->startEventID, .offset = *counter}.encode());
    } else {
        environment_.items.log.debug([&] { return "gather phase finished for " + pathsOf(options.urls); });
        observer.finishEnumeratingUpToPage(std::nullopt);
    }
}

Result<LocalFileEnumerator::GatherStart> LocalFileEnumerator::beginGathering() const {
    environment_.items.log.debug("start gather phase");
    // Only deletions upset a listing, and finding those is many times cheaper than finding every change. Without a
    // second page nobody asks what happened since the first one; a folder that grows past its page meanwhile has a
    // position that is too early at worst, and its listing begins again.
    const auto interest = fitsOnePage() ? events::Interest::nothing : events::Interest::departuresOnly;
    const auto now = environment_.events.currentEventID(urls_, interest);
    if (!now) {
        environment_.items.log.error("can't get current event ID for " + pathsOf(urls_) + "; " + describe(now.error()));
        return failure(now.error());
    }
    return GatherStart{*now, 0};
}

Result<LocalFileEnumerator::GatherStart> LocalFileEnumerator::resumeGathering(const ChangeToken& token,
                                                                              const UUID& volumeUUID) const {
    using Status = FSEventReaderGatherPhaseResumeStatus;
    auto& log = environment_.items.log;
    if (token.deviceUUID != volumeUUID) {
        log.debug("device UUID changed (" + token.deviceUUID.text() + " -> " + volumeUUID.text() + ")");
        return failure(syncAnchorExpired());
    }
    log.debug("resume gather phase at offset " + std::to_string(token.offset));
    const auto answer = canResumeGatherPhase(environment_, urls_, token.streamEventID);
    if (const auto* deletion = std::get_if<Status::DeletionOccurred>(&answer.status.value)) {
        log.debug("deletion of " + deletion->path + " requires to re-gather from scratch");
        return failure(syncAnchorExpired());
    }
    if (std::holds_alternative<Status::CantReplayHistoricalFSEvents>(answer.status.value)) {
        log.debug("can't replay historical FSEvents, need to re-start gather phase from scratch");
        return failure(syncAnchorExpired());
    }
    log.debug("safe to resume gather phase from " + std::to_string(raw(token.streamEventID)));
    return GatherStart{token.streamEventID, token.offset};
}

Result<std::uint64_t> LocalFileEnumerator::collect(const DirectoryScanOptions& options,
                                                   std::vector<ProviderItemPtr>& items) const {
    items.reserve(kPageSize);
    ParentIdentifiers parents(environment_.items);
    return scan(environment_, options, [&](const URL& url) -> Result<void> {
        if (listsAllDirectories() && isKnownToBeNoFolder(environment_.items, url)) return {};
        items::LocalItem::Arguments arguments;
        arguments.customParentItemID = parents.ofParent(url);
        auto item = items::LocalItem::initWithURL(environment_.items, url, arguments);
        if (!item || (listsAllDirectories() && !item->isFolder())) return {};
        if (shouldUpdateFileIDInGenstore_) updateFileIDInGenstore(environment_, *item);
        items.push_back(std::move(item));
        return {};
    });
}

bool LocalFileEnumerator::fitsOnePage() const {
    if (listsAllDirectories()) return false;
    const auto status = environment_.items.files.stat(urls_.front());
    return status && status->linkCount < kPageSize + 2;
}

bool LocalFileEnumerator::listsAllDirectories() const { return container_ == hostframework::kAllDirectoriesContainer; }

}  // namespace tarnwell::fs
