#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "applibraries/AppLibraryContext.h"
#include "testing/TestDevice.h"

namespace tarnwell::applibraries {

/// A folder of its own with a registry and a main cache on it, without a store.
class CacheTest : public ::testing::Test {
protected:
    using Application = testing::FakeAppRegistry::Application;

    std::string cachePath() const { return directory_.path("data/Tarnwell Storage/app-libraries.plist"); }
    std::string cacheText() const { return URL::file(cachePath()).text(); }
    std::unique_ptr<LocalAppLibraryCache> makeCache() {
        return std::make_unique<LocalAppLibraryCache>(log_, registry_, pool_, "main", URL::file(cachePath()));
    }
    /// An application whose container has a Documents folder.
    Application application(const std::string& name) {
        testing::makeDirectories(directory_.path("containers/" + name + "/Documents"));
        Application application;
        application.bundleIdentifier = "org.example." + name;
        application.containerPath = directory_.path("containers/" + name);
        application.localizedName = name;
        return application;
    }
    registry::BundleRecordPtr record(const std::string& name) {
        registry_.setApplications({application(name)});
        return registry_.recordForBundleIdentifier("org.example." + name);
    }

    static AppLibraryRecords load(LocalAppLibraryCache& cache) {
        return cache.queue().sync([&] { return cache.load(); });
    }
    static Result<std::uint64_t> save(LocalAppLibraryCache& cache,
                                      const std::vector<registry::BundleRecordPtr>& records, std::uint64_t token,
                                      TokenIncrement increment) {
        return cache.queue().sync([&] { return cache.save(records, token, increment); });
    }
    static std::uint64_t tokenOf(LocalAppLibraryCache& cache) {
        return cache.queue().sync([&] { return cache.versionToken(); });
    }
    /// The lines since the last call, sections left out.
    std::vector<std::string> newLines() {
        std::vector<std::string> lines = sink_.texts();
        sink_.clear();
        std::erase_if(lines, [](const std::string& line) {
            return line.starts_with("[DEBUG] ┏") || line.starts_with("[DEBUG] ┗");
        });
        return lines;
    }

    testing::TemporaryDirectory directory_;
    testing::CapturingLog sink_;
    std::shared_ptr<dispatch::ThreadPool> pool_ = dispatch::ThreadPool::create();
    items::ProgramLog log_{sink_, pool_};
    Roots roots_;
    testing::FakeAppRegistry registry_{roots_};
};

/// A device with the app libraries' context on it.
class AppLibraryTest : public ::testing::Test {
protected:
    using Application = testing::FakeAppRegistry::Application;

    AppLibraryTest() { startContext(); }

    void startContext() {
        context_ = std::make_unique<AppLibraryContext>(device_.environment(), device_.registry(), device_.pool(),
                                                       device_.applicationSupport());
    }
    /// Ends the program and starts it again on the same folders.
    void restart() {
        context_.reset();
        device_.restart();
        startContext();
    }

    Application application(const std::string& name) {
        Application application;
        application.bundleIdentifier = "org.example." + name;
        application.containerPath = device_.makeContainer(name);
        application.localizedName = name;
        return application;
    }
    void install(const std::vector<std::string>& names) {
        std::vector<std::optional<Application>> applications;
        for (const std::string& name : names) applications.emplace_back(application(name));
        device_.registry().setApplications(std::move(applications));
    }
    std::shared_ptr<LocalAppLibraryManager> makeManager(CacheSource source) {
        return LocalAppLibraryManager::create(context_->services(), source, LocalAppLibraryManager::Instance::own);
    }
    std::uint64_t mainToken() {
        return context_->mainCache().queue().sync([&] { return context_->mainCache().versionToken(); });
    }
    /// The record that a cache file would give for an application whose container is not known any more.
    registry::BundleRecordPtr recordWithoutContainer(const std::string& name) {
        return device_.registry().recordFromArchive({"org.example." + name, std::nullopt});
    }
    /// Puts those records into the main cache as its next generation.
    void saveToMainCache(const std::vector<registry::BundleRecordPtr>& records) {
        LocalAppLibraryCache& cache = context_->mainCache();
        ASSERT_TRUE(cache.queue().sync([&] { return cache.save(records, 0, TokenIncrement::yes); }));
    }
    std::string mainCachePath() const { return device_.applicationSupport() + "/Tarnwell Storage/app-libraries.plist"; }
    std::string workingSetCachePath() const {
        return device_.applicationSupport() + "/Tarnwell Storage/searchable-app-libraries.plist";
    }
    std::vector<std::string> newLines() {
        std::vector<std::string> lines = device_.log().texts();
        device_.log().clear();
        std::erase_if(lines, [](const std::string& line) {
            return line.starts_with("[DEBUG] ┏") || line.starts_with("[DEBUG] ┗");
        });
        return lines;
    }
    static std::vector<std::string> identifiersOf(const LocalAppLibraryManager& manager) {
        std::vector<std::string> identifiers;
        const auto generation = manager.generation();
        for (const auto& [identifier, item] : generation->appLibrariesByItemIDs) identifiers.push_back(identifier);
        return identifiers;
    }
    std::vector<std::string> realRootsOf(const LocalAppLibraryManager& manager) {
        std::vector<std::string> paths;
        for (const URL& url : manager.rootURLsForAppLibraries()) paths.push_back(device_.roots().realPath(url.path()));
        return paths;
    }
    /// The manager's description without the object's address.
    static std::string plainDescription(const LocalAppLibraryManager& manager) {
        std::string text = manager.description();
        return text.substr(text.find('>') + 1);
    }

    testing::TestDevice device_;
    std::unique_ptr<AppLibraryContext> context_;
};

/// Keeps what it is told, one text a call.
class RecordingChangeObserver : public hostframework::ChangeObserver {
public:
    void didUpdateItems(const std::vector<hostframework::ProviderItemPtr>& items) override {
        std::string text = "update";
        for (const auto& item : items) text += " " + item->itemIdentifier();
        tell(text);
    }
    void didDeleteItemsWithIdentifiers(const std::vector<hostframework::ItemIdentifier>& identifiers) override {
        std::string text = "delete";
        for (const auto& identifier : identifiers) text += " " + identifier;
        tell(text);
    }
    void finishEnumeratingChangesUpToSyncAnchor(const hostframework::SyncAnchor& anchor, bool moreComing) override {
        lastAnchor = anchor;
        tell(moreComing ? "finish, more coming" : "finish");
    }
    void finishEnumeratingWithError(const Error& error) override { tell("error " + std::to_string(error.code)); }
    std::vector<std::string> calls;
    hostframework::SyncAnchor lastAnchor;
    std::function<void(const std::string&)> onCall;

private:
    void tell(const std::string& text) {
        calls.push_back(text);
        if (onCall) onCall(text);
    }
};

}  // namespace tarnwell::applibraries
