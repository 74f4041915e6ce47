#include "tests/deep/DeepDevice.h"

#include <future>
#include <mutex>

#include "items/TWPFileObjectIdentifier.h"

namespace tarnwell::deep {

namespace {

/// Keeps what one page brought.
class PageRecorder : public hostframework::EnumerationObserver {
public:
    void didEnumerateItems(const std::vector<hostframework::ProviderItemPtr>& batch) override {
        outcome.items.insert(outcome.items.end(), batch.begin(), batch.end());
    }
    void finishEnumeratingUpToPage(const std::optional<hostframework::EnumerationPage>& page) override {
        ++outcome.finishes;
        outcome.next = page;
    }
    void finishEnumeratingWithError(const Error& error) override {
        ++outcome.finishes;
        outcome.error = error;
    }
    PageOutcome outcome;
};

/// Keeps what a reader tells until the history is done.
class HistoryRecorder : public fs::FSEventReaderDelegate {
public:
    explicit HistoryRecorder(std::string root) : root_(std::move(root)) {}

    void itemChanged(const URL& url, const std::shared_ptr<const items::LocalItem>& item) override {
        if (!done_) changes_.push_back({false, item->itemIdentifier(), below(url), item});
    }
    void itemDeleted(const URL& url, const std::shared_ptr<const items::LocalItem>&) override {
        if (done_) return;
        std::string identifier;
        if (const auto document = url.cache().documentID()) {
            identifier = items::TWPFileObjectIdentifier::fromDocumentID(raw(*document));
        } else if (const auto file = url.cache().fileID()) {
            identifier = items::TWPFileObjectIdentifier::fromFileID(raw(*file));
        }
        changes_.push_back({true, identifier, below(url), nullptr});
    }
    void historyDone() override { finish(std::move(changes_)); }
    void eventsDropped() override { finish(std::nullopt); }
    void batchFinished() override {}

    std::optional<std::vector<ToldChange>> wait() { return told_.get_future().get(); }

private:
    std::string below(const URL& url) const {
        return url.path().size() > root_.size() ? url.path().substr(root_.size() + 1) : std::string();
    }
    void finish(std::optional<std::vector<ToldChange>> told) {
        if (!std::exchange(done_, true)) told_.set_value(std::move(told));
    }

    const std::string root_;
    std::vector<ToldChange> changes_;
    bool done_ = false;
    std::promise<std::optional<std::vector<ToldChange>>> told_;
};

}  // namespace

DeepDevice::DeepDevice() { open(); }

DeepDevice::~DeepDevice() { close(); }

void DeepDevice::open() {
    device_.log().setThreshold(log::Level::error);
    environment_.emplace(fs::FSEnvironment{device_.environment(), device_.events(), device_.pool()});
    appLibraries_ = std::make_unique<applibraries::AppLibraryContext>(device_.environment(), device_.registry(),
                                                                      device_.pool(), device_.applicationSupport());
    appLibraries_->sharedManager();
    provider_ = provider::LocalProvider::create(
        provider::ProviderContext{*environment_, *appLibraries_, device_.fileOperations(), device_.accessScopes(),
                                  device_.deviceInfo(), device_.iconRenderer()});
}

void DeepDevice::close() {
    provider_.reset();
    // What enumerators and readers put on their queues when they ended still uses the services.
    device_.pool()->waitUntilQuiet();
    appLibraries_.reset();
    environment_.reset();
}

void DeepDevice::restart() {
    close();
    device_.restart();
    open();
}

Result<std::vector<host::ListedItem>> DeepDevice::list(const std::string& container, host::Depth depth) {
    return host::listContainer(*provider_, container, {.depth = depth, .progress = {}});
}

PageOutcome DeepDevice::page(const std::string& container, const hostframework::EnumerationPage& page) {
    auto enumerator = provider_->enumeratorForContainerItemIdentifier(container);
    if (!enumerator) return {.items = {}, .next = {}, .error = enumerator.error(), .finishes = 1};
    auto outcome = pageOf(**enumerator, page);
    (*enumerator)->invalidate();
    return outcome;
}

PageOutcome pageOf(hostframework::ProviderEnumerator& enumerator, const hostframework::EnumerationPage& page) {
    const auto recorder = std::make_shared<PageRecorder>();
    enumerator.enumerateItemsForObserver(recorder, page);
    return std::move(recorder->outcome);
}

std::optional<std::string> DeepDevice::identifierOf(const std::string& relative) {
    return provider_->persistentIdentifierForItemAtURL(device_.url(relative));
}

std::optional<std::vector<ToldChange>> DeepDevice::changesSince(EventID since) {
    const URL root = device_.url();
    const auto reader = fs::FSEventReader::create(*environment_, {.urls = {root}, .since = since});
    const auto recorder = std::make_shared<HistoryRecorder>(root.path());
    reader->setDelegate(recorder);
    reader->streamQueue()->async([reader] { reader->start(); });
    auto told = recorder->wait();
    reader->streamQueue()->sync([&] { reader->stop(); });
    return told;
}

}  // namespace tarnwell::deep
