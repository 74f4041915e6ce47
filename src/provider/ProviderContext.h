#pragma once

#include "applibraries/AppLibraryContext.h"
#include "fs/FSEnvironment.h"
#include "hostframework/FileOperations.h"

namespace tarnwell::provider {

/// Everything that a provider works with. The program's context owns all of it and outlives the provider, its
/// enumerators and the work that they have queued.
struct ProviderContext {
    const fs::FSEnvironment& fs;
    applibraries::AppLibraryContext& appLibraries;
    hostframework::FileOperations& fileOperations;
    hostframework::AccessScopes& accessScopes;
};

}  // namespace tarnwell::provider
