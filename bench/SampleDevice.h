#pragma once

#include <optional>
#include <string>

#include "applibraries/AppLibraryContext.h"
#include "fs/FSEnvironment.h"
#include "provider/ProviderContext.h"
#include "testing/TestDevice.h"

namespace tarnwell::bench {

/// A device with some app libraries in a temporary folder, its log switched off.
class SampleDevice {
public:
    SampleDevice();

    /// As a new start of the program. What was taken of it before is dead then.
    void restart();
    /// From now on the kernel's hints keep the index.
    void watch() { device_.watch(); }
    /// Brings the index up to what is on disk.
    void settle() { device_.settle(); }

    /// Real path and URL of something below the storage root; the root itself for "".
    std::string path(const std::string& relative) const { return device_.path(relative); }
    URL url(const std::string& relative) const { return device_.url(relative); }

    const fs::FSEnvironment& environment() const { return *environment_; }
    provider::ProviderContext providerContext() {
        return {*environment_,          *libraries_,          device_.fileOperations(),
                device_.accessScopes(), device_.deviceInfo(), device_.iconRenderer()};
    }

private:
    void open();

    testing::TestDevice device_;
    std::optional<applibraries::AppLibraryContext> libraries_;
    std::optional<fs::FSEnvironment> environment_;
};

}  // namespace tarnwell::bench
