#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "applibraries/AppLibraryContext.h"
#include "host/HostFileOperations.h"
#include "host/HostProviderManager.h"
#include "host/NameOrders.h"
#include "host/SearchIndex.h"
#include "host/Settings.h"
#include "host/SharedChanges.h"
#include "hostframework/ObjectRuntime.h"
#include "items/Environment.h"
#include "platform/device/DeviceInfo.h"
#include "platform/dispatch/ThreadPool.h"
#include "platform/events/FileEventService.h"
#include "platform/events/LiveIndex.h"
#include "platform/filesystem/Roots.h"
#include "platform/icons/IconRenderer.h"
#include "platform/log/Log.h"
#include "provider/LocalProvider.h"

namespace tarnwell::store {
class Store;
}

namespace tarnwell::host {

/// Everything that exists once in a run of the program: the services of the platform, the provider on top of them, and
/// the host that it serves. Made in one go, taken apart in the reverse order; a process may make as many as it likes,
/// but two at a time need two stores.
class ProgramContext {
public:
    /// What its lines in a program log are filed under.
    static constexpr const char* kLogCategory = items::ProgramLog::kCategory;

    /// Opens the store and the storage root, and meets the installed applications. Waits up to five seconds for another
    /// process to let go of the store. The log outlives the context.
    ///
    /// Fails with a sentence for people in the error's message: no storage root, one that contains an application's
    /// data container or lies in one (EXDEV), a store that is in use or cannot be written.
    static Result<std::unique_ptr<ProgramContext>> create(const Settings& settings, log::Log& log);
    /// Ends the live updates and waits for the work that is under way. No enumerator may be left.
    ~ProgramContext();
    ProgramContext(const ProgramContext&) = delete;
    ProgramContext& operator=(const ProgramContext&) = delete;

    /// To be called before the first request: brings the app libraries up to date. Waits for the provider's look at the
    /// installed applications only if they are not the ones that the last look left behind.
    void prepareForRequests();

    /// Asks the provider to look at the installed applications, and waits until it has. Applications that have other
    /// names by then are told of.
    void refreshApplications();
    /// Names applications in these languages from now on (RegistrySources::languages); in the background, which tells
    /// of those that have other names then.
    void setLanguages(const std::vector<std::string>& languages);
    /// The app libraries as the last run of the program left their list: what a look at the applications is compared
    /// with.
    const std::vector<registry::BundleRecordPtr>& librariesAtStart() const;

    /// For a program that stays: from now on the kernel tells what changes, as far as it can, instead of looking at
    /// everything from time to time, and applications that come and go are met by themselves. Begins in the background
    /// with one look at everything. Fails where the kernel offers nothing, and everything works as before. Any thread;
    /// further calls change nothing and are told what the first one was.
    Result<void> watchForChanges();
    /// How that is done; nothing as long as comparing is the source.
    std::optional<events::LiveIndex::Status> liveStatus() const;

    /// The program is about to end: requests that look at the disk fail soon, with ECANCELED. Any thread.
    void giveUp();

    const Settings& settings() const;
    Roots& roots();
    store::Store& store();
    items::Environment& environment();
    events::FileEventService& events();
    registry::AppRegistry& registry();
    /// The provider's classes that are reachable by name.
    hostframework::ObjectRuntime& objectRuntime();
    applibraries::AppLibraryContext& appLibraries();
    HostProviderManager& providerManager();
    /// Nothing is opened or made before it is used.
    SearchIndex& searchIndex();
    /// What clients were told of changes a moment ago.
    SharedChanges& sharedChanges();
    NameOrders& nameOrders();
    HostFileOperations& fileOperations();
    provider::LocalProvider& provider();
    icons::IconRenderer& icons();
    device::DeviceInfo& device();

private:
    struct Parts;
    Result<void> beginWatching();
    void renewNames(applibraries::AppLibraryContext::Look look);
    explicit ProgramContext(std::unique_ptr<Parts> parts);
    std::unique_ptr<Parts> parts_;
};

}  // namespace tarnwell::host
