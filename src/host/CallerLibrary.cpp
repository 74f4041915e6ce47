#include "host/CallerLibrary.h"

#include <ranges>

#include "platform/registry/BundleIdentifier.h"

namespace tarnwell::host {
namespace {

/// How the registry names the application of a sandbox.
struct Installed {
    registry::Origin origin;
    std::string identifier;
};

bool isOf(const registry::BundleRecordPtr& record, const Installed& application) {
    return record && record->origin() == application.origin && record->bundleIdentifier() == application.identifier;
}

CallerScope libraryOf(const Installed& application, auto&& records) {
    for (const registry::BundleRecordPtr& record : records) {
        if (isOf(record, application)) return {CallerScope::Kind::library, record, {}};
    }
    return {CallerScope::Kind::nothing, nullptr, "no app library of " + application.identifier};
}

CallerScope scopeAmong(const caller::Caller& caller, auto&& records) {
    using Kind = caller::Caller::Kind;
    switch (caller.kind) {
        case Kind::host:
            return {CallerScope::Kind::everything, nullptr, {}};
        case Kind::flatpak:
            return libraryOf({registry::Origin::flatpak, caller.application}, records);
        case Kind::snap:
            return libraryOf({registry::Origin::snap, registry::snapIdentifier(caller.application)}, records);
        case Kind::unknown:
            break;
    }
    return {CallerScope::Kind::nothing, nullptr, caller.reason};
}

}  // namespace

CallerScope scopeOf(const caller::Caller& caller, const std::vector<registry::BundleRecordPtr>& records) {
    return scopeAmong(caller, records);
}

CallerScope scopeOf(const caller::Caller& caller, const applibraries::AppLibraryGeneration& libraries) {
    return scopeAmong(caller, libraries.bundleProxiesByRootURLs | std::views::values);
}

}  // namespace tarnwell::host
