#include "applibraries/TWPAppLibraryManager.h"

namespace tarnwell::applibraries {

std::vector<URL> TWPAppLibraryManager::rootURLsForAppLibraries(const items::AppLibraryDirectory& directory) {
    return directory.rootURLsForAppLibraries();
}

void TWPAppLibraryManager::registerIn(hostframework::ObjectRuntime& runtime,
                                      const items::AppLibraryDirectory& directory) {
    runtime.registerOperation(kClassName, kRootURLs,
                              [&directory](const std::any&) { return std::any(rootURLsForAppLibraries(directory)); });
}

}  // namespace tarnwell::applibraries
