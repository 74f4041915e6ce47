#pragma once

#include <optional>

#include "hostframework/HostError.h"
#include "hostframework/ProviderExtension.h"

namespace tarnwell::host {

/// A provider that knows no item; what a test plays are its enumerators.
class StubProvider : public hostframework::ProviderExtension {
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
};

}  // namespace tarnwell::host
