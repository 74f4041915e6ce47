#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "applibraries/LocalAppLibraryCache.h"
#include "items/Environment.h"

namespace tarnwell::applibraries {

class LocalAppLibraryManager;

/// What the managers of app libraries work with. Owned by AppLibraryContext, which outlives every manager.
struct AppLibraryServices {
    const items::Environment& environment;
    registry::AppRegistry& registry;
    std::shared_ptr<dispatch::ThreadPool> pool;
    LocalAppLibraryCache& mainCache;
    LocalAppLibraryCache& workingSetCache;
    /// The generation that the shared manager holds.
    std::function<std::uint64_t()> sharedVersionToken;
    /// The shared manager, once it is there; null before.
    std::function<LocalAppLibraryManager*()> sharedIfMade;
};

}  // namespace tarnwell::applibraries
