#pragma once

#include <optional>

#include "hostframework/HostError.h"
#include "hostframework/ProviderExtension.h"

namespace tarnwell::host {

/// A provider that knows no item; what a test plays are its enumerators.
class StubProvider : public hostframework::ProviderExtension {
    using Identifier = hostframework::ItemIdentifier;
    using ItemCompletion = hostframework::ItemCompletion;

public:
    Result<hostframework::ProviderItemPtr> itemForIdentifier(const hostframework::ItemIdentifier& identifier) override {
        return failure(hostframework::noSuchItem(identifier));
    }
    std::optional<URL> URLForItemWithPersistentIdentifier(const hostframework::ItemIdentifier&) override {
        return std::nullopt;
    }
    std::optional<hostframework::ItemIdentifier> persistentIdentifierForItemAtURL(const URL&) override {
        return std::nullopt;
    }
    void providePlaceholderAtURL(const URL&, const hostframework::Completion&) override {}
    void startProvidingItemAtURL(const URL&, const hostframework::Completion&) override {}
    void stopProvidingItemAtURL(const URL&) override {}
    void itemChangedAtURL(const URL&) override {}
    void importDocumentAtURL(const URL&, const Identifier& parent, ItemCompletion completion) override {
        completion(unknown(parent));
    }
    void createDirectoryWithName(const std::string&, const Identifier& parent, ItemCompletion completion) override {
        completion(unknown(parent));
    }
    void renameItemWithIdentifier(const Identifier& item, const std::string&, ItemCompletion completion) override {
        completion(unknown(item));
    }
    void reparentItemWithIdentifier(const Identifier& item, const Identifier&, const std::optional<std::string>&,
                                    ItemCompletion completion) override {
        completion(unknown(item));
    }
    void trashItemWithIdentifier(const Identifier& item, ItemCompletion completion) override {
        completion(unknown(item));
    }
    void untrashItemWithIdentifier(const Identifier& item, const std::optional<Identifier>&,
                                   ItemCompletion completion) override {
        completion(unknown(item));
    }
    void deleteItemWithIdentifier(const Identifier& item, hostframework::Completion completion) override {
        completion(hostframework::noSuchItem(item));
    }
    void removeTrashedItemsOlderThanDate(Date, hostframework::Completion completion) override {
        completion(std::nullopt);
    }
    void setLastUsedDate(const std::optional<Date>&, const Identifier& item, ItemCompletion completion) override {
        completion(unknown(item));
    }
    void setTagData(const std::optional<Bytes>&, const Identifier& item, ItemCompletion completion) override {
        completion(unknown(item));
    }
    void setFavoriteRank(const std::optional<std::uint64_t>&, const Identifier& item,
                         ItemCompletion completion) override {
        completion(unknown(item));
    }

    hostframework::ProgressPtr fetchThumbnailsForItemIdentifiers(const std::vector<Identifier>&,
                                                                 hostframework::ThumbnailSize,
                                                                 const hostframework::ThumbnailCompletion&,
                                                                 const hostframework::Completion& completion) override {
        completion(std::nullopt);
        return std::make_shared<hostframework::Progress>(0);
    }
    hostframework::ProgressPtr fetchThumbnailsForItemIdentifiers(const std::vector<Identifier>&,
                                                                 hostframework::ThumbnailSize,
                                                                 const hostframework::TypedThumbnailCompletion&,
                                                                 const hostframework::Completion& completion) override {
        completion(std::nullopt);
        return std::make_shared<hostframework::Progress>(0);
    }
    void defaultApplicationContainerForBundleIdentifier(const std::string& bundleIdentifier,
                                                        const ItemCompletion& completion) override {
        completion(failure(hostframework::invalidParameter("bundleIdentifier", bundleIdentifier)));
    }

private:
    static Result<hostframework::ProviderItemPtr> unknown(const Identifier& item) {
        return failure(hostframework::noSuchItem(item));
    }
};

}  // namespace tarnwell::host
