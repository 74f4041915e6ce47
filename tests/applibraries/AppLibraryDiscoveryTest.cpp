#include "applibraries/AppLibraryDiscovery.h"

#include <atomic>
#include <filesystem>
#include <thread>

#include "applibraries/ListText.h"
#include "tests/applibraries/AppLibraryFixture.h"

namespace tarnwell::applibraries {
namespace {

using Lines = std::vector<std::string>;

class AppLibraryDiscoveryTest : public AppLibraryTest {
protected:
    Lines found() {
        Lines identifiers;
        for (const auto& record : retrieveBundleRecords(device_.programLog(), device_.registry())) {
            identifiers.push_back(record->bundleIdentifier().value_or("<unknown>"));
        }
        return identifiers;
    }
    std::string listOf(const std::vector<registry::BundleRecordPtr>& records) {
        Lines texts;
        for (const auto& record : records) texts.push_back(record->description());
        return listText(texts);
    }
};
using AppLibraryDiscoveryDeathTest = AppLibraryDiscoveryTest;

TEST_F(AppLibraryDiscoveryTest, ShowsListsInBrackets) {
    EXPECT_EQ(listText({}), "[]");
    EXPECT_EQ(listText({"a"}), "[a]");
    EXPECT_EQ(listText({"a", "", "c"}), "[a, , c]");
    EXPECT_EQ(listText({"", ""}), "[, ]");
}

TEST_F(AppLibraryDiscoveryTest, ListsApplicationsThatKeepDocuments) {
    struct Row {
        const char* name;
        bool container, values, browser, inPlace, sharing, listed;
    };
    const Row rows[] = {
        {"document browser", true, true, true, false, false, true},
        {"document browser and all else", true, true, true, true, true, true},
        {"in place and sharing", true, true, false, true, true, true},
        {"in place only", true, true, false, true, false, false},
        {"sharing only", true, true, false, false, true, false},
        {"nothing declared", true, true, false, false, false, false},
        {"no values", true, false, true, true, true, false},
        {"no container", false, true, true, true, true, false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Application app = application("App");
        if (!row.container) app.containerPath.reset();
        app.hasInfoValues = row.values;
        app.supportsDocumentBrowser = row.browser;
        app.opensInPlace = row.inPlace;
        app.fileSharing = row.sharing;
        device_.registry().setApplications({app});
        EXPECT_EQ(found(), row.listed ? Lines{"org.example.App"} : Lines{});
    }
}

TEST_F(AppLibraryDiscoveryTest, ListsNoApplicationWithoutADocumentsFolder) {
    install({"A", "B"});
    std::filesystem::remove(device_.makeContainer("A") + "/Documents");
    EXPECT_EQ(found(), Lines{"org.example.B"});
}

TEST_F(AppLibraryDiscoveryTest, ListsTheUsersApplicationsBeforeTheSystems) {
    Application a = application("A"), b = application("B"), c = application("C");
    a.type = registry::ApplicationType::system;
    device_.registry().setApplications({a, b, c});
    EXPECT_EQ(found(), (Lines{"org.example.B", "org.example.C", "org.example.A"}));
}

TEST_F(AppLibraryDiscoveryTest, SaysWhatItFindsInOneSection) {
    Application a = application("A"), unnamed = application("U"), none = application("N");
    unnamed.bundleIdentifier.reset();
    none.supportsDocumentBrowser = false;
    device_.registry().setApplications({a, std::nullopt, none, unnamed});
    device_.log().clear();
    auto records = retrieveBundleRecords(device_.programLog(), device_.registry());
    ASSERT_EQ(records.size(), 2u);
    Lines lines = device_.log().texts();
    ASSERT_EQ(lines.size(), 6u);
    const std::string number = lines.back().substr(std::string("[DEBUG] ┗").size());
    EXPECT_EQ(lines.front(), "[DEBUG] ┏" + number + " retrieving app libraries from FakeAppRegistry");
    EXPECT_EQ(lines.at(lines.size() - 2), "[DEBUG] bundle proxies " + listOf(records));
    Lines inner(lines.begin() + 1, lines.end() - 2);
    EXPECT_EQ(inner, (Lines{"[DEBUG] add org.example.A", "[ERROR] enumerate Application provided nil proxy",
                            "[DEBUG] add <unknown>"}));
}

TEST_F(AppLibraryDiscoveryTest, WritesTheFirstGenerationAndSaysSo) {
    install({"A", "B"});
    device_.log().clear();
    EXPECT_TRUE(context_->refreshAppLibraries());
    const Lines lines = newLines();
    ASSERT_GE(lines.size(), 3u);
    const std::string cache = context_->mainCache().cacheURL().text();
    const std::string size = std::to_string(testing::readFile(mainCachePath()).size());
    EXPECT_EQ(Lines(lines.end() - 3, lines.end()),
              (Lines{"[DEBUG] nothing cached on disk", "[DEBUG] wrote on disk " + size + " bytes at " + cache,
                     "[DEBUG] main cache version token is now 1"}));
    EXPECT_EQ(mainToken(), 1u);
}

TEST_F(AppLibraryDiscoveryTest, ChangesNothingWhenTheRegistryDidNotChange) {
    install({"A", "B"});
    ASSERT_TRUE(context_->refreshAppLibraries());
    const std::string before = testing::readFile(mainCachePath());
    device_.log().clear();
    EXPECT_FALSE(context_->refreshAppLibraries());
    EXPECT_EQ(newLines().back(), "[DEBUG] bundle proxies are identical to previous version");
    EXPECT_EQ(testing::readFile(mainCachePath()), before);
    EXPECT_EQ(mainToken(), 1u);
    restart();
    install({"A", "B"});
    EXPECT_FALSE(context_->refreshAppLibraries());
    EXPECT_EQ(mainToken(), 1u);
}

TEST_F(AppLibraryDiscoveryTest, RefreshesInOneSectionWhateverComesOfIt) {
    install({"A"});
    enum class Outcome { written, identical, failed };
    for (Outcome outcome : {Outcome::failed, Outcome::written, Outcome::identical}) {
        SCOPED_TRACE(static_cast<int>(outcome));
        const std::string folder = device_.applicationSupport() + "/Tarnwell Storage";
        if (outcome == Outcome::failed) testing::writeFile(folder, "in the way");
        if (outcome == Outcome::written) std::filesystem::remove(folder);
        device_.log().clear();
        EXPECT_EQ(context_->refreshAppLibraries(), outcome == Outcome::written);
        const Lines lines = device_.log().texts();
        ASSERT_GE(lines.size(), 4u);
        const std::string corner = "[DEBUG] ┗";
        ASSERT_TRUE(lines.back().starts_with(corner)) << lines.back();
        const std::string number = lines.back().substr(corner.size());
        EXPECT_EQ(lines.front(), "[DEBUG] ┏" + number + " refreshing app libraries");
        // The look at the registry is a section inside, with a number of its own.
        EXPECT_TRUE(lines[1].ends_with(" retrieving app libraries from FakeAppRegistry")) << lines[1];
        EXPECT_EQ(std::ranges::count(lines, corner + number), 1);
    }
}

TEST_F(AppLibraryDiscoveryTest, WritesNoGenerationForAnEmptyRegistryAtFirst) {
    EXPECT_FALSE(context_->refreshAppLibraries());
    EXPECT_FALSE(std::filesystem::exists(mainCachePath()));
    EXPECT_EQ(mainToken(), 0u);
}

TEST_F(AppLibraryDiscoveryTest, WritesOneGenerationForEachDifference) {
    const std::vector<Lines> steps = {{"A"}, {"A", "B"}, {"B", "A"}, {"B"}, {"C"}, {}};
    std::uint64_t token = 0;
    for (const Lines& step : steps) {
        install(step);
        EXPECT_TRUE(context_->refreshAppLibraries()) << listText(step);
        EXPECT_EQ(mainToken(), ++token);
        EXPECT_FALSE(context_->refreshAppLibraries()) << listText(step);
        EXPECT_EQ(mainToken(), token);
    }
}

TEST_F(AppLibraryDiscoveryTest, ComparesDataContainersOnly) {
    Application app = application("A");
    device_.registry().setApplications({app});
    ASSERT_TRUE(context_->refreshAppLibraries());
    app.bundleIdentifier = "org.example.Renamed";
    app.localizedName = "Renamed";
    app.opensInPlace = true;
    device_.registry().setApplications({app});
    EXPECT_FALSE(context_->refreshAppLibraries());
    app.containerPath = device_.makeContainer("Elsewhere");
    device_.registry().setApplications({app});
    EXPECT_TRUE(context_->refreshAppLibraries());
    EXPECT_EQ(mainToken(), 2u);
}

TEST_F(AppLibraryDiscoveryTest, GoesOnFromTheTokenInMemoryAfterTheFileWasDamaged) {
    install({"A"});
    ASSERT_TRUE(context_->refreshAppLibraries());
    testing::writeFile(mainCachePath(), "no list");
    EXPECT_TRUE(context_->refreshAppLibraries());
    EXPECT_EQ(mainToken(), 2u);
    EXPECT_EQ(makeManager(CacheSource::main)->versionToken(), 2u);
}

TEST_F(AppLibraryDiscoveryTest, ReportsAFileThatCannotBeWritten) {
    install({"A"});
    testing::writeFile(device_.applicationSupport() + "/Tarnwell Storage", "in the way");
    device_.log().clear();
    EXPECT_FALSE(context_->refreshAppLibraries());
    const Lines errors = device_.log().texts(log::Level::error);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_TRUE(errors[0].starts_with("[ERROR] can't refresh app libraries; POSIX ")) << errors[0];
    EXPECT_EQ(mainToken(), 0u);
    std::filesystem::remove(device_.applicationSupport() + "/Tarnwell Storage");
    EXPECT_TRUE(context_->refreshAppLibraries());
    EXPECT_EQ(mainToken(), 1u);
}

TEST_F(AppLibraryDiscoveryTest, ChangesNoManager) {
    install({"A"});
    ASSERT_TRUE(context_->refreshAppLibraries());
    auto manager = makeManager(CacheSource::main);
    LocalAppLibraryManager& shared = context_->sharedManager();
    install({"A", "B"});
    ASSERT_TRUE(context_->refreshAppLibraries());
    EXPECT_EQ(manager->versionToken(), 1u);
    EXPECT_EQ(identifiersOf(*manager), Lines{"#org.example.A"});
    EXPECT_EQ(shared.versionToken(), 0u);
}

TEST_F(AppLibraryDiscoveryTest, WritesOneGenerationForRefreshesAtOnce) {
    install({"A", "B", "C"});
    std::atomic<int> written = 0;
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < 8; ++i) {
            threads.emplace_back([&] { written += context_->refreshAppLibraries() ? 1 : 0; });
        }
    }
    EXPECT_EQ(written, 1);
    EXPECT_EQ(mainToken(), 1u);
}

TEST_F(AppLibraryDiscoveryDeathTest, StopsWithoutARegistry) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    device_.registry().setHasWorkspace(false);
    EXPECT_DEATH((void)retrieveBundleRecords(device_.programLog(), device_.registry()),
                 "the application registry has no default workspace");
}

}  // namespace
}  // namespace tarnwell::applibraries
