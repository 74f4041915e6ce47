#include "host/ProgramContext.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <future>
#include <mutex>
#include <optional>
#include <utility>

#include "applibraries/AppLibraryDiscovery.h"
#include "applibraries/TWPAppLibraryManager.h"
#include "items/LocalItem.h"
#include "items/TWPFileObjectIdentifier.h"
#include "platform/device/LinuxDeviceInfo.h"
#include "platform/events/ComparingEventService.h"
#include "platform/files/LocalFileSystem.h"
#include "platform/icons/ProcessIconRenderer.h"
#include "platform/mime/TypeDatabase.h"
#include "platform/registry/LinuxAppRegistry.h"
#include "platform/store/Store.h"

namespace tarnwell::host {

/// In the order in which they are made; taken apart in the reverse one.
struct ProgramContext::Parts {
    Parts(const Settings& programSettings, log::Log& log, std::unique_ptr<store::Store> openStore)
        : settings(programSettings),
          store(std::move(openStore)),
          programLog(log, pool),
          fileOperations(operations::Context{roots, *store, log, &ownChanges}, pool),
          device(device::DeviceSources::fromEnvironment(), log),
          icons({.program = icons::ProcessIconRenderer::programBesideThisOne(),
                 .cacheFolder = programSettings.cacheDirectory + "/icons"},
                log),
          comparer(roots, *store, *types, files::KeptAttributes(items::LocalItem::keptAttributeNames(), &log),
                   &ownChanges) {}

