#include "testing/TestDevice.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "items/LocalItem.h"
#include "platform/events/ComparingEventService.h"
#include "platform/files/LocalFileSystem.h"

namespace tarnwell::testing {

namespace {

void require(const Result<void>& result, const char* what) {
    if (result) return;
    std::fprintf(stderr, "test device: %s: %s\n", what, describe(result.error()).c_str());
    std::abort();
}

template <typename T>
T require(Result<T> result, const char* what) {
    if (result) return std::move(*result);
    std::fprintf(stderr, "test device: %s: %s\n", what, describe(result.error()).c_str());
    std::abort();
}

}  // namespace

/// In the order in which they are made; taken apart in the reverse one.
struct TestDevice::Services {
    Services(const std::string& home, const std::string& state)
        : pool(dispatch::ThreadPool::create()),
          store(require(openStore(state, log), "the store")),
          types(mime::TypeDatabase::create()),
          comparer(roots, *store, *types, files::KeptAttributes(items::LocalItem::keptAttributeNames(), &log),
                   &ownChanges),
          files(roots, *store, comparer, *types),
          generationStore(roots, *store, comparer, files),
          events(roots, *store, comparer, pool, {std::chrono::milliseconds(20)}),
          registry(roots),
          programLog(log, pool),
          providerManager(pool, URL::file(require(roots.addStorage(home + "/Documents"), "the storage root")->name)),
          environment{programLog, files, generationStore, providerManager},
          fileOperations(pool, roots),
          accessScopes(roots) {}

    static Result<std::unique_ptr<store::Store>> openStore(const std::string& directory, log::Log& log) {
        store::StoreOptions options;
        options.directory = directory;
        options.log = &log;
        return store::Store::open(options);
    }

    CapturingLog log;
    std::shared_ptr<dispatch::ThreadPool> pool;
    std::unique_ptr<store::Store> store;
    Roots roots;
    filesystem::OwnChanges ownChanges;
    std::shared_ptr<mime::TypeDatabase> types;
    files::Comparer comparer;
    files::LocalFileSystem files;
    files::IndexGenerationStore generationStore;
    events::ComparingEventService events;
    FakeAppRegistry registry;
    items::ProgramLog programLog;
    RecordingProviderManager providerManager;
    items::Environment environment;
    FakeFileOperations fileOperations;
    FakeAccessScopes accessScopes;
    FakeDeviceInfo deviceInfo;
    FakeIconRenderer iconRenderer;
};

TestDevice::TestDevice()
    : home_(directory_.path("home")), state_(directory_.path("state")), support_(directory_.path("data")) {
    makeDirectories(home_ + "/Documents");
    makeDirectories(support_);
    services_ = std::make_unique<Services>(home_, state_);
}

TestDevice::~TestDevice() = default;

void TestDevice::restart() {
    services_.reset();
    services_ = std::make_unique<Services>(home_, state_);
    if (source_) startWatching();
}

void TestDevice::watch(watch::SourceChoice source) {
    source_ = source;
    startWatching();
}

void TestDevice::startWatching() {
    require(services_->events.watch({*source_}), "watching");
    for (int i = 0; i < 10'000 && !services_->events.liveStatus(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    if (!services_->events.liveStatus()) require<bool>(failure(posixError(ETIMEDOUT)), "watching");
}

std::optional<events::LiveIndex::Status> TestDevice::liveStatus() { return services_->events.liveStatus(); }

std::string TestDevice::path(const std::string& relative) const {
    return relative.empty() ? home_ + "/Documents" : home_ + "/Documents/" + relative;
}

URL TestDevice::url(const std::string& relative) const {
    std::string root = services_->roots.storage()->name;
    return URL::file(relative.empty() ? root : root + "/" + relative);
}

std::string TestDevice::makeContainer(const std::string& name) {
    std::string container = directory_.path("containers/" + name);
    makeDirectories(container + "/Documents");
    return container;
}

const std::string& TestDevice::home() const { return home_; }
const std::string& TestDevice::applicationSupport() const { return support_; }
Roots& TestDevice::roots() { return services_->roots; }
CapturingLog& TestDevice::log() { return services_->log; }
std::shared_ptr<dispatch::ThreadPool> TestDevice::pool() { return services_->pool; }
files::FileSystem& TestDevice::files() { return services_->files; }
store::GenerationStoreManager& TestDevice::generationStore() { return services_->generationStore; }
events::FileEventService& TestDevice::events() { return services_->events; }
store::Store& TestDevice::store() { return *services_->store; }
filesystem::OwnChanges& TestDevice::ownChanges() { return services_->ownChanges; }
files::Comparer& TestDevice::comparer() { return services_->comparer; }
FakeAppRegistry& TestDevice::registry() { return services_->registry; }
RecordingProviderManager& TestDevice::providerManager() { return services_->providerManager; }
FakeFileOperations& TestDevice::fileOperations() { return services_->fileOperations; }
FakeAccessScopes& TestDevice::accessScopes() { return services_->accessScopes; }
FakeDeviceInfo& TestDevice::deviceInfo() { return services_->deviceInfo; }
FakeIconRenderer& TestDevice::iconRenderer() { return services_->iconRenderer; }
items::ProgramLog& TestDevice::programLog() { return services_->programLog; }
items::Environment& TestDevice::environment() { return services_->environment; }
DeviceID TestDevice::device() { return files::kRootsDevice; }

EventID TestDevice::settle() {
    return require(services_->events.currentEventID({}, events::Interest::everything), "settling");
}

}  // namespace tarnwell::testing
