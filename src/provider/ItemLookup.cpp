#include "provider/ItemLookup.h"

#include "hostframework/HostError.h"
#include "items/TWPFileObjectIdentifier.h"
#include "items/TarnwellError.h"

namespace tarnwell::provider {

using hostframework::ItemIdentifier;
using items::LocalItem;
using items::LogSection;
using items::quoted;
using items::TarnwellError;

namespace {

constexpr const char* kTemporaryFolderName = ".TemporaryLocalFolder";

bool namesAppLibrary(const ItemIdentifier& identifier) { return identifier.starts_with('#'); }

}  // namespace

Result<URL> ItemLookup::urlForIdentifier(const ItemIdentifier& identifier) const {
    const LogSection section(environment().log, "fetching URL for " + quoted(identifier));
    const auto item = resolve(identifier);
    if (!item) return failure(hostframework::noSuchItem(identifier));
    environment().log.debug([&] { return "found " + item->fileURL().text(); });
    return item->fileURL();
}

std::optional<URL> ItemLookup::urlIfFound(const ItemIdentifier& identifier) const {
    auto url = urlForIdentifier(identifier);
    return url ? std::optional(std::move(*url)) : std::nullopt;
}

std::optional<ItemIdentifier> ItemLookup::identifierForURL(const URL& url) const {
    const LogSection section(environment().log, "fetching item identifier for " + quoted(url.path()));
    std::optional<ItemIdentifier> identifier;
    if (url.lastPathComponent() == "Documents") {
        identifier = items::TWPFileObjectIdentifier(environment()).fromAppLibraryDataContainerURL(url);
    } else if (const auto item = LocalItem::initWithURL(environment(), url, {})) {
        identifier = item->itemIdentifier();
    }
    if (identifier) environment().log.debug([&] { return "found " + *identifier; });
    return identifier;
}

Result<LocalItemPtr> ItemLookup::itemForIdentifier(const ItemIdentifier& identifier) const {
    const LogSection section(environment().log, "fetching item's properties for " + quoted(identifier));
    auto item = resolve(identifier);
    if (!item) {
        environment().log.error("item lookup failed for identifier " + quoted(identifier));
        return failure(items::makeError(TarnwellError::invalidItemIdentifier));
    }
    environment().log.debug([&] { return "found " + item->description(); });
    return item;
}

Result<LocalItemPtr> ItemLookup::itemForURL(const URL& url) const {
    const auto identifier = identifierForURL(url);
    if (!identifier) {
        environment().log.error("identifier lookup failed for URL " + quoted(url.path()));
        return failure(items::makeError(TarnwellError::invalidItemIdentifier));
    }
    if (namesAppLibrary(*identifier) || *identifier == hostframework::kTemporaryLocalFolder) {
        return itemForIdentifier(*identifier);
    }
    LocalItemPtr item = LocalItem::initWithURL(environment(), url, {});
    if (!item) {
        environment().log.error("can't create item for URL " + quoted(url.path()));
        return failure(items::makeError(TarnwellError::invalidItemIdentifier));
    }
    return item;
}

LocalItemPtr ItemLookup::resolve(const ItemIdentifier& identifier) const {
    if (namesAppLibrary(identifier)) return resolveAppLibrary(identifier);
    if (identifier == hostframework::kTemporaryLocalFolder) return resolveTemporaryFolder();
    const auto url = items::TWPFileObjectIdentifier(environment()).fileURLWithItemIdentifier(identifier);
    return url ? LocalItem::initWithURL(environment(), *url, {}) : nullptr;
}

LocalItemPtr ItemLookup::resolveAppLibrary(const ItemIdentifier& identifier) const {
    const auto record = context_.appLibraries.directory().recordForItemIdentifier(identifier);
    return record ? items::LocalAppLibraryItem::initFrom(environment(), *record) : nullptr;
}

LocalItemPtr ItemLookup::resolveTemporaryFolder() const {
    const URL url = environment().generationStore.documentStorageFolder().appending(kTemporaryFolderName);
    if (auto created = environment().files.createDirectory(url); !created) {
        environment().log.error("can't create temporary directory; " + describe(created.error()));
        return nullptr;
    }
    return LocalItem::initWithURL(environment(), url, {});
}

}  // namespace tarnwell::provider
