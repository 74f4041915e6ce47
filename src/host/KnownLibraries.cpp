#include "host/KnownLibraries.h"

#include "applibraries/AppLibraryCacheFile.h"
#include "applibraries/AppLibraryContext.h"
#include "platform/filesystem/PlainFile.h"

namespace tarnwell::host {

std::vector<std::string> knownLibraries(const Settings& settings) {
    const auto bytes = filesystem::readFile(applibraries::mainCacheURL(settings.applicationSupport).path(),
                                            applibraries::kMaxCacheFileBytes);
    if (!bytes) return {};
    const auto list = applibraries::decodeAppLibraryList(*bytes);
    if (!list) return {};
    std::vector<std::string> identifiers;
    for (const auto& record : list->records) {
        if (record.bundleIdentifier) identifiers.push_back("#" + *record.bundleIdentifier);
    }
    return identifiers;
}

}  // namespace tarnwell::host
