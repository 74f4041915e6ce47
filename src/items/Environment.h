#pragma once

#include <functional>
#include <optional>
#include <vector>

#include "hostframework/ProviderManager.h"
#include "items/ProgramLog.h"
#include "platform/files/FileSystem.h"
#include "platform/registry/AppRegistry.h"
#include "platform/store/GenerationStore.h"

namespace tarnwell::items {

/// The app libraries as this layer needs them; the app library manager implements it. Any thread may call it.
class AppLibraryDirectory {
public:
    virtual ~AppLibraryDirectory() = default;
    /// The root folders of all app libraries, in the manager's order.
    virtual std::vector<URL> rootURLsForAppLibraries() const = 0;
    /// How the first root folder that holds the URL (`contains`) or is it (`same`) stands to it; `other` if none does.
    /// Asked for every listed item: override it where the roots can be searched without copying the list.
    virtual Relationship relationshipToRoots(const URL& url) const;
    /// The first record whose root folder stands in that relationship to the URL (`contains`: the root holds it;
    /// `same`: the root is it); null if none does.
    virtual registry::BundleRecordPtr recordForURL(const URL& url, Relationship relationship) const = 0;
    /// The record of an app library by its item identifier ("#…"); null if there is none.
    virtual registry::BundleRecordPtr recordForItemIdentifier(const std::string& identifier) const = 0;
};

/// The services that items are made with. Owned by the program's context, which outlives every item and enumerator.
struct Environment {
    ProgramLog& log;
    files::FileSystem& files;
    store::GenerationStoreManager& generationStore;
    hostframework::ProviderManager& providerManager;
    /// Set once by the context when the shared manager stands; until then no application record is found.
    const AppLibraryDirectory* appLibraries = nullptr;
};

}  // namespace tarnwell::items
