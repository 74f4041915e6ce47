#include "applibraries/AppLibraryContext.h"

#include <unistd.h>

#include <any>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <future>
#include <thread>

#include "applibraries/TWPAppLibraryManager.h"
#include "tests/applibraries/AppLibraryFixture.h"

namespace tarnwell::applibraries {
namespace {

using Lines = std::vector<std::string>;

class AppLibraryContextTest : public AppLibraryTest {
protected:
    std::size_t loadsOfWorkingSet() {
        const Lines lines = device_.log().texts();
        const std::string title = " loading bundle proxies from" + URL::file(workingSetCachePath()).text();
        return static_cast<std::size_t>(
            std::ranges::count_if(lines, [&](const std::string& line) { return line.ends_with(title); }));
    }
    /// Leaves a working-set cache with those libraries behind and starts again.
    void startWithWorkingSet(const Lines& names) {
        install(names);
        ASSERT_TRUE(context_->refreshAppLibraries());
        ASSERT_TRUE(context_->sharedManager().upgradeFromMainCache(nullptr, IndexCleanup::no));
        ASSERT_TRUE(context_->sharedManager().saveToCache());
        restart();
        device_.log().clear();
    }
};
using AppLibraryContextDeathTest = AppLibraryContextTest;

TEST_F(AppLibraryContextTest, KeepsTheCachesBelowApplicationSupport) {
    EXPECT_EQ(context_->mainCache().cacheURL(), URL::file(mainCachePath()));
    EXPECT_EQ(context_->workingSetCache().cacheURL(), URL::file(workingSetCachePath()));
    EXPECT_EQ(context_->mainCache().queue().label(), "tarnwell.app-library-cache.main");
    EXPECT_EQ(context_->workingSetCache().queue().label(), "tarnwell.app-library-cache.working-set");
    EXPECT_EQ(context_->backgroundQueue().label(), "tarnwell.app-library.background");
    EXPECT_FALSE(std::filesystem::exists(device_.applicationSupport() + "/Tarnwell Storage"));
}

TEST_F(AppLibraryContextTest, KeepsNoCacheWaitingForTheOther) {
    LocalAppLibraryCache* const main = &context_->mainCache();
    LocalAppLibraryCache* const workingSet = &context_->workingSetCache();
    for (const auto& [held, other] : {std::pair(main, workingSet), std::pair(workingSet, main)}) {
        SCOPED_TRACE(other->cacheURL().text());
        std::future<std::uint64_t> load;
        held->queue().sync([&, cache = other] {
            load = std::async(std::launch::async,
                              [cache] { return cache->queue().sync([&] { return cache->load().versionToken; }); });
            EXPECT_EQ(load.wait_for(std::chrono::seconds(10)), std::future_status::ready);
        });
        EXPECT_EQ(load.get(), 0u);
    }
}

TEST_F(AppLibraryContextTest, MakesTheSharedManagerOnFirstUseOnly) {
    device_.log().clear();
    EXPECT_EQ(loadsOfWorkingSet(), 0u);
    LocalAppLibraryManager& shared = context_->sharedManager();
    EXPECT_EQ(shared.cacheSource(), CacheSource::workingSet);
    EXPECT_EQ(loadsOfWorkingSet(), 1u);
    EXPECT_EQ(&context_->sharedManager(), &shared);
    EXPECT_EQ(loadsOfWorkingSet(), 1u);
}

TEST_F(AppLibraryContextTest, MakesOneSharedManagerForManyThreads) {
    device_.log().clear();
    std::vector<LocalAppLibraryManager*> seen(8);
    {
        std::vector<std::jthread> threads;
        for (auto& manager : seen) threads.emplace_back([&] { manager = &context_->sharedManager(); });
    }
    EXPECT_EQ(loadsOfWorkingSet(), 1u);
    for (LocalAppLibraryManager* manager : seen) EXPECT_EQ(manager, seen.front());
}

TEST_F(AppLibraryContextTest, IsTheEnvironmentsDirectoryWhileItLives) {
    EXPECT_EQ(device_.environment().appLibraries, &context_->directory());
    context_.reset();
    EXPECT_EQ(device_.environment().appLibraries, nullptr);
    startContext();
    EXPECT_EQ(device_.environment().appLibraries, &context_->directory());
}

TEST_F(AppLibraryContextTest, AnswersForTheSharedManager) {
    startWithWorkingSet({"B", "A"});
    const items::AppLibraryDirectory& directory = *device_.environment().appLibraries;
    const std::vector<URL> roots = directory.rootURLsForAppLibraries();
    EXPECT_EQ(loadsOfWorkingSet(), 1u);
    ASSERT_EQ(roots.size(), 2u);
    EXPECT_EQ(device_.roots().realPath(roots[0].path()), device_.makeContainer("B") + "/Documents");
    auto record = directory.recordForURL(roots[1].appending("x"), Relationship::contains);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->bundleIdentifier(), "org.example.A");
    EXPECT_EQ(directory.recordForURL(device_.url("x"), Relationship::contains), nullptr);
    ASSERT_TRUE(directory.recordForItemIdentifier("#org.example.B"));
    EXPECT_EQ(directory.recordForItemIdentifier("#org.example.Z"), nullptr);
}

TEST_F(AppLibraryContextTest, GivesTheLibrariesToCodeThatKnowsNamesOnly) {
    startWithWorkingSet({"B", "A"});
    hostframework::ObjectRuntime runtime;
    EXPECT_FALSE(runtime.perform("TWPAppLibraryManager", "rootURLsForAppLibraries"));
    TWPAppLibraryManager::registerIn(runtime, context_->directory());
    EXPECT_EQ(loadsOfWorkingSet(), 0u);
    auto answer = runtime.perform("TWPAppLibraryManager", "rootURLsForAppLibraries");
    ASSERT_TRUE(answer);
    const auto* urls = std::any_cast<std::vector<URL>>(&*answer);
    ASSERT_TRUE(urls);
    EXPECT_EQ(*urls, context_->sharedManager().rootURLsForAppLibraries());
    EXPECT_EQ(urls->size(), 2u);
    EXPECT_FALSE(runtime.perform("TWPAppLibraryManager", "somethingElse"));
}

/// A registry whose archived records ask the environment's directory when they are asked for their name.
class AskingRegistry : public registry::AppRegistry {
public:
    AskingRegistry(registry::AppRegistry& inner, const items::Environment& environment)
        : inner_(inner), environment_(environment) {}
    std::string name() const override { return inner_.name(); }
    registry::AppWorkspace* defaultWorkspace() override { return inner_.defaultWorkspace(); }
    registry::BundleRecordPtr recordForBundleIdentifier(const std::string& identifier) override {
        return inner_.recordForBundleIdentifier(identifier);
    }
    registry::BundleRecordPtr recordFromArchive(const registry::ArchivedBundleRecord& archived) override {
        return std::make_shared<Record>(inner_.recordFromArchive(archived), *this);
    }

