#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "hostframework/Pacer.h"
#include "hostframework/ProviderExtension.h"
#include "provider/ItemCreation.h"
#include "provider/ItemLookup.h"
#include "provider/ProviderContext.h"
#include "provider/Thumbnails.h"
#include "provider/TrashCleanup.h"
#include "provider/UserMetadata.h"

namespace tarnwell::provider {

/// The principal object, made once by a host, which calls it on threads of its own, several at once. It keeps no items,
/// URLs or enumerators; its only state is that of the app refresh.
class LocalProvider : public hostframework::ProviderExtension, public std::enable_shared_from_this<LocalProvider> {
public:
    using RefreshCompletion = std::function<void()>;

    /// Starts with one app refresh pending and one signal of the working set.
    static std::shared_ptr<LocalProvider> create(const ProviderContext& context);

    /// Fails with TarnwellError::invalidItemIdentifier.
    Result<hostframework::ProviderItemPtr> itemForIdentifier(const hostframework::ItemIdentifier& identifier) override;
    std::optional<URL> URLForItemWithPersistentIdentifier(const hostframework::ItemIdentifier& identifier) override;
    std::optional<hostframework::ItemIdentifier> persistentIdentifierForItemAtURL(const URL& url) override;

    /// The same two lookups for callers inside. A URL that is not found is silent.
    std::optional<URL> urlForItemWithPersistentIdentifier(const hostframework::ItemIdentifier& identifier) const;
    std::optional<hostframework::ItemIdentifier> persistentIdentifierForItemAt(const URL& url) const;

    /// Every item is always on the device: both complete at once without an error, and touch no file.
    void providePlaceholderAtURL(const URL& url, const hostframework::Completion& completionHandler) override;
    void startProvidingItemAtURL(const URL& url, const hostframework::Completion& completionHandler) override;
    /// Nothing to do: changes are found by the event stream.
    void stopProvidingItemAtURL(const URL& url) override;
    void itemChangedAtURL(const URL& url) override;

    /// See ItemCreation.
    void importDocumentAtURL(const URL& documentURL, const hostframework::ItemIdentifier& toParentItemIdentifier,
                             hostframework::ItemCompletion completionHandler) override;
    void createDirectoryWithName(const std::string& name, const hostframework::ItemIdentifier& inParentItemIdentifier,
                                 hostframework::ItemCompletion completionHandler) override;
    void renameItemWithIdentifier(const hostframework::ItemIdentifier& identifier, const std::string& toName,
                                  hostframework::ItemCompletion completionHandler) override;
    void reparentItemWithIdentifier(const hostframework::ItemIdentifier& identifier,
                                    const hostframework::ItemIdentifier& toParentItemWithIdentifier,
                                    const std::optional<std::string>& newName,
                                    hostframework::ItemCompletion completionHandler) override;
    /// See Trash and TrashCleanup.
    void trashItemWithIdentifier(const hostframework::ItemIdentifier& identifier,
                                 hostframework::ItemCompletion completionHandler) override;
    void untrashItemWithIdentifier(const hostframework::ItemIdentifier& identifier,
                                   const std::optional<hostframework::ItemIdentifier>& toParentItemIdentifier,
                                   hostframework::ItemCompletion completionHandler) override;
    void deleteItemWithIdentifier(const hostframework::ItemIdentifier& identifier,
                                  hostframework::Completion completionHandler) override;
    void removeTrashedItemsOlderThanDate(Date date, hostframework::Completion completionHandler) override;
    /// See UserMetadata.
    void setLastUsedDate(const std::optional<Date>& date, const hostframework::ItemIdentifier& forItemIdentifier,
                         hostframework::ItemCompletion completionHandler) override;
    void setTagData(const std::optional<Bytes>& tagData, const hostframework::ItemIdentifier& forItemIdentifier,
                    hostframework::ItemCompletion completionHandler) override;
    void setFavoriteRank(const std::optional<std::uint64_t>& rank,
                         const hostframework::ItemIdentifier& forItemIdentifier,
                         hostframework::ItemCompletion completionHandler) override;

    /// See Thumbnails.
    hostframework::ProgressPtr fetchThumbnailsForItemIdentifiers(
        const std::vector<hostframework::ItemIdentifier>& identifiers, hostframework::ThumbnailSize requestedSize,
        const hostframework::ThumbnailCompletion& perThumbnailCompletionHandler,
        const hostframework::Completion& completionHandler) override;
    hostframework::ProgressPtr fetchThumbnailsForItemIdentifiers(
        const std::vector<hostframework::ItemIdentifier>& identifiers, hostframework::ThumbnailSize requestedSize,
        const hostframework::TypedThumbnailCompletion& perThumbnailCompletionHandlerWithType,
        const hostframework::Completion& completionHandler) override;

    /// The app library of an installed application, on the calling thread. Fails with the host's "invalid parameter"
    /// for "bundleIdentifier" where there is no such application, or it keeps no documents.
    void defaultApplicationContainerForBundleIdentifier(
        const std::string& bundleIdentifier, const hostframework::ItemCompletion& completionHandler) override;

    /// A root enumerator for RootContainer, WorkingSetContainer and AllDirectoriesContainer, else a local file
    /// enumerator of the folder; its live updates are started. Fails with the host's "no such item".
    Result<std::shared_ptr<hostframework::ProviderEnumerator>> enumeratorForContainerItemIdentifier(
        const hostframework::ItemIdentifier& identifier) override;

    /// Asks for a look at the installed applications soon and returns at once. The completion runs on `appRefreshQueue`
    /// when that look is done, and again after every later one; an empty one asks for the look alone.
    void refreshInstalledAppsWithCompletionHandler(RefreshCompletion completionHandler);

    const std::shared_ptr<dispatch::SerialQueue>& appRefreshQueue() const { return appRefreshQueue_; }
    hostframework::Pacer& appRefreshPacer() { return *appRefreshPacer_; }
    const ItemLookup& lookup() const { return lookup_; }

private:
    explicit LocalProvider(const ProviderContext& context);
    void startUp();
    void pacerEvent();
    void notifyChanges(const hostframework::ItemIdentifier& container);
    std::shared_ptr<hostframework::ProviderEnumerator> rootEnumerator(
        const hostframework::ItemIdentifier& identifier) const;

    const ProviderContext context_;
    const ItemLookup lookup_;
    const ItemCreation creation_;
    const Trash trash_;
    const TrashCleanup trashCleanup_;
    const UserMetadata userMetadata_;
    const Thumbnails thumbnails_;
    /// On `appRefreshQueue_` only. Never emptied.
    std::vector<RefreshCompletion> appRefreshCompletionHandlers_;
    const std::shared_ptr<dispatch::SerialQueue> appRefreshQueue_;
    const std::unique_ptr<hostframework::Pacer> appRefreshPacer_;
};

}  // namespace tarnwell::provider
