#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "hostframework/Progress.h"
#include "hostframework/ProviderEnumerator.h"
#include "hostframework/ProviderManager.h"

namespace tarnwell::hostframework {

/// An item as it is after the operation, or why there is none.
using ItemCompletion = std::function<void(const Result<ProviderItemPtr>&)>;

/// The thumbnail of one of the items that were asked for: its data, or nothing where it has none.
using ThumbnailCompletion = std::function<void(const ItemIdentifier& identifier, const std::optional<Bytes>& data,
                                               const std::optional<Error>& error)>;
/// The same with the type of the data; both are there, or neither.
using TypedThumbnailCompletion =
    std::function<void(const ItemIdentifier& identifier, const std::optional<Bytes>& data,
                       const std::optional<std::string>& typeIdentifier, const std::optional<Error>& error)>;

/// In pixels.
struct ThumbnailSize {
    double width = 0, height = 0;
};

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

    /// One callback for each identifier, in the order given, then the completion. With untyped callbacks the data is an
    /// image of any type as it was found, with typed ones it is of the type that is told.
    virtual ProgressPtr fetchThumbnailsForItemIdentifiers(const std::vector<ItemIdentifier>& identifiers,
                                                          ThumbnailSize requestedSize,
                                                          const ThumbnailCompletion& perThumbnailCompletionHandler,
                                                          const Completion& completionHandler) = 0;
    virtual ProgressPtr fetchThumbnailsForItemIdentifiers(
        const std::vector<ItemIdentifier>& identifiers, ThumbnailSize requestedSize,
        const TypedThumbnailCompletion& perThumbnailCompletionHandlerWithType, const Completion& completionHandler) = 0;

    /// Where an application's documents are kept if nobody says otherwise: its app library.
    virtual void defaultApplicationContainerForBundleIdentifier(const std::string& bundleIdentifier,
                                                                const ItemCompletion& completionHandler) = 0;

    virtual Result<std::shared_ptr<ProviderEnumerator>> enumeratorForContainerItemIdentifier(
        const ItemIdentifier& identifier) = 0;
};

}  // namespace tarnwell::hostframework
