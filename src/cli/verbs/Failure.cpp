#include "cli/verbs/Failure.h"

#include "cli/output/Text.h"
#include "session/Session.h"

namespace tarnwell::cli {
namespace {

std::string reasonOf(const Error& error) {
    if (error.is(ErrorDomain::host, session::kNoSuchItem) || error.domain == ErrorDomain::provider) {
        return "there is no such item (any more); \"tarnwell ls\" of its folder shows what is there";
    }
    if (error.is(ErrorDomain::host, session::kSyncAnchorExpired)) {
        return "things were deleted there faster than they could be listed; try again later";
    }
    const auto message = error.userInfo.find(kErrorMessage);
    // Of a file that cannot be read the message is no sentence.
    const bool isSentence = message != error.userInfo.end() && !error.is(ErrorDomain::generalFile, kNoSuchFileOnRead);
    return isSentence ? message->second : describe(error);
}

/// True for a message that says itself what cannot be done with which file: it begins with a path, or with a name that
/// cannot be what it should.
bool saysItAll(const std::string& message) {
    return message.starts_with("\"/") || (message.starts_with('"') && message.find("\" cannot ") != std::string::npos);
}

}  // namespace

Failure failureOf(const std::string& what, const std::string& item, const Error& error) {
    const std::string reason = toDisplay(reasonOf(error));
    return {ExitStatus::failed, saysItAll(reason) ? reason : what + " \"" + toDisplay(item) + "\": " + reason, error};
}

Failure failureOf(const Error& error) { return {ExitStatus::failed, toDisplay(reasonOf(error)), error}; }

}  // namespace tarnwell::cli
