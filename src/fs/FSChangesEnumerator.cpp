#include "fs/FSChangesEnumerator.h"

#include <algorithm>

#include "fs/DirectoryScan.h"
#include "fs/FSEventClassifier.h"
#include "fs/FileIDUpdate.h"
#include "fs/GatherPhaseResumeCheck.h"
#include "fs/LocalFileEnumerator.h"
#include "hostframework/HostError.h"
#include "items/TWPFileObjectIdentifier.h"

namespace tarnwell::fs {
namespace {

using hostframework::ChangeObserver;
using items::TWPFileObjectIdentifier;

constexpr std::string_view kAppLibraryPrefix = "#";
constexpr std::string_view kFolderPrefix = "fid=";

/// The identifier by which clients know an object that is gone: what the reader kept of it with the URL.
std::optional<std::string> identifierOfDeleted(const URL& url) {
    if (const auto document = url.cache().documentID()) return TWPFileObjectIdentifier::fromDocumentID(raw(*document));
    if (const auto file = url.cache().fileID()) return TWPFileObjectIdentifier::fromFileID(raw(*file));
    return std::nullopt;
}

}  // namespace

std::shared_ptr<FSChangesEnumerator> FSChangesEnumerator::create(const FSEnvironment& environment,
                                                                 const ChangeToken& token, std::string container,
                                                                 std::vector<URL> urls,
                                                                 std::shared_ptr<ChangeObserver> observer) {
    if (urls.empty()) fatal("require at least one URL to init a change enumerator");
    std::shared_ptr<FSChangesEnumerator> enumerator(
        new FSChangesEnumerator(environment, token, std::move(container), std::move(urls), std::move(observer)));
    if (auto takenUp = enumerator->takeUp(); !takenUp) enumerator->refusal_ = takenUp.error();
    enumerator->reader_ = enumerator->makeReader(FSEventReader::Mode::pathBased);
    return enumerator;
}

FSChangesEnumerator::FSChangesEnumerator(const FSEnvironment& environment, const ChangeToken& token,
                                         std::string container, std::vector<URL> urls,
                                         std::shared_ptr<ChangeObserver> observer)
    : environment_(environment),
      currentToken_(token),
      container_(std::move(container)),
      urls_(std::move(urls)),
      observer_(std::move(observer)),
      sinceFSEventID_(token.streamEventID),
      reached_{.path = sinceFSEventID_, .document = sinceFSEventID_} {}

std::shared_ptr<FSEventReader> FSChangesEnumerator::makeReader(FSEventReader::Mode mode) const {
    const bool byPath = mode == FSEventReader::Mode::pathBased;
    return FSEventReader::create(environment_,
                                 {.urls = urls_,
                                  .since = sinceFSEventID_,
                                  .mode = mode,
                                  .verbose = true,
                                  .interest = byPath ? events::Interest::everything : events::Interest::nothing,
                                  .toldUpTo = byPath ? reached_.path : reached_.document,
                                  .upTo = byPath ? std::nullopt : maxFSEventID_});
}

std::shared_ptr<FSEventReader> FSChangesEnumerator::reader() const {
    const std::lock_guard lock(readerMutex_);
    return reader_;
}

/// Goes on behind the batch that ended with the token. What is not known of it any more cannot be told exactly.
Result<void> FSChangesEnumerator::takeUp() {
    if (currentToken_.offset == 0) return {};
    const auto known = environment_.events.continuationOf({container_, sinceFSEventID_, currentToken_.offset});
    if (!known) return failure(known.error());
    if (!*known) return failure(hostframework::syncAnchorExpired());
    reached_ = **known;
    numberOfChanges_ = currentToken_.offset;
    return {};
}

void FSChangesEnumerator::start() {
    reader()->streamQueue()->async([self = shared_from_this()] { self->begin(); });
}

void FSChangesEnumerator::stop() {
    const auto current = reader();
    current->streamQueue()->async([self = shared_from_this(), current] {
        // Replaced by the other pass meanwhile: that one is at work on its own queue.
        if (self->reader() != current) return self->stop();
        self->isFinished_ = true;
        current->stop();
    });
}

void FSChangesEnumerator::begin() {
    if (isFinished_) return;
    if (refusal_) {
        if (refusal_->is(ErrorDomain::host, hostframework::kSyncAnchorExpired)) return eventsDropped();
        return fail(*refusal_);
    }
    if (reached_.folder) goOnInFolder();
    if (isFinished_) return;
    const auto reader = this->reader();
    reader->setDelegate(weak_from_this());
    reader->start();
}

// ---- contents of folders that came in ----------------------------------------------------------------------------

void FSChangesEnumerator::goOnInFolder() {
    const FileID folder = *reached_.folder;
    const auto url = TWPFileObjectIdentifier(environment_.items).fileURLWithFileIdentifier(raw(folder));
    if (!url || !isBelowOneOf(urls_, *url) || !environment_.items.files.isFolder(*url)) {
        // It went on or away, or became a package: its own records tell that.
        reached_.folder.reset();
        return;
    }
    using Status = FSEventReaderGatherPhaseResumeStatus;
    const auto answer = canResumeGatherPhase(environment_, {*url}, reached_.folderSince);
    const bool canResume = std::holds_alternative<Status::CanResume>(answer.status.value);
    deliverContents(*url, folder, canResume ? reached_.folderOffset : 0,
                    canResume ? reached_.folderSince : answer.presentEventID);
}

void FSChangesEnumerator::deliverContents(const URL& folder, FileID fileID, std::uint64_t offset, EventID since) {
    environment_.items.log.debug(
        [&] { return "scanning folder " + folder.path() + " from offset " + std::to_string(offset); });
    reached_.folder = fileID;
    reached_.folderOffset = offset;
    reached_.folderSince = since;
    for (;;) {
        const std::uint64_t begin = reached_.folderOffset;
        const std::uint64_t room = currentToken_.offset + kBatchSize - numberOfChanges_;
        const auto counter =
            scan(environment_,
                 {.urls = {folder},
                  .recursively = true,
                  .offset = begin,
                  .limit = room,
                  .directoryEnumerationOptionsFor = LocalFileEnumerator::directoryEnumerationOptionsFor},
                 [this](const URL& url) -> Result<void> {
                     ++reached_.folderOffset;
                     if (auto item = items::LocalItem::initWithURL(environment_.items, url, {})) forwardUpdate(item, 0);
                     return {};
                 });
        if (isFinished_) return;
        if (!counter) return fail(counter.error());
        // A full window that did not finish the batch held items that this container is not told of.
        if (*counter < begin + room) break;
    }
    reached_.folder.reset();
}

// ---- what the reader reports ---------------------------------------------------------------------------------------

void FSChangesEnumerator::itemChanged(const URL& url, const std::shared_ptr<const items::LocalItem>& item) {
    if (isFinished_ || !item) return;
    noteProgress();
    const std::uint32_t flags = reader()->currentEventFlags();
    // One that became a package meanwhile is one document.
    const bool bringsContents = (flags & events::kEventItemBroughtContents) != 0 && item->isFolder() && item->fileID();
    const EventID now = environment_.events.recordedEventID();
    if (bringsContents) {
        // Before the folder itself is told of: that may be what fills the batch.
        reached_.folder = item->fileID();
        reached_.folderOffset = 0;
        reached_.folderSince = now;
    }
    forwardUpdate(item, flags);
    if (bringsContents && !isFinished_) deliverContents(url, *item->fileID(), 0, now);
}

void FSChangesEnumerator::itemDeleted(const URL& url, const std::shared_ptr<const items::LocalItem>& item) {
    if (isFinished_) return;
    noteProgress();
    const auto identifier = item ? std::optional(item->itemIdentifier()) : identifierOfDeleted(url);
    if (!identifier || !isForContainer(*identifier)) return;
    if (container_ == hostframework::kRootContainer && item && !identifier->starts_with(kAppLibraryPrefix)) {
        // The object at hand stands somewhere still; the store is to know where.
        reader()->streamQueue()->async(
            [self = shared_from_this(), item] { updateFileIDInGenstore(self->environment_, *item); });
    }
    if (!countIn()) return;
    environment_.items.log.debug([&] { return "forward deletion of " + *identifier; });
    observer_->didDeleteItemsWithIdentifiers({*identifier});
    countOut();
}

void FSChangesEnumerator::forwardUpdate(const std::shared_ptr<const items::LocalItem>& item, std::uint32_t flags) {
    if (isFinished_ || !isForContainer(*item) || !countIn()) return;
    environment_.items.log.debug([&] {
        const bool isMoved = (flags & events::kEventItemRenamed) != 0;
        return "forward update of " + item->description() + (isMoved ? " to " + item->parentItemIdentifier() : "");
    });
    observer_->didUpdateItems({item});
    countOut();
}

bool FSChangesEnumerator::isForContainer(const items::LocalItem& item) const {
    auto& log = environment_.items.log;
    if (container_ == hostframework::kWorkingSetContainer && item.itemIdentifier().starts_with(kAppLibraryPrefix)) {
        log.debug([&] { return "ignore update of " + item.description() + "; app library are not indexed"; });
        return false;
    }
    if (container_ == hostframework::kAllDirectoriesContainer && !item.isFolder()) {
        log.debug([&] {
            return "ignore update of " + item.description() + "; item is not a directory of " + urls_.front().path();
        });
        return false;
    }
    return true;
}

bool FSChangesEnumerator::isForContainer(const std::string& deletedIdentifier) const {
    auto& log = environment_.items.log;
    if (container_ == hostframework::kWorkingSetContainer && deletedIdentifier.starts_with(kAppLibraryPrefix)) {
        log.debug("ignore update of " + deletedIdentifier + "; app library are not indexed");
        return false;
    }
    if (container_ == hostframework::kAllDirectoriesContainer && !deletedIdentifier.starts_with(kFolderPrefix)) {
        log.debug("ignore update of " + deletedIdentifier + "; item is not a directory");
        return false;
    }
    return true;
}

void FSChangesEnumerator::noteProgress() {
    const EventID processed = reader()->lastProcessedFSEventID();
    (shouldProcessedFSEventsDocIDBased_ ? reached_.path : reached_.document) = processed;
}

bool FSChangesEnumerator::countIn() { return ++numberOfChanges_ > currentToken_.offset; }

void FSChangesEnumerator::countOut() {
    if (numberOfChanges_ - currentToken_.offset != kBatchSize) return;
    currentToken_.offset = numberOfChanges_;
    // Before the token leaves: what it stands for must be known when it comes back.
    const auto kept =
        environment_.events.rememberContinuation({container_, sinceFSEventID_, currentToken_.offset}, reached_);
    if (!kept) return fail(kept.error());
    finish(true);
}

void FSChangesEnumerator::historyDone() {
    // By path it is the present; by document ID it ends where that ended.
    if (!maxFSEventID_) maxFSEventID_ = reader()->lastProcessedFSEventID();
}

void FSChangesEnumerator::eventsDropped() {
    if (isFinished_) return;
    environment_.items.log.debug("fetching changes did finish after reset");
    fail(hostframework::syncAnchorExpired());
}

void FSChangesEnumerator::batchFinished() {
    if (isFinished_) return;
    const EventID processed = reader()->lastProcessedFSEventID();
    if (!maxFSEventID_ || raw(processed) < raw(*maxFSEventID_)) return;
    maxFSEventID_ = std::max(*maxFSEventID_, processed);
    if (shouldProcessedFSEventsDocIDBased_) return startDocumentPass();
    environment_.items.log.debug("fetching changes did catch up");
    currentToken_.streamEventID = *maxFSEventID_;
    currentToken_.offset = 0;
    finish(false);
}

void FSChangesEnumerator::startDocumentPass() {
    environment_.items.log.debug("processed all FSEvents path based, carry on with the docID based");
    shouldProcessedFSEventsDocIDBased_ = false;
    reached_.path = *maxFSEventID_;
    // Here and now, since this is its queue: nothing more of it may come beside what the other one reports on another.
    reader()->stop();
    auto next = makeReader(FSEventReader::Mode::docIDBased);
    next->setDelegate(weak_from_this());
    {
        const std::lock_guard lock(readerMutex_);
        reader_ = next;
    }
    next->streamQueue()->async([next, self = shared_from_this()] { next->start(); });
}

// ---- the end -------------------------------------------------------------------------------------------------------

void FSChangesEnumerator::finish(bool moreComing) {
    isFinished_ = true;
    reader()->stopSoon();
    observer_->finishEnumeratingChangesUpToSyncAnchor(currentToken_.encode(), moreComing);
}

void FSChangesEnumerator::fail(const Error& error) {
    isFinished_ = true;
    reader()->stopSoon();
    observer_->finishEnumeratingWithError(error);
}

}  // namespace tarnwell::fs
