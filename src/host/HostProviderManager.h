#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "host/SearchIndex.h"
#include "hostframework/ProviderManager.h"
#include "platform/dispatch/SerialQueue.h"

namespace tarnwell::host {

/// What this host does for its provider. Completions and handlers run on a queue of its own,
/// "tarnwell.provider-manager", in the order of the requests. Any thread may call any operation.
class HostProviderManager : public hostframework::ProviderManager {
public:
    using SignalHandler = std::function<void(const hostframework::ItemIdentifier& container)>;
    enum class HandlerID : std::uint64_t {};

    /// `storage` is the URL of the storage root. Without an index nothing is searchable.
    HostProviderManager(const std::shared_ptr<dispatch::ThreadPool>& pool, URL storage,
                        std::shared_ptr<SearchIndex> index = nullptr);

    /// From now on the handler is told of every container that is signalled.
    HandlerID addSignalHandler(SignalHandler handler);
    /// After it returned the handler is not called again. Not from within a handler.
    void removeSignalHandler(HandlerID id);

    /// Tells the handlers, then completes without an error; no handler at all is no error either.
    void signalEnumeratorForContainer(const hostframework::ItemIdentifier& container,
                                      hostframework::Completion completion) override;
    /// Completes when nothing of the domains is in the index, or with the reason why something still is.
    void deleteSearchableItemsWithDomainIdentifiers(const std::vector<std::string>& domains,
                                                    hostframework::Completion completion) override;
    URL documentStorageURL() const override;
    Relationship relationshipToDocumentStorage(const URL& url) const override;

private:
    struct State {
        std::mutex mutex;
        std::uint64_t lastHandler = 0;
        std::map<HandlerID, SignalHandler> handlers;
    };

    std::shared_ptr<State> state_ = std::make_shared<State>();
    std::shared_ptr<dispatch::SerialQueue> queue_;
    const std::string storagePath_;
    const std::shared_ptr<SearchIndex> index_;
};

}  // namespace tarnwell::host
