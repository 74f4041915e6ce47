#include "hostframework/HostError.h"

namespace tarnwell::hostframework {

Error syncAnchorExpired() { return {ErrorDomain::host, kSyncAnchorExpired, {}}; }

Error noSuchItem(const ItemIdentifier& identifier) {
    return {ErrorDomain::host, kNoSuchItem, {{kErrorItemIdentifier, identifier}, {kErrorMessage, identifier}}};
}

Error filenameCollision(const ProviderItem& existing) {
    return {ErrorDomain::host,
            kFilenameCollision,
            {{kErrorItemIdentifier, existing.itemIdentifier()},
             {kErrorItemName, existing.filename()},
             {kErrorMessage, "\"" + existing.filename() + "\" is already there"}}};
}

Error invalidParameter(const std::string& parameter, const std::string& value) {
    return {ErrorDomain::host,
            kInvalidParameter,
            {{kErrorParameter, parameter}, {kErrorValue, value}, {kErrorMessage, parameter + " is \"" + value + "\""}}};
}

}  // namespace tarnwell::hostframework
