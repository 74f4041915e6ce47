#pragma once

#include <vector>

#include "hostframework/ObjectRuntime.h"
#include "items/Environment.h"

namespace tarnwell::applibraries {

/// The app libraries for code that reaches them by name only. Has no state.
class TWPAppLibraryManager {
public:
    static constexpr const char* kClassName = "TWPAppLibraryManager";
    static constexpr const char* kRootURLs = "rootURLsForAppLibraries";

    /// The root folders of the directory's app libraries, in its order.
    static std::vector<URL> rootURLsForAppLibraries(const items::AppLibraryDirectory& directory);

    /// Makes the operation reachable under its name: no argument, returns std::vector<URL>. The directory must outlive
    /// the runtime's last use.
    static void registerIn(hostframework::ObjectRuntime& runtime, const items::AppLibraryDirectory& directory);
};

}  // namespace tarnwell::applibraries
