#pragma once

#include <memory>
#include <optional>

#include "hostframework/ProviderItem.h"
#include "items/LocalItem.h"
#include "provider/ProviderContext.h"

namespace tarnwell::provider {

using LocalItemPtr = std::shared_ptr<const items::LocalItem>;

/// Identifier to URL, URL to identifier, and either to an item. Remembers nothing: each lookup asks the disk afresh,
/// inside a log section of its own (`itemForURL` opens only those of the lookups that it makes). Any thread may call
/// it.
class ItemLookup {
public:
    explicit ItemLookup(const ProviderContext& context) : context_(context) {}

    /// Fails with the host's "no such item".
    Result<URL> urlForIdentifier(const hostframework::ItemIdentifier& identifier) const;
    /// A URL whose last component is "Documents" is an app library's or has no identifier.
    std::optional<hostframework::ItemIdentifier> identifierForURL(const URL& url) const;
    /// The URL of an identifier where not finding it is no failure yet.
    std::optional<URL> urlIfFound(const hostframework::ItemIdentifier& identifier) const;
    /// Fails with TarnwellError::invalidItemIdentifier.
    Result<LocalItemPtr> itemForIdentifier(const hostframework::ItemIdentifier& identifier) const;
    /// Fails with TarnwellError::invalidItemIdentifier, whatever is wrong with the URL.
    Result<LocalItemPtr> itemForURL(const URL& url) const;

private:
    /// Null when nothing has that identifier now.
    LocalItemPtr resolve(const hostframework::ItemIdentifier& identifier) const;
    LocalItemPtr resolveAppLibrary(const hostframework::ItemIdentifier& identifier) const;
    LocalItemPtr resolveTemporaryFolder() const;
    const items::Environment& environment() const { return context_.fs.items; }

    const ProviderContext context_;
};

}  // namespace tarnwell::provider
