#include "cli/verbs/Failure.h"

#include "cli/output/Text.h"
#include "hostframework/HostError.h"

namespace tarnwell::cli {
namespace {

std::string reasonOf(const Error& error) {
    if (error.is(ErrorDomain::host, hostframework::kNoSuchItem) || error.domain == ErrorDomain::provider) {
        return "there is no such item (any more); \"tarnwell ls\" of its folder shows what is there";
    }
    if (error.is(ErrorDomain::host, hostframework::kSyncAnchorExpired)) {
        return "things were deleted there faster than they could be listed; try again later";
    }
    const auto message = error.userInfo.find(kErrorMessage);
    return message != error.userInfo.end() && error.domain != ErrorDomain::generalFile ? message->second
                                                                                       : describe(error);
}

}  // namespace

Failure failureOf(const std::string& what, const std::string& item, const Error& error) {
    return {ExitStatus::failed, what + " \"" + toDisplay(item) + "\": " + toDisplay(reasonOf(error))};
}

Failure failureOf(const Error& error) { return {ExitStatus::failed, toDisplay(reasonOf(error))}; }

}  // namespace tarnwell::cli
