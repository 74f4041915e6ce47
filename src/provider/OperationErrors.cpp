#include "provider/OperationErrors.h"

#include "hostframework/FileOperations.h"
#include "hostframework/HostError.h"

namespace tarnwell::provider {

Error operationError(const ItemLookup& lookup, const Error& error) {
    if (!error.is(ErrorDomain::generalFile, kFileExists)) return error;
    const auto colliding = error.userInfo.find(hostframework::kErrorCollidingURL);
    if (colliding == error.userInfo.end()) return error;
    const auto existing = lookup.itemForURL(URL::file(colliding->second));
    // What has the name may be nothing that is ever shown: then there is no item to carry.
    return existing ? hostframework::filenameCollision(**existing) : error;
}

void completeWithItem(const ItemLookup& lookup, const Result<URL>& outcome,
                      const hostframework::ItemCompletion& completion) {
    if (!outcome) return completion(failure(operationError(lookup, outcome.error())));
    completion(lookup.itemForURL(*outcome));
}

}  // namespace tarnwell::provider
