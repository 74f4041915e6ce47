#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "hostframework/ProviderEnumerator.h"
#include "hostframework/ProviderManager.h"

namespace tarnwell::hostframework {

/// An item as it is after the operation, or why there is none.
using ItemCompletion = std::function<void(const Result<ProviderItemPtr>&)>;

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
    /// The operations that change things return at once; each calls its completion exactly once, on any thread.
    virtual void importDocumentAtURL(const URL& documentURL, const ItemIdentifier& toParentItemIdentifier,
                                     ItemCompletion completionHandler) = 0;
    virtual void createDirectoryWithName(const std::string& name, const ItemIdentifier& inParentItemIdentifier,
                                         ItemCompletion completionHandler) = 0;
    virtual void renameItemWithIdentifier(const ItemIdentifier& identifier, const std::string& toName,
                                          ItemCompletion completionHandler) = 0;
    virtual void reparentItemWithIdentifier(const ItemIdentifier& identifier,
                                            const ItemIdentifier& toParentItemWithIdentifier,
                                            const std::optional<std::string>& newName,
                                            ItemCompletion completionHandler) = 0;
    virtual void trashItemWithIdentifier(const ItemIdentifier& identifier, ItemCompletion completionHandler) = 0;
    virtual void untrashItemWithIdentifier(const ItemIdentifier& identifier,
                                           const std::optional<ItemIdentifier>& toParentItemIdentifier,
                                           ItemCompletion completionHandler) = 0;
    virtual void deleteItemWithIdentifier(const ItemIdentifier& identifier, Completion completionHandler) = 0;
    virtual void removeTrashedItemsOlderThanDate(Date date, Completion completionHandler) = 0;
    /// No value removes what is set.
    virtual void setLastUsedDate(const std::optional<Date>& date, const ItemIdentifier& forItemIdentifier,
                                 ItemCompletion completionHandler) = 0;
    virtual void setTagData(const std::optional<Bytes>& tagData, const ItemIdentifier& forItemIdentifier,
                            ItemCompletion completionHandler) = 0;
    virtual void setFavoriteRank(const std::optional<std::uint64_t>& rank, const ItemIdentifier& forItemIdentifier,
                                 ItemCompletion completionHandler) = 0;

    virtual Result<std::shared_ptr<ProviderEnumerator>> enumeratorForContainerItemIdentifier(
        const ItemIdentifier& identifier) = 0;
};

}  // namespace tarnwell::hostframework
