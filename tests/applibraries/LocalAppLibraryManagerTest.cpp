#include "applibraries/LocalAppLibraryManager.h"

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <semaphore>
#include <thread>

#include "applibraries/AppLibraryCacheFile.h"
#include "tests/applibraries/AppLibraryFixture.h"

namespace tarnwell::applibraries {
namespace {

using Lines = std::vector<std::string>;

class LocalAppLibraryManagerTest : public AppLibraryTest {
protected:
    void installAndRefresh(const Lines& names) {
        install(names);
        ASSERT_TRUE(context_->refreshAppLibraries());
    }
    std::string realRoot(const std::string& name) { return device_.makeContainer(name) + "/Documents"; }
    AppLibraryList workingSetFile() {
        std::string content = testing::readFile(workingSetCachePath());
        auto list = decodeAppLibraryList(bytesOf(content));
        EXPECT_TRUE(list.has_value());
        return list.value_or(AppLibraryList{});
    }
};

TEST_F(LocalAppLibraryManagerTest, NamesItsCacheSource) {
    EXPECT_EQ(nameOf(CacheSource::main), "main cache");
    EXPECT_EQ(nameOf(CacheSource::workingSet), "working-set cache");
    EXPECT_EQ(static_cast<int>(CacheSource::main), 0);
    EXPECT_EQ(static_cast<int>(CacheSource::workingSet), 1);
}

TEST_F(LocalAppLibraryManagerTest, IsEmptyWithTokenZeroAtAFirstStart) {
    for (CacheSource source : {CacheSource::main, CacheSource::workingSet}) {
        auto manager = makeManager(source);
        EXPECT_EQ(manager->cacheSource(), source);
        EXPECT_EQ(manager->versionToken(), 0u);
        EXPECT_TRUE(manager->appLibraryItems().empty());
        EXPECT_TRUE(manager->rootURLsForAppLibraries().empty());
    }
    EXPECT_FALSE(std::filesystem::exists(device_.applicationSupport() + "/Tarnwell Storage"));
}

TEST_F(LocalAppLibraryManagerTest, LoadsItsCacheFileInRegistryOrder) {
    installAndRefresh({"C", "A", "B"});
    auto manager = makeManager(CacheSource::main);
    EXPECT_EQ(manager->versionToken(), 1u);
    EXPECT_EQ(identifiersOf(*manager), (Lines{"#org.example.C", "#org.example.A", "#org.example.B"}));
    EXPECT_EQ(realRootsOf(*manager), (Lines{realRoot("C"), realRoot("A"), realRoot("B")}));
    const auto items = manager->appLibraryItems();
    ASSERT_EQ(items.size(), 3u);
    EXPECT_EQ(items[0]->filename(), "C");
    EXPECT_EQ(items[0]->parentItemIdentifier(), hostframework::kRootContainer);
    EXPECT_TRUE(items[0]->isContainer());
    EXPECT_EQ(makeManager(CacheSource::workingSet)->versionToken(), 0u);
}

TEST_F(LocalAppLibraryManagerTest, BracketsLoadingWithItsCache) {
    device_.log().clear();
    makeManager(CacheSource::workingSet);
    const Lines lines = device_.log().texts();
    ASSERT_EQ(lines.size(), 3u);
    const std::string number = lines.back().substr(std::string("[DEBUG] ┗").size());
    EXPECT_EQ(lines[0],
              "[DEBUG] ┏" + number + " loading bundle proxies from" + URL::file(workingSetCachePath()).text());
    EXPECT_EQ(lines[1], "[DEBUG] nothing cached on disk");
}

TEST_F(LocalAppLibraryManagerTest, LooksUpByIdentifierAndByRoot) {
    installAndRefresh({"A", "B"});
    auto manager = makeManager(CacheSource::main);
    const std::vector<URL> roots = manager->rootURLsForAppLibraries();
    ASSERT_EQ(roots.size(), 2u);

    auto item = manager->appLibraryForItemIdentifier("#org.example.B");
    ASSERT_TRUE(item);
    EXPECT_EQ(item->fileURL(), roots[1]);
    EXPECT_EQ(manager->appLibraryForItemIdentifier("#org.example.C"), nullptr);
    EXPECT_EQ(manager->appLibraryForItemIdentifier(""), nullptr);

    ASSERT_TRUE(manager->recordForURL(roots[0], Relationship::same));
    EXPECT_EQ(manager->recordForURL(roots[0], Relationship::same)->bundleIdentifier(), "org.example.A");
    EXPECT_EQ(manager->recordForURL(roots[0].appending("x"), Relationship::same), nullptr);
    ASSERT_TRUE(manager->recordForItemIdentifier("#org.example.A"));
    EXPECT_EQ(manager->recordForItemIdentifier("#org.example.A")->bundleIdentifier(), "org.example.A");
    EXPECT_EQ(manager->recordForItemIdentifier("org.example.A"), nullptr);
}

TEST_F(LocalAppLibraryManagerTest, LooksUpInTurnOnItsQueue) {
    installAndRefresh({"A"});
    auto manager = makeManager(CacheSource::main);
    EXPECT_EQ(manager->queue().label(), "tarnwell.app-library-manager");
    EXPECT_NE(&manager->queue(), &context_->sharedManager().queue());
    const URL root = manager->rootURLsForAppLibraries().at(0);
    const std::string identifier = "#org.example.A";
    const std::function<bool()> lookups[] = {
        [&] { return manager->versionToken() == 1; },
        [&] { return manager->generation() != nullptr; },
        [&] { return manager->appLibraryItems().size() == 1; },
        [&] { return manager->appLibraryForItemIdentifier(identifier) != nullptr; },
        [&] { return manager->rootURLsForAppLibraries().size() == 1; },
        [&] { return manager->recordForURL(root, Relationship::same) != nullptr; },
        [&] { return manager->relationshipToRoots(root) == Relationship::same; },
        [&] { return manager->recordForItemIdentifier(identifier) != nullptr; },
        [&] { return !manager->description().empty(); },
    };
    std::counting_semaphore<> finished{0};
    std::atomic<std::size_t> correct = 0;
    std::vector<std::jthread> threads;
    manager->queue().sync([&] {
        for (const auto& lookup : lookups) {
            threads.emplace_back([&] {
                correct += lookup() ? 1 : 0;
                finished.release();
            });
        }
        EXPECT_FALSE(finished.try_acquire_for(std::chrono::milliseconds(100)));
    });
    threads.clear();
    EXPECT_EQ(correct, std::size(lookups));
}

TEST_F(LocalAppLibraryManagerTest, FindsTheRecordOfTheLibraryThatHoldsAPlace) {
    installAndRefresh({"A", "B"});
    auto manager = makeManager(CacheSource::main);
    const URL root = manager->rootURLsForAppLibraries().at(1);
    struct Row {
        URL url;
        Relationship relationship;
        bool found;
    };
    const Row rows[] = {
        {root, Relationship::same, true},
        {root, Relationship::contains, false},
        {root.appending("x"), Relationship::contains, true},
        {root.appending("x"), Relationship::same, false},
        {root.appending("x").appending("y"), Relationship::contains, true},
        {root.deletingLastPathComponent(), Relationship::contains, false},
        {root.deletingLastPathComponent(), Relationship::same, false},
        {URL::file(root.path() + "2/x"), Relationship::contains, false},
        {device_.url("x"), Relationship::contains, false},
        {URL::parse("https://example.org" + root.path() + "/x"), Relationship::contains, false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.url.text());
        auto record = manager->recordForURL(row.url, row.relationship);
        EXPECT_EQ(record != nullptr, row.found);
        if (record) {
            EXPECT_EQ(record->bundleIdentifier(), "org.example.B");
        }
    }
}

TEST_F(LocalAppLibraryManagerTest, HandsOutRootURLsWithoutOldResourceValues) {
    installAndRefresh({"A"});
    auto manager = makeManager(CacheSource::main);
    const URL root = manager->rootURLsForAppLibraries().at(0);
    EXPECT_EQ(root.cache().snapshot(), nullptr);
    EXPECT_FALSE(root.cache().fileID());
}

TEST_F(LocalAppLibraryManagerTest, PassesOverRecordsWithoutALibraryAndSaysSo) {
    install({"B"});
    const auto lost = recordWithoutContainer("A");
    saveToMainCache({lost, device_.registry().recordForBundleIdentifier("org.example.B")});
    device_.log().clear();
    auto manager = makeManager(CacheSource::main);
    EXPECT_EQ(manager->versionToken(), 1u);
    EXPECT_EQ(identifiersOf(*manager), Lines{"#org.example.B"});
    EXPECT_EQ(realRootsOf(*manager), Lines{realRoot("B")});
    const Lines lines = newLines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[2], "[ERROR] can't create an app library item without a data container URL");
    EXPECT_EQ(lines[3], "[DEBUG] can't create app library from bundle proxy " + lost->description());
}

TEST_F(LocalAppLibraryManagerTest, PassesOverALibraryWhoseFolderIsGoneAtTheNextStart) {
    installAndRefresh({"A", "B"});
    std::filesystem::remove(device_.makeContainer("A") + "/Documents");
    restart();
    auto manager = makeManager(CacheSource::main);
    EXPECT_EQ(manager->versionToken(), 1u);
    EXPECT_EQ(identifiersOf(*manager), Lines{"#org.example.B"});
}

TEST_F(LocalAppLibraryManagerTest, LetsALaterRecordTakeTheKeyOfAnEarlierOne) {
    Application first = application("A"), other = application("B"), last = application("C");
    first.bundleIdentifier.reset();
    last.bundleIdentifier.reset();
    device_.registry().setApplications({first, other, last});
    ASSERT_TRUE(context_->refreshAppLibraries());
    auto manager = makeManager(CacheSource::main);
    EXPECT_EQ(identifiersOf(*manager), (Lines{"#(null)", "#org.example.B"}));
    EXPECT_EQ(realRootsOf(*manager), (Lines{realRoot("A"), realRoot("B"), realRoot("C")}));
    auto item = manager->appLibraryForItemIdentifier("#(null)");
    ASSERT_TRUE(item);
    EXPECT_EQ(device_.roots().realPath(item->fileURL().path()), realRoot("C"));
    EXPECT_EQ(manager->recordForItemIdentifier("#(null)"), manager->recordForURL(item->fileURL(), Relationship::same));
}

TEST_F(LocalAppLibraryManagerTest, DescribesItself) {
    installAndRefresh({"A", "B"});
    auto manager = makeManager(CacheSource::main);
    EXPECT_TRUE(manager->description().starts_with("<LocalAppLibraryManager: 0x")) << manager->description();
    EXPECT_EQ(plainDescription(*manager), " versionToken:1 cache-source:main cache app-libraries:2");
    EXPECT_EQ(plainDescription(*makeManager(CacheSource::workingSet)),
              " versionToken:0 cache-source:working-set cache app-libraries:0");
    EXPECT_EQ(plainDescription(context_->sharedManager()),
              " SHARED versionToken:0 cache-source:working-set cache app-libraries:0");
}

TEST_F(LocalAppLibraryManagerTest, SavesItsGenerationUnchanged) {
    installAndRefresh({"B", "A"});
    installAndRefresh({"B", "A", "C"});
    auto manager = makeManager(CacheSource::workingSet);
    ASSERT_TRUE(manager->upgradeFromMainCache(nullptr, IndexCleanup::no));
    device_.log().clear();
    ASSERT_TRUE(manager->saveToCache());
    const Lines lines = device_.log().texts();
    ASSERT_EQ(lines.size(), 3u);
    const std::string number = lines.back().substr(std::string("[DEBUG] ┗").size());
    const std::string cache = URL::file(workingSetCachePath()).text();
    EXPECT_EQ(lines[0], "[DEBUG] ┏" + number + " saving bundle proxies to" + cache);
    EXPECT_EQ(lines[1], "[DEBUG] wrote on disk " + std::to_string(testing::readFile(workingSetCachePath()).size()) +
                            " bytes at " + cache);
    EXPECT_EQ(manager->versionToken(), 2u);
    const AppLibraryList file = workingSetFile();
    EXPECT_EQ(file.versionToken, 2u);
    ASSERT_EQ(file.records.size(), 3u);
    EXPECT_EQ(file.records[0].bundleIdentifier, "org.example.B");
    EXPECT_EQ(file.records[2].bundleIdentifier, "org.example.C");

    restart();
    auto later = makeManager(CacheSource::workingSet);
    EXPECT_EQ(later->versionToken(), 2u);
    EXPECT_EQ(identifiersOf(*later), (Lines{"#org.example.B", "#org.example.A", "#org.example.C"}));
}

TEST_F(LocalAppLibraryManagerTest, ReturnsTheErrorOfASaveThatFails) {
    auto manager = makeManager(CacheSource::workingSet);
    testing::writeFile(device_.applicationSupport() + "/Tarnwell Storage", "in the way");
    auto saved = manager->saveToCache();
    ASSERT_FALSE(saved);
    EXPECT_EQ(saved.error().domain, ErrorDomain::posix);
    EXPECT_EQ(manager->versionToken(), 0u);
    EXPECT_TRUE(device_.log().texts(log::Level::error).empty());
}

TEST_F(LocalAppLibraryManagerTest, IsEmptyForADamagedFile) {
    installAndRefresh({"A"});
    testing::writeFile(mainCachePath(), "bplist00 and no more");
    auto manager = makeManager(CacheSource::main);
    EXPECT_EQ(manager->versionToken(), 0u);
    EXPECT_TRUE(manager->appLibraryItems().empty());
}

}  // namespace
}  // namespace tarnwell::applibraries