    const Settings settings;
    const std::shared_ptr<dispatch::ThreadPool> pool = dispatch::ThreadPool::create();
    const std::unique_ptr<store::Store> store;
    Roots roots;
    filesystem::OwnChanges ownChanges;
    items::ProgramLog programLog;
    HostFileOperations fileOperations;
    device::LinuxDeviceInfo device;
    icons::ProcessIconRenderer icons;
    const std::shared_ptr<mime::TypeDatabase> types = mime::TypeDatabase::create();
    files::Comparer comparer;
    files::LocalFileSystem files{roots, *store, comparer, *types};
    files::IndexGenerationStore generationStore{roots, *store, comparer, files};
    std::unique_ptr<events::ComparingEventService> events;
    std::unique_ptr<registry::LinuxAppRegistry> registry;
    std::shared_ptr<SearchIndex> searchIndex;
    SharedChanges sharedChanges;
    NameOrders nameOrders;
    std::unique_ptr<HostProviderManager> providerManager;
    std::optional<items::Environment> environment;
    std::optional<fs::FSEnvironment> fsEnvironment;
    std::unique_ptr<applibraries::AppLibraryContext> appLibraries;
    std::vector<registry::BundleRecordPtr> librariesAtStart;
    hostframework::ObjectRuntime objectRuntime;
    std::shared_ptr<provider::LocalProvider> provider;
    std::once_flag watchOnce;
    Result<void> watchOutcome;
    std::unique_ptr<registry::RegistryWatch> registryWatch;
};

namespace {

Result<void> addStorageRoot(Roots& roots, const Settings& settings) {
    const auto added = roots.addStorage(settings.storageRoot);
    if (added) return {};
    Error error = added.error();
    const std::string named =
        "the storage root \"" + settings.storageRoot + "\" (from " + settings.storageRootOrigin + ")";
    if (error.is(ErrorDomain::posix, ENOENT)) {
        error.userInfo[kErrorMessage] = named + " does not exist; make that folder, or name another one with --storage";
    } else if (error.is(ErrorDomain::posix, ENOTDIR)) {
        error.userInfo[kErrorMessage] = named + " is no folder; name a folder with --storage";
    } else {
        error.userInfo[kErrorMessage] = named + " cannot be used: " + describe(error);
    }
    return failure(std::move(error));
}

/// Meets every installed application, so that its documents are a root. One whose data container holds the storage
/// root, or lies in it, would show the same file in two places: refused.
Result<void> meetApplications(const Roots& roots, registry::AppRegistry& registry) {
    std::optional<Error> conflict;
    const std::string storage = roots.storage()->realPath;
    const auto meet = [&](const registry::BundleRecordPtr& record) {
        if (!record || record->dataContainerURL()) return;
        const auto path = record->archived().dataContainerPath;
        if (!path || conflict) return;
        std::error_code error;
        const std::string container = std::filesystem::weakly_canonical(*path, error).string();
        if (error) return;
        const bool containerHoldsStorage = relationship(container, storage) != Relationship::other;
        if (!containerHoldsStorage && relationship(storage, container) == Relationship::other) return;
        conflict = posixError(EXDEV, "the storage root \"" + storage + "\" " +
                                         (containerHoldsStorage ? "lies in" : "contains") + " \"" + container +
                                         "\", the data of the application " +
                                         record->bundleIdentifier().value_or("without an identifier") +
                                         "; name another storage root with --storage");
    };
    if (auto* workspace = registry.defaultWorkspace()) {
        workspace->enumerateApplications(registry::ApplicationType::user, meet);
        workspace->enumerateApplications(registry::ApplicationType::system, meet);
    }
    if (conflict) return failure(std::move(*conflict));
    return {};
}

/// True when the list that the main cache had is what a look at the installed applications gives now.
bool isCurrent(const std::vector<registry::BundleRecordPtr>& cached, items::ProgramLog& log,
               registry::AppRegistry& registry) {
    const auto found = applibraries::retrieveBundleRecords(log, registry);
    return std::ranges::equal(
        found, cached, [](const auto& a, const auto& b) { return a->dataContainerURL() == b->dataContainerURL(); });
}

}  // namespace

Result<std::unique_ptr<ProgramContext>> ProgramContext::create(const Settings& settings, log::Log& log) {
    // Asked before the store is opened: a wrong --storage should leave nothing behind.
    Roots probe;
    if (auto added = addStorageRoot(probe, settings); !added) return failure(added.error());

    store::StoreOptions options;
    options.directory = settings.stateDirectory;
    options.log = &log;
    auto store = store::Store::open(options);
    if (!store) return failure(store.error());

    auto parts = std::make_unique<Parts>(settings, log, std::move(*store));
    if (auto added = addStorageRoot(parts->roots, settings); !added) return failure(added.error());
    parts->registry = registry::LinuxAppRegistry::create(settings.registrySources, parts->roots, log);
    if (auto met = meetApplications(parts->roots, *parts->registry); !met) return failure(met.error());

    // What is moved to another file system is copied, and should stay what it is to clients.
    parts->fileOperations.setCopiedListener([&comparer = parts->comparer,
                                             &log](const operations::CopiedObject& copied) {
        if (auto carried = comparer.carryOver(copied.source, copied.copy.get()); !carried) {
            log.write(log::Level::error, "[ERROR] what was moved gets new identifiers; " + describe(carried.error()));
        }
    });
    // Before anything is looked at: what a killed process left should not be met as new.
    parts->fileOperations.cleanUp();
    parts->events = std::make_unique<events::ComparingEventService>(
        parts->roots, *parts->store, parts->comparer, parts->pool, events::ComparingEventService::Options{});
    parts->searchIndex = std::make_shared<SearchIndex>(settings.cacheDirectory, parts->store->uuid(), log);
    parts->providerManager =
        std::make_unique<HostProviderManager>(parts->pool, URL::file(parts->roots.storage()->name), parts->searchIndex);
    parts->environment.emplace(
        items::Environment{parts->programLog, parts->files, parts->generationStore, *parts->providerManager});
    parts->fsEnvironment.emplace(fs::FSEnvironment{*parts->environment, *parts->events, parts->pool});
    parts->appLibraries = std::make_unique<applibraries::AppLibraryContext>(*parts->environment, *parts->registry,
                                                                            parts->pool, settings.applicationSupport);
    items::TWPFileObjectIdentifier::registerOperations(parts->objectRuntime, *parts->environment);
    applibraries::TWPAppLibraryManager::registerIn(parts->objectRuntime, parts->appLibraries->directory());
    // Before the provider is there: its first look at the applications may replace the list.
    auto& cache = parts->appLibraries->mainCache();
    parts->librariesAtStart = cache.queue().sync([&] { return cache.load().records; });
    parts->provider = provider::LocalProvider::create(
        provider::ProviderContext{*parts->fsEnvironment, *parts->appLibraries, parts->fileOperations,
                                  parts->fileOperations, parts->device, parts->icons});
    return std::unique_ptr<ProgramContext>(new ProgramContext(std::move(parts)));
}

ProgramContext::ProgramContext(std::unique_ptr<Parts> parts) : parts_(std::move(parts)) {}

ProgramContext::~ProgramContext() {
    parts_->registryWatch.reset();
    parts_->provider.reset();
    // What enumerators and readers put on their queues when they ended still uses the services below.
    parts_->pool->waitUntilQuiet();
}

void ProgramContext::prepareForRequests() {
    if (!isCurrent(parts_->librariesAtStart, parts_->programLog, *parts_->registry)) refreshApplications();
    // Documents are named through the shared manager, which starts with what the search index was last told of.
    const bool upgraded =
        parts_->appLibraries->sharedManager().upgradeFromMainCache(nullptr, applibraries::IndexCleanup::no);
    renewNames(applibraries::AppLibraryContext::Look::none);
    // The provider's own look will find nothing to upgrade any more, so that whoever follows the working set is told
    // here.
    if (upgraded) parts_->providerManager->signalEnumeratorForContainer(hostframework::kWorkingSetContainer, {});
}

void ProgramContext::refreshApplications() {
    // The completion is called again after every later look, so it must outlive this wait.
    struct Wait {
        std::once_flag once;
        std::promise<void> done;
    };
    const auto wait = std::make_shared<Wait>();
    parts_->provider->refreshInstalledAppsWithCompletionHandler(
        [wait] { std::call_once(wait->once, [&] { wait->done.set_value(); }); });
    wait->done.get_future().wait();
    renewNames(applibraries::AppLibraryContext::Look::again);
}

void ProgramContext::renewNames(applibraries::AppLibraryContext::Look look) {
    std::string languages;
    for (const std::string& language : parts_->registry->languages()) languages += language + ":";
    if (!parts_->appLibraries->renewNames(languages, look)) return;
    for (const auto& container : {hostframework::kRootContainer, hostframework::kWorkingSetContainer}) {
        parts_->providerManager->signalEnumeratorForContainer(container, {});
    }
}

void ProgramContext::setLanguages(const std::vector<std::string>& languages) {
    if (!parts_->registry->setLanguages(languages)) return;
    parts_->appLibraries->backgroundQueue().async([this] { renewNames(applibraries::AppLibraryContext::Look::again); });
}

const std::vector<registry::BundleRecordPtr>& ProgramContext::librariesAtStart() const {
    return parts_->librariesAtStart;
}

Result<void> ProgramContext::watchForChanges() {
    std::call_once(parts_->watchOnce, [&] { parts_->watchOutcome = beginWatching(); });
    return parts_->watchOutcome;
}

Result<void> ProgramContext::beginWatching() {
    const auto refresh = [weak = std::weak_ptr(parts_->provider)] {
        if (const auto provider = weak.lock()) provider->refreshInstalledAppsWithCompletionHandler({});
    };
    if (auto watch = parts_->registry->watch(refresh)) {
        parts_->registryWatch = std::move(*watch);
        // The first look at what changed since they were met. Every look may find another folder where a library's was,
        // or another name, and nothing but that look tells of it.
        parts_->provider->refreshInstalledAppsWithCompletionHandler(
            [this, known = parts_->roots.generation()]() mutable {
                const bool isNew = std::exchange(known, parts_->roots.generation()) != known;
                parts_->appLibraries->backgroundQueue().async([this, isNew] {
                    if (isNew) (void)parts_->events->currentEventID({}, events::Interest::nothing);
                    renewNames(applibraries::AppLibraryContext::Look::again);
                });
            });
    } else {
        parts_->programLog.error("applications that come and go are found at the next start; " +
                                 describe(watch.error()));
    }
    return parts_->events->watch();
}

std::optional<events::LiveIndex::Status> ProgramContext::liveStatus() const { return parts_->events->liveStatus(); }

void ProgramContext::giveUp() { parts_->comparer.giveUp(); }

const Settings& ProgramContext::settings() const { return parts_->settings; }
Roots& ProgramContext::roots() { return parts_->roots; }
store::Store& ProgramContext::store() { return *parts_->store; }
items::Environment& ProgramContext::environment() { return *parts_->environment; }
events::FileEventService& ProgramContext::events() { return *parts_->events; }
registry::AppRegistry& ProgramContext::registry() { return *parts_->registry; }
hostframework::ObjectRuntime& ProgramContext::objectRuntime() { return parts_->objectRuntime; }
applibraries::AppLibraryContext& ProgramContext::appLibraries() { return *parts_->appLibraries; }
HostProviderManager& ProgramContext::providerManager() { return *parts_->providerManager; }
SearchIndex& ProgramContext::searchIndex() { return *parts_->searchIndex; }
SharedChanges& ProgramContext::sharedChanges() { return parts_->sharedChanges; }
NameOrders& ProgramContext::nameOrders() { return parts_->nameOrders; }
HostFileOperations& ProgramContext::fileOperations() { return parts_->fileOperations; }
provider::LocalProvider& ProgramContext::provider() { return *parts_->provider; }
icons::IconRenderer& ProgramContext::icons() { return parts_->icons; }
device::DeviceInfo& ProgramContext::device() { return parts_->device; }

}  // namespace tarnwell::host
