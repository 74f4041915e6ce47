#pragma once

#include <memory>
#include <optional>

#include "hostframework/ProviderEnumerator.h"
#include "hostframework/ProviderManager.h"

namespace tarnwell::hostframework {

/// The principal object that a host makes once and calls on threads of its own.
class ProviderExtension {
public:
    virtual ~ProviderExtension() = default;
    virtual Result<ProviderItemPtr> itemForIdentifier(const ItemIdentifier& identifier) = 0;
    virtual std::optional<URL> URLForItemWithPersistentIdentifier(const ItemIdentifier& identifier) = 0;
    virtual std::optional<ItemIdentifier> persistentIdentifierForItemAtURL(const URL& url) = 0;
    virtual void providePlaceholderAtURL(const URL& url, const Completion& completionHandler) = 0;
    virtual void startProvidingItemAtURL(const URL& url, const Completion& completionHandler) = 0;
    virtual void stopProvidingItemAtURL(const URL& url) = 0;
    virtual void itemChangedAtURL(const URL& url) = 0;
    virtual Result<std::shared_ptr<ProviderEnumerator>> enumeratorForContainerItemIdentifier(
        const ItemIdentifier& identifier) = 0;
};

}  // namespace tarnwell::hostframework
