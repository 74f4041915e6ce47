#include "hostframework/HostError.h"

namespace tarnwell::hostframework {

Error syncAnchorExpired() { return {ErrorDomain::host, kSyncAnchorExpired, {}}; }

Error noSuchItem(const ItemIdentifier& identifier) {
    return {ErrorDomain::host, kNoSuchItem, {{kErrorItemIdentifier, identifier}, {kErrorMessage, identifier}}};
}

Error invalidParameter(const std::string& parameter, const std::string& value) {
    return {ErrorDomain::host,
            kInvalidParameter,
            {{kErrorParameter, parameter}, {kErrorValue, value}, {kErrorMessage, parameter + " is \"" + value + "\""}}};
}

}  // namespace tarnwell::hostframework
