#pragma once

#include "applibraries/AppLibraryContext.h"
#include "fs/FSEnvironment.h"
#include "hostframework/FileOperations.h"
#include "platform/device/DeviceInfo.h"
#include "platform/icons/IconRenderer.h"

namespace tarnwell::provider {

/// Everything that a provider works with. The program's context owns all of it and outlives the provider, its
/// enumerators and the work that they have queued.
struct ProviderContext {
    const fs::FSEnvironment& fs;
    applibraries::AppLibraryContext& appLibraries;
    hostframework::FileOperations& fileOperations;
    hostframework::AccessScopes& accessScopes;
    device::DeviceInfo& device;
    icons::IconRenderer& icons;
};

}  // namespace tarnwell::provider
