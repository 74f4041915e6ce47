#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "provider/LocalProvider.h"
#include "tests/fs/FSFixture.h"

namespace tarnwell::provider {

/// A device with app libraries on it, whose file events a test plays.
class ProviderTest : public fs::FSTest {
protected:
    /// How the lines begin that open and close a section of the log, its number left out.
    static inline const std::string kOpen = "[DEBUG] ┏ ";
    static inline const std::string kClose = "[DEBUG] ┗";

    using Lines = std::vector<std::string>;
    using Application = testing::FakeAppRegistry::Application;

    /// The shared manager is loaded, so that no lookup does it among its own lines.
    ProviderTest() {
        context_.sharedManager();
        newLines();
    }

    /// An application of that name whose container keeps documents.
    Application application(const std::string& name) {
        Application application;
        application.bundleIdentifier = "org.example." + name;
        application.containerPath = device_.makeContainer(name);
        application.localizedName = name;
        return application;
    }
    /// Installs the applications and lets the shared manager know them.
    void install(std::vector<std::optional<Application>> applications) {
        device_.registry().setApplications(std::move(applications));
        ASSERT_TRUE(context_.refreshAppLibraries());
        ASSERT_TRUE(context_.sharedManager().upgradeFromMainCache(nullptr, applibraries::IndexCleanup::no));
        newLines();
    }
    URL documentsOf(const Application& application) {
        return device_.roots().addContainer(*application.containerPath).value().appending("Documents");
    }

    applibraries::AppLibraryContext context_{device_.environment(), device_.registry(), device_.pool(),
                                             device_.applicationSupport()};
    ProviderContext providerContext_{
        environment_,          context_, device_.fileOperations(), device_.accessScopes(), device_.deviceInfo(),
        device_.iconRenderer()};
    /// The same with faults in the file system.
    ProviderContext faultyContext_{faultyEnvironment_,       context_,
                                   device_.fileOperations(), device_.accessScopes(),
                                   device_.deviceInfo(),     device_.iconRenderer()};
};

/// Counts completions; lets a test wait for them.
class Counter {
public:
    void increment() {
        std::lock_guard lock(mutex_);
        ++count_;
        changed_.notify_all();
    }
    int count() const {
        std::lock_guard lock(mutex_);
        return count_;
    }
    /// True when the count was reached within ten seconds.
    bool waitFor(int count) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(10), [&] { return count_ >= count; });
    }

private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    int count_ = 0;
};

}  // namespace tarnwell::provider
