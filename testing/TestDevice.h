#pragma once

#include <memory>
#include <optional>
#include <string>

#include "items/Environment.h"
#include "platform/dispatch/ThreadPool.h"
#include "platform/events/FileEventService.h"
#include "platform/events/LiveIndex.h"
#include "platform/files/Comparer.h"
#include "platform/store/Store.h"
#include "platform/watch/KernelWatcher.h"
#include "testing/CapturingLog.h"
#include "testing/FakeAppRegistry.h"
#include "testing/FakeDeviceInfo.h"
#include "testing/FakeFileOperations.h"
#include "testing/FakeIconRenderer.h"
#include "testing/RecordingProviderManager.h"
#include "testing/TemporaryDirectory.h"

namespace tarnwell::testing {

/// A device of one person in a private folder, with the real services on it: home/Documents is the storage root,
/// state/ holds the store, data/ is application support. The application registry and the host are played.
class TestDevice {
public:
    TestDevice();
    ~TestDevice();

    /// Real path of something below the storage root; the root itself for "".
    std::string path(const std::string& relative = "") const;
    /// The URL that names it, with an empty cache.
    URL url(const std::string& relative = "") const;
    /// Makes a data container with a Documents folder and returns its real path (containers/<name>).
    std::string makeContainer(const std::string& name);
    const std::string& home() const;                ///< real path
    const std::string& applicationSupport() const;  ///< real path of data/

    Roots& roots();
    CapturingLog& log();
    std::shared_ptr<dispatch::ThreadPool> pool();
    files::FileSystem& files();
    store::GenerationStoreManager& generationStore();
    events::FileEventService& events();
    store::Store& store();
    /// For operations that change this device's files.
    filesystem::OwnChanges& ownChanges();
    files::Comparer& comparer();
    FakeAppRegistry& registry();
    RecordingProviderManager& providerManager();
    FakeFileOperations& fileOperations();
    FakeAccessScopes& accessScopes();
    FakeDeviceInfo& deviceInfo();
    FakeIconRenderer& iconRenderer();
    items::ProgramLog& programLog();
    items::Environment& environment();
    DeviceID device();

    /// Closes the store and all services and opens them again, as a new start of the program does. References that were
    /// taken before are dead afterwards. The fake registry is empty again, as are log and signals.
    void restart();
    /// From now on, over restarts, the kernel's hints keep the index. Returns when they do.
    void watch(watch::SourceChoice source = watch::SourceChoice::automatic);
    /// How it is kept; nothing as long as comparing is the source.
    std::optional<events::LiveIndex::Status> liveStatus();
    /// Compares everything with the index, so that what is on disk now is known.
    EventID settle();

private:
    struct Services;
    void startWatching();

    TemporaryDirectory directory_;
    std::optional<watch::SourceChoice> source_;
    std::string home_, state_, support_;
    std::unique_ptr<Services> services_;
};

}  // namespace tarnwell::testing
