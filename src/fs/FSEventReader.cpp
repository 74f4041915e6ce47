#include "fs/FSEventReader.h"

#include <algorithm>

#include "fs/FSEventClassifier.h"
#include "items/TWPFileObjectIdentifier.h"
#include "items/TarnwellError.h"

namespace tarnwell::fs {
namespace {

constexpr const char* kQueueLabel = "tarnwell.fsevents-stream";
constexpr const char* kDocumentIDFolder = "/.docid";
constexpr std::chrono::milliseconds kLatency{500};
constexpr std::uint32_t kStreamFlags =
    events::kStreamUseDictionaries | events::kStreamFileEvents | events::kStreamUseExtendedData;
constexpr std::uint32_t kAnyDropped = events::kEventUserDropped | events::kEventKernelDropped;
constexpr std::uint32_t kNeedsNoPath = kAnyDropped | events::kEventIDsWrapped | events::kEventHistoryDone;

/// Closes a stream for good; it may be destroyed afterwards, but not inside its own callback.
void close(events::FileEventStream& stream) {
    stream.stop();
    stream.invalidate();
}

}  // namespace

std::shared_ptr<FSEventReader> FSEventReader::create(const FSEnvironment& environment, Configuration configuration) {
    return std::shared_ptr<FSEventReader>(new FSEventReader(environment, std::move(configuration)));
}

FSEventReader::FSEventReader(const FSEnvironment& environment, Configuration configuration)
    : environment_(environment),
      configuration_(std::move(configuration)),
      streamQueue_(dispatch::SerialQueue::create(environment.pool, kQueueLabel)),
      lastProcessedFSEventID_(configuration_.toldUpTo.value_or(configuration_.since)) {}

FSEventReader::~FSEventReader() {
    if (!stream_) return;
    environment_.items.log.error("stream deleted without being stopped; " + description());
    close(*stream_);
    // On the queue this may be inside the stream's own callback, which held the last reference.
    if (streamQueue_->isCurrent()) streamQueue_->async([stream = std::move(stream_)] {});
}

EventID FSEventReader::lastProcessedFSEventID() const {
    streamQueue_->assertCurrent();
    return lastProcessedFSEventID_;
}

std::uint32_t FSEventReader::currentEventFlags() const {
    streamQueue_->assertCurrent();
    return currentEventFlags_;
}

std::string FSEventReader::description() const {
    std::string text = "<FSEventReader since:" + std::to_string(raw(lastProcessedFSEventID_)) + " urls:[";
    const char* separator = "";
    for (const URL& url : configuration_.urls) {
        text += separator + url.text();
        separator = ", ";
    }
    return text + "] mode:" + (configuration_.mode == Mode::pathBased ? "pathBased" : "docIDBased") + ">";
}

Result<UUID> FSEventReader::deviceUUID(const FSEnvironment& environment, const URL& url) {
    const auto device = items::TWPFileObjectIdentifier(environment.items).deviceID(url);
    if (device) {
        if (auto uuid = environment.events.deviceUUID(*device)) return uuid;
    }
    return failure(items::makeError(items::DeviceUUIDError::unableToGetDeviceUUID));
}

Result<events::StreamOptions> FSEventReader::streamOptions() const {
    events::StreamOptions options{.over = events::StreamOverPaths{configuration_.urls},
                                  .since = lastProcessedFSEventID_,
                                  .latency = kLatency,
                                  .flags = kStreamFlags,
                                  .interest = configuration_.interest,
                                  .historyDelay = configuration_.historyDelay,
                                  .begunAt = configuration_.since,
                                  .upTo = configuration_.upTo};
    if (configuration_.mode == Mode::docIDBased) {
        const URL storage = environment_.items.providerManager.documentStorageURL();
        const auto device = items::TWPFileObjectIdentifier(environment_.items).deviceIDWithError(storage);
        if (!device) return failure(device.error());
        options.over = events::StreamOverDevice{*device, kDocumentIDFolder};
    }
    return options;
}

void FSEventReader::start() {
    streamQueue_->assertCurrent();
    if (stream_) return;
    isStopping_ = false;
    environment_.items.log.debug([this] { return "starting " + description(); });
    auto options = streamOptions();
    if (!options) return failToStart(describe(options.error()));

    auto stream = environment_.events.createStream(
        std::move(*options), [weakSelf = weak_from_this()](const std::vector<events::FileEvent>& batch) {
            if (auto self = weakSelf.lock()) self->receive(batch);
        });
    if (!stream) fatal("can't create the stream of " + description() + "; " + describe(stream.error()));
    stream_ = std::move(*stream);
    stream_->setQueue(streamQueue_);
    if (!stream_->start()) {
        releaseStream();
        failToStart("the stream refused");
    }
}

/// Whoever waits for the history must hear that it cannot be told.
void FSEventReader::failToStart(const std::string& reason) {
    environment_.items.log.error("can't start " + description() + "; " + reason);
    streamQueue_->async([self = shared_from_this()] {
        if (auto delegate = self->delegate_.lock()) {
            delegate->eventsDropped();
            delegate->batchFinished();
        }
    });
}

void FSEventReader::stop() {
    streamQueue_->assertCurrent();
    if (!stream_) return;
    environment_.items.log.debug([this] { return "stopped " + description(); });
    releaseStream();
}

void FSEventReader::stopSoon() {
    streamQueue_->assertCurrent();
    isStopping_ = true;
    streamQueue_->async([self = shared_from_this()] { self->stop(); });
}

void FSEventReader::releaseStream() {
    close(*stream_);
    if (isReceiving_) {
        streamQueue_->async([stream = std::move(stream_)] {});
    } else {
        stream_.reset();
    }
}

void FSEventReader::receive(const std::vector<events::FileEvent>& batch) {
    streamQueue_->assertCurrent();
    isReceiving_ = true;
    environment_.items.log.debug([&] { return "fsevent: received " + std::to_string(batch.size()) + " events"; });
    if (configuration_.verbose) logEvents(batch);
    const auto delegate = delegate_.lock();
    for (std::size_t index = 0; index < batch.size() && !isStopping_; ++index) {
        handle(batch[index], index, delegate.get());
    }
    if (delegate && !isStopping_) delegate->batchFinished();
    isReceiving_ = false;
}

void FSEventReader::logEvents(const std::vector<events::FileEvent>& batch) const {
    environment_.items.log.debug([&] {
        std::string text = "fsevents:";
        const char* separator = " ";
        for (const auto& event : batch) {
            if (!event.path) continue;
            text += separator + items::quoted(*event.path) +
                    " fileID:" + (event.fileID ? std::to_string(raw(*event.fileID)) : "unspecified") +
                    " eventID:" + std::to_string(raw(event.id));
            separator = ", ";
        }
        return text;
    });
}

void FSEventReader::handle(const events::FileEvent& event, std::size_t index, FSEventReaderDelegate* delegate) {
    auto& log = environment_.items.log;
    lastProcessedFSEventID_ = std::max(lastProcessedFSEventID_, event.id);
    currentEventFlags_ = event.flags;
    if (!event.path && (event.flags & kNeedsNoPath) == 0) {
        log.error("ignore event " + std::to_string(index) + " because no path can be extracted");
        return;
    }
    if (event.flags & events::kEventIDsWrapped) {
        log.info("fsevents id wrapped");
        if (delegate) delegate->eventsDropped();
    } else if (event.flags & kAnyDropped) {
        if (configuration_.verbose) log.info("dropped fsevents");
        if (delegate) delegate->eventsDropped();
    } else if (event.flags & events::kEventHistoryDone) {
        log.debug("done processing history");
        if (delegate) delegate->historyDone();
    } else {
        const FSEventClassifier classifier(environment_, configuration_.urls);
        const auto result = configuration_.mode == Mode::pathBased ? classifier.classifyPath(event, *event.path)
                                                                   : classifier.classifyDocumentIDChange(*event.path);
        switch (result.kind) {
            case ClassifiedEvent::Kind::dropped:
                break;
            case ClassifiedEvent::Kind::deleted:
                log.debug([&] { return "did delete " + result.url.text(); });
                if (delegate) delegate->itemDeleted(result.url, nullptr);
                break;
            case ClassifiedEvent::Kind::changed:
                log.debug([&] { return "did change " + result.url.text(); });
                if (delegate) delegate->itemChanged(result.url, result.item);
                break;
        }
    }
}

}  // namespace tarnwell::fs
