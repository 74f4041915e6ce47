#include "host/Applications.h"

#include "host/ItemRecords.h"
#include "hostframework/HostError.h"

namespace tarnwell::host {

std::vector<hostframework::ProviderItemPtr> Applications::libraries() const {
    return context_.appLibraries().sharedManager().appLibraryItems();
}

std::vector<session::Application> Applications::list() const {
    std::vector<session::Application> applications;
    auto& manager = context_.appLibraries().sharedManager();
    for (const auto& item : manager.appLibraryItems()) {
        session::Application application{recordOf(*item, context_.roots()), {}, {}, {}};
        if (const auto record = manager.recordForItemIdentifier(item->itemIdentifier())) {
            const auto archived = record->archived();
            application.origin = registry::nameOf(archived.origin);
            application.installedFor = archived.type == registry::ApplicationType::user ? "user" : "system";
            application.containerPath = archived.dataContainerPath;
        }
        applications.push_back(std::move(application));
    }
    return applications;
}

Applications::Folders Applications::foldersBefore() {
    Folders folders;
    // A program that stays has met by itself what came since its start.
    if (hasRefreshed_ || context_.liveStatus()) {
        for (const auto& item : libraries()) {
            folders.emplace(item->itemIdentifier(), context_.roots().realPath(item->fileURL().path()));
        }
        return folders;
    }
    for (const auto& record : context_.librariesAtStart()) {
        folders.emplace("#" + record->bundleIdentifier().value_or("(null)"),
                        record->archived().dataContainerPath.value_or("") + "/Documents");
    }
    return folders;
}

session::Refreshed Applications::refresh() {
    const std::lock_guard lock(refreshMutex_);
    Folders before = foldersBefore();
    hasRefreshed_ = true;
    context_.refreshApplications();

    session::Refreshed refreshed;
    for (const auto& item : libraries()) {
        ++refreshed.applications;
        auto record = recordOf(*item, context_.roots());
        const auto known = before.extract(record.identifier);
        if (!known) {
            refreshed.added.push_back(std::move(record));
        } else if (known.mapped() != record.path) {
            refreshed.changed.push_back(std::move(record));
        }
    }
    for (auto& [identifier, folder] : before) refreshed.removed.push_back({identifier, std::move(folder)});
    return refreshed;
}

Result<session::Item> Applications::libraryOf(const std::string& bundleIdentifier) const {
    Result<hostframework::ProviderItemPtr> item = failure(hostframework::invalidParameter("bundleIdentifier", ""));
    context_.provider().defaultApplicationContainerForBundleIdentifier(
        bundleIdentifier, [&](const Result<hostframework::ProviderItemPtr>& found) { item = found; });
    if (item) return recordOf(**item, context_.roots());
    Error error = std::move(item.error());
    const bool isInstalled = context_.registry().recordForBundleIdentifier(bundleIdentifier) != nullptr;
    error.userInfo[kErrorMessage] =
        isInstalled ? "that application keeps no documents here" : "no such application is installed";
    return failure(std::move(error));
}

}  // namespace tarnwell::host
