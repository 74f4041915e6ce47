#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "hostframework/ItemIdentifier.h"
#include "platform/base/Result.h"
#include "platform/url/URL.h"

namespace tarnwell::hostframework {

using Completion = std::function<void(const std::optional<Error>&)>;

/// What a provider asks of its host. Any thread may call it. Completions run on a queue of the manager's own, never
/// on the caller's thread, so that a caller may wait for one.
class ProviderManager {
public:
    virtual ~ProviderManager() = default;
    /// Tells the host that the container should be asked for changes again.
    virtual void signalEnumeratorForContainer(const ItemIdentifier& container, Completion completion) = 0;
    /// Removes the search-index entries of whole domains.
    virtual void deleteSearchableItemsWithDomainIdentifiers(const std::vector<std::string>& domains,
                                                            Completion completion) = 0;
    /// The storage root; a URL object of its own at each call.
    virtual URL documentStorageURL() const = 0;
    /// Where a URL stands to the storage root.
    virtual Relationship relationshipToDocumentStorage(const URL& url) const = 0;
};

}  // namespace tarnwell::hostframework