    std::atomic<int> asked = 0;
    std::atomic<int> found = 0;

private:
    class Record : public registry::BundleRecord {
    public:
        Record(registry::BundleRecordPtr inner, AskingRegistry& owner) : inner_(std::move(inner)), owner_(owner) {}
        std::optional<std::string> bundleIdentifier() const override { return inner_->bundleIdentifier(); }
        std::optional<URL> dataContainerURL() const override { return inner_->dataContainerURL(); }
        std::optional<std::string> localizedName() const override {
            const items::AppLibraryDirectory& directory = *owner_.environment_.appLibraries;
            ++owner_.asked;
            if (!directory.rootURLsForAppLibraries().empty()) ++owner_.found;
            if (directory.recordForURL(inner_->dataContainerURL()->appending("Documents"), Relationship::same)) {
                ++owner_.found;
            }
            if (directory.recordForItemIdentifier("#" + inner_->bundleIdentifier().value_or(""))) ++owner_.found;
            return inner_->localizedName();
        }
        std::optional<std::map<std::string, bool>> infoValues(const std::set<std::string>& keys) const override {
            return inner_->infoValues(keys);
        }
        bool supportsOpeningDocumentsInPlace() const override { return inner_->supportsOpeningDocumentsInPlace(); }
        bool isFileSharingEnabled() const override { return inner_->isFileSharingEnabled(); }
        Result<icons::IconData> iconData(int variant) const override { return inner_->iconData(variant); }
        registry::Origin origin() const override { return inner_->origin(); }
        registry::ApplicationType type() const override { return inner_->type(); }
        registry::ArchivedBundleRecord archived() const override { return inner_->archived(); }
        std::string description() const override { return inner_->description(); }

    private:
        registry::BundleRecordPtr inner_;
        AskingRegistry& owner_;
    };

