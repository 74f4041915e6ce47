#include "fs/FSChangesNotifier.h"

#include "hostframework/ItemIdentifier.h"
#include "hostframework/ProviderManager.h"

namespace tarnwell::fs {

using hostframework::kRootContainer;
using hostframework::kWorkingSetContainer;

/// An enumerator that lists a folder and is ended at once, as in a listing of a whole tree, needs no look at all that
/// lies below it.
constexpr std::chrono::milliseconds kHistoryDelay{500};

std::shared_ptr<FSChangesNotifier> FSChangesNotifier::create(const FSEnvironment& environment, std::string container,
                                                             std::vector<URL> urls) {
    if (urls.empty()) fatal("require at least one URL to init a change notifier");
    const auto uuid = FSEventReader::deviceUUID(environment, urls.front());
    if (!uuid) {
        environment.items.log.error("can't get volume UUID for " + items::quoted(urls.front().path()));
        return nullptr;
    }
    // The stream compares with the disk when it starts, so what is recorded already is a good enough "now".
    auto reader = FSEventReader::create(environment, {.urls = std::move(urls),
                                                      .since = environment.events.recordedEventID(),
                                                      .mode = FSEventReader::Mode::pathBased,
                                                      .verbose = true,
                                                      .interest = events::Interest::everything,
                                                      .historyDelay = kHistoryDelay});
    auto notifier = std::shared_ptr<FSChangesNotifier>(
        new FSChangesNotifier(environment, std::move(container), *uuid, std::move(reader)));
    notifier->reader_->setDelegate(notifier);
    return notifier;
}

FSChangesNotifier::FSChangesNotifier(const FSEnvironment& environment, std::string container, UUID deviceUUID,
                                     std::shared_ptr<FSEventReader> reader)
    : environment_(environment),
      container_(std::move(container)),
      reader_(std::move(reader)),
      deviceUUID_(deviceUUID) {}

void FSChangesNotifier::start() {
    isStarted_.store(true);
    reader_->streamQueue()->async([reader = reader_] { reader->start(); });
}

void FSChangesNotifier::stop() {
    isStarted_.store(false);
    reader_->streamQueue()->async([reader = reader_] { reader->stop(); });
}

void FSChangesNotifier::itemChanged(const URL&, const std::shared_ptr<const items::LocalItem>&) { noteChange(); }

void FSChangesNotifier::itemDeleted(const URL&, const std::shared_ptr<const items::LocalItem>&) { noteChange(); }

void FSChangesNotifier::historyDone() { reader_->streamQueue()->assertCurrent(); }

void FSChangesNotifier::eventsDropped() { noteChange(); }

void FSChangesNotifier::batchFinished() {
    reader_->streamQueue()->assertCurrent();
    if (!shouldSignalChange_) return;
    if (container_ != kWorkingSetContainer) signalChange(kRootContainer);
    signalChange(kWorkingSetContainer);
}

void FSChangesNotifier::noteChange() {
    reader_->streamQueue()->assertCurrent();
    shouldSignalChange_ = true;
}

void FSChangesNotifier::signalChange(const std::string& container) {
    environment_.items.log.info("notify changes on " + container);
    environment_.items.providerManager.signalEnumeratorForContainer(container, [](const std::optional<Error>&) {});
}

}  // namespace tarnwell::fs
