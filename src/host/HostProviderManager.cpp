#include "host/HostProviderManager.h"

namespace tarnwell::host {

HostProviderManager::HostProviderManager(const std::shared_ptr<dispatch::ThreadPool>& pool, URL storage,
                                         std::shared_ptr<SearchIndex> index)
    : queue_(dispatch::SerialQueue::create(pool, "tarnwell.provider-manager")),
      storagePath_(storage.path()),
      index_(std::move(index)) {}

HostProviderManager::HandlerID HostProviderManager::addSignalHandler(SignalHandler handler) {
    const std::lock_guard lock(state_->mutex);
    const HandlerID id{++state_->lastHandler};
    state_->handlers.emplace(id, std::move(handler));
    return id;
}

void HostProviderManager::removeSignalHandler(HandlerID id) {
    queue_->sync([&] {
        const std::lock_guard lock(state_->mutex);
        state_->handlers.erase(id);
    });
}

void HostProviderManager::signalEnumeratorForContainer(const hostframework::ItemIdentifier& container,
                                                       hostframework::Completion completion) {
    queue_->async([state = state_, container, completion = std::move(completion)] {
        std::vector<SignalHandler> handlers;
        {
            const std::lock_guard lock(state->mutex);
            for (const auto& [id, handler] : state->handlers) handlers.push_back(handler);
        }
        for (const auto& handler : handlers) handler(container);
        if (completion) completion(std::nullopt);
    });
}

void HostProviderManager::deleteSearchableItemsWithDomainIdentifiers(const std::vector<std::string>& domains,
                                                                     hostframework::Completion completion) {
    queue_->async([index = index_, domains, completion = std::move(completion)] {
        const auto removed = index ? index->removeDomains(domains) : Result<void>();
        if (completion) completion(removed ? std::nullopt : std::optional(removed.error()));
    });
}

// Each caller gets a URL with a cache of its own, so that nobody sees values that another one remembered.
URL HostProviderManager::documentStorageURL() const { return URL::file(storagePath_); }

Relationship HostProviderManager::relationshipToDocumentStorage(const URL& url) const {
    return url.isFileURL() ? relationship(storagePath_, url.path()) : Relationship::other;
}

}  // namespace tarnwell::host
