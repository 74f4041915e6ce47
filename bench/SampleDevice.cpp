#include "bench/SampleDevice.h"

#include <optional>
#include <utility>
#include <vector>

namespace tarnwell::bench {

namespace {

constexpr int kLibraries = 10;

}  // namespace

SampleDevice::SampleDevice() { open(); }

void SampleDevice::restart() {
    environment_.reset();
    libraries_.reset();
    device_.restart();
    open();
}

void SampleDevice::open() {
    device_.log().setThreshold(log::Level::off);
    libraries_.emplace(device_.environment(), device_.registry(), device_.pool(), device_.applicationSupport());
    environment_.emplace(fs::FSEnvironment{device_.environment(), device_.events(), device_.pool()});

    std::vector<std::optional<testing::FakeAppRegistry::Application>> applications;
    for (int i = 0; i < kLibraries; ++i) {
        const std::string name = "Application" + std::to_string(i);
        testing::FakeAppRegistry::Application application;
        application.bundleIdentifier = "org.example." + name;
        application.containerPath = device_.makeContainer(name);
        application.localizedName = name;
        applications.emplace_back(std::move(application));
    }
    device_.registry().setApplications(std::move(applications));
    libraries_->refreshAppLibraries();
    libraries_->sharedManager().upgradeFromMainCache(nullptr, applibraries::IndexCleanup::no);
}

}  // namespace tarnwell::bench