    registry::AppRegistry& inner_;
    const items::Environment& environment_;
};

TEST_F(AppLibraryContextTest, FindsNothingWhileTheSharedManagerIsLoading) {
    startWithWorkingSet({"A"});
    context_.reset();
    AskingRegistry registry(device_.registry(), device_.environment());
    AppLibraryContext context(device_.environment(), registry, device_.pool(), device_.applicationSupport());
    LocalAppLibraryManager& shared = context.sharedManager();
    EXPECT_EQ(registry.asked, 1);
    EXPECT_EQ(registry.found, 0);
    EXPECT_EQ(identifiersOf(shared), Lines{"#org.example.A"});

    // Whoever asks afterwards finds it in place.
    EXPECT_EQ(shared.currentNames(), shared.shownNames());
    EXPECT_EQ(registry.asked, 2);
    EXPECT_EQ(registry.found, 3);
}

TEST_F(AppLibraryContextTest, AManagerOfAnEnumeratorShowsTheNamesThatTheSharedOneHas) {
    startWithWorkingSet({"A"});
    context_.reset();
    AskingRegistry registry(device_.registry(), device_.environment());
    AppLibraryContext context(device_.environment(), registry, device_.pool(), device_.applicationSupport());
    const auto names = context.sharedManager().shownNames();
    EXPECT_EQ(registry.asked, 1);
    for (const CacheSource source : {CacheSource::main, CacheSource::workingSet}) {
        const auto own =
            LocalAppLibraryManager::create(context.services(), source, LocalAppLibraryManager::Instance::own);
        EXPECT_EQ(own->shownNames(), names);
        EXPECT_EQ(registry.asked, 1) << "that costs more than all the rest";
    }
}

/// One application, whose name was looked at.
class OtherNamesTest : public AppLibraryContextTest {
protected:
    OtherNamesTest() {
        install({"A"});
        EXPECT_TRUE(context_->refreshAppLibraries());
        EXPECT_TRUE(shared().upgradeFromMainCache(nullptr, IndexCleanup::no));
        EXPECT_FALSE(renew("en:"));
        EXPECT_EQ(mainToken(), 1U);
    }
    LocalAppLibraryManager& shared() { return context_->sharedManager(); }
    bool renew(const std::string& languages) { return context_->renewNames(languages, AppLibraryContext::Look::again); }
    void rename(const std::string& name) {
        Application other = application("A");
        other.localizedName = name;
        device_.registry().setApplications({other});
    }
    static LibraryNames::Names names(const std::string& name) { return {{"#org.example.A", name}}; }
};

TEST_F(OtherNamesTest, AreAnotherGenerationOnce) {
    rename("B");
    EXPECT_TRUE(renew("en:"));
    EXPECT_EQ(mainToken(), 2U);
    EXPECT_EQ(shared().versionToken(), 2U);
    EXPECT_EQ(shared().shownNames(), names("B"));
    EXPECT_FALSE(renew("en:"));
    EXPECT_EQ(mainToken(), 2U);
}

/// Whoever takes the generation over makes its items with the names that the shared manager shows.
TEST_F(OtherNamesTest, AreShownBeforeTheGenerationThatTellsOfThem) {
    rename("B");
    std::promise<void> mayGoOn;
    context_->mainCache().queue().async([may = mayGoOn.get_future().share()] { may.wait(); });
    std::thread renewing([&] { EXPECT_TRUE(renew("en:")); });
    for (int i = 0; i < 1000 && shared().shownNames() != names("B"); ++i) ::usleep(10'000);
    EXPECT_EQ(shared().shownNames(), names("B"));
    EXPECT_EQ(shared().versionToken(), 1U);
    mayGoOn.set_value();
    renewing.join();
    EXPECT_EQ(mainToken(), 2U);
}

TEST_F(OtherNamesTest, AreToldAlsoWhereTheSharedManagerHasMetThemAlready) {
    rename("B");
    saveToMainCache(context_->mainCache().queue().sync([&] { return context_->mainCache().load().records; }));
    EXPECT_TRUE(shared().upgradeFromMainCache(nullptr, IndexCleanup::no));
    EXPECT_EQ(shared().shownNames(), names("B"));
    EXPECT_TRUE(renew("de:")) << "in other languages than before";
    EXPECT_EQ(mainToken(), 3U);
}

TEST_F(OtherNamesTest, ThatCannotBeWrittenDownAreTriedAgain) {
    rename("B");
    const std::string aside = mainCachePath() + ".aside";
    std::filesystem::rename(mainCachePath(), aside);
    EXPECT_FALSE(renew("en:")) << "there is no list";
    std::filesystem::rename(aside, mainCachePath());
    EXPECT_TRUE(renew("en:"));
    EXPECT_EQ(mainToken(), 2U);
}

TEST_F(AppLibraryContextDeathTest, StopsWithoutApplicationSupport) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(AppLibraryContext(device_.environment(), device_.registry(), device_.pool(), ""),
                 "there is no application-support folder");
}

}  // namespace
}  // namespace tarnwell::applibraries
