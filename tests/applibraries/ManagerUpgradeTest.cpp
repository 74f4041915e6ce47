#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <semaphore>
#include <thread>

#include "applibraries/AppLibraryCacheFile.h"
#include "applibraries/ListText.h"
#include "tests/applibraries/AppLibraryFixture.h"

namespace tarnwell::applibraries {
namespace {

using Lines = std::vector<std::string>;

class ManagerUpgradeTest : public AppLibraryTest {
protected:
    /// Makes the registry list those applications and refreshes the main cache.
    void setLibraries(const Lines& names) {
        install(names);
        context_->refreshAppLibraries();
    }
    std::vector<Lines> deletions() { return device_.providerManager().deletions(); }
    std::string lastLineOfUpgrade() {
        Lines lines = newLines();
        return lines.empty() ? "" : lines.back();
    }
};

TEST_F(ManagerUpgradeTest, DoesNothingAtTheMainCachesToken) {
    setLibraries({"A"});
    auto manager = makeManager(CacheSource::main);
    const auto before = manager->generation();
    std::filesystem::remove(mainCachePath());
    device_.log().clear();
    RecordingChangeObserver observer;
    EXPECT_FALSE(manager->upgradeFromMainCache(&observer, IndexCleanup::yes));
    EXPECT_TRUE(observer.calls.empty());
    EXPECT_TRUE(deletions().empty());
    EXPECT_EQ(manager->generation(), before);
    const Lines lines = device_.log().texts();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_TRUE(lines[0].starts_with("[DEBUG] ┏"));
    EXPECT_TRUE(lines[0].ends_with(" upgrading content from main cache"));
}

TEST_F(ManagerUpgradeTest, DoesNothingWhileNothingWasEverCached) {
    auto manager = makeManager(CacheSource::workingSet);
    EXPECT_FALSE(manager->upgradeFromMainCache(nullptr, IndexCleanup::yes));
}

TEST_F(ManagerUpgradeTest, TakesTheNewGenerationFromBehind) {
    setLibraries({"A", "B"});
    auto manager = makeManager(CacheSource::main);
    setLibraries({"C", "A"});
    RecordingChangeObserver observer;
    EXPECT_TRUE(manager->upgradeFromMainCache(&observer, IndexCleanup::no));
    EXPECT_EQ(observer.calls, (Lines{"update #org.example.C #org.example.A", "delete #org.example.B"}));
    EXPECT_EQ(manager->versionToken(), 2u);
    EXPECT_EQ(identifiersOf(*manager), (Lines{"#org.example.C", "#org.example.A"}));
    EXPECT_EQ(manager->rootURLsForAppLibraries().size(), 2u);
    EXPECT_TRUE(deletions().empty());
    EXPECT_EQ(lastLineOfUpgrade(), "[DEBUG] upgraded manager " + manager->description());
    EXPECT_FALSE(manager->upgradeFromMainCache(&observer, IndexCleanup::no));
    EXPECT_EQ(observer.calls.size(), 2u);
}

TEST_F(ManagerUpgradeTest, TellsTheObserverBeforeTheManagerAndTheHostChange) {
    setLibraries({"A", "B"});
    auto manager = makeManager(CacheSource::main);
    setLibraries({"A"});
    RecordingChangeObserver observer;
    observer.onCall = [&](const std::string& call) {
        EXPECT_EQ(manager->versionToken(), 1u) << call;
        EXPECT_TRUE(deletions().empty()) << call;
    };
    EXPECT_TRUE(manager->upgradeFromMainCache(&observer, IndexCleanup::yes));
    EXPECT_EQ(observer.calls, (Lines{"update #org.example.A", "delete #org.example.B"}));
    EXPECT_EQ(deletions(), (std::vector<Lines>{{"#org.example.B"}}));
}

TEST_F(ManagerUpgradeTest, TellsTheObserverNothingThatIsEmpty) {
    struct Row {
        Lines before, after, calls;
    };
    const Row rows[] = {
        {{}, {"A"}, {"update #org.example.A"}},
        {{"A"}, {"A", "B"}, {"update #org.example.A #org.example.B"}},
        {{"A", "B"}, {"B", "A"}, {"update #org.example.B #org.example.A"}},
        {{"A", "B"}, {}, {"delete #org.example.A #org.example.B"}},
        {{"A"}, {"B"}, {"update #org.example.B", "delete #org.example.A"}},
        {{"C", "A", "B"}, {"A"}, {"update #org.example.A", "delete #org.example.C #org.example.B"}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(listText(row.before) + " to " + listText(row.after));
        setLibraries(row.before);
        auto manager = makeManager(CacheSource::main);
        setLibraries(row.after);
        RecordingChangeObserver observer;
        EXPECT_TRUE(manager->upgradeFromMainCache(&observer, IndexCleanup::no));
        EXPECT_EQ(observer.calls, row.calls);
        EXPECT_EQ(manager->versionToken(), mainToken());
    }
}

TEST_F(ManagerUpgradeTest, NeedsNoObserver) {
    setLibraries({"A", "B"});
    auto manager = makeManager(CacheSource::main);
    setLibraries({"B"});
    EXPECT_TRUE(manager->upgradeFromMainCache(nullptr, IndexCleanup::no));
    EXPECT_EQ(identifiersOf(*manager), Lines{"#org.example.B"});
    EXPECT_TRUE(deletions().empty());
}

TEST_F(ManagerUpgradeTest, LetsTheMainCacheWinOverAManagerAhead) {
    setLibraries({"A", "B"});
    auto manager = makeManager(CacheSource::main);
    setLibraries({"B"});
    setLibraries({"B", "C"});
    ASSERT_TRUE(manager->upgradeFromMainCache(nullptr, IndexCleanup::no));
    ASSERT_EQ(manager->versionToken(), 3u);
    auto& cache = context_->mainCache();
    const auto records = cache.queue().sync([&] { return cache.load().records; });
    ASSERT_EQ(records.size(), 2u);
    ASSERT_TRUE(cache.queue().sync([&] { return cache.save({records[1]}, 2, TokenIncrement::no); }));

    device_.log().clear();
    const std::string before = manager->description();
    RecordingChangeObserver observer;
    EXPECT_TRUE(manager->upgradeFromMainCache(&observer, IndexCleanup::no));
    EXPECT_EQ(device_.log().texts(log::Level::error),
              Lines{"[ERROR] version token shouldn't be greater than the main's cache version (3 vs 2); " + before});
    EXPECT_EQ(observer.calls, (Lines{"update #org.example.C", "delete #org.example.B"}));
    EXPECT_EQ(manager->versionToken(), 2u);
    EXPECT_EQ(identifiersOf(*manager), Lines{"#org.example.C"});
}

TEST_F(ManagerUpgradeTest, ReadsTheFileOnlyOnceItsTokenDiffers) {
    setLibraries({"A"});
    ASSERT_TRUE(context_->sharedManager().upgradeFromMainCache(nullptr, IndexCleanup::no));
    ASSERT_TRUE(context_->sharedManager().saveToCache());
    restart();
    // Nothing has read the main cache yet in this run, so its token in memory is 0 while the file's is 1.
    device_.log().clear();
    EXPECT_EQ(context_->sharedManager().versionToken(), 1u);
    EXPECT_TRUE(context_->sharedManager().upgradeFromMainCache(nullptr, IndexCleanup::no));
    EXPECT_EQ(device_.log().texts(log::Level::error).size(), 1u);
    EXPECT_EQ(context_->sharedManager().versionToken(), 1u);
    EXPECT_EQ(mainToken(), 1u);
    EXPECT_FALSE(context_->sharedManager().upgradeFromMainCache(nullptr, IndexCleanup::no));
}

TEST_F(ManagerUpgradeTest, DoesNotReportALibraryThatCameBack) {
    setLibraries({"A", "B"});
    auto manager = makeManager(CacheSource::workingSet);
    ASSERT_TRUE(manager->upgradeFromMainCache(nullptr, IndexCleanup::no));
    setLibraries({"A"});
    Application again = application("B");
    again.containerPath = device_.makeContainer("B again");
    device_.registry().setApplications({application("A"), again});
    ASSERT_TRUE(context_->refreshAppLibraries());
    ASSERT_EQ(mainToken(), 3u);
    RecordingChangeObserver observer;
    EXPECT_TRUE(manager->upgradeFromMainCache(&observer, IndexCleanup::yes));
    EXPECT_EQ(observer.calls, Lines{"update #org.example.A #org.example.B"});
    EXPECT_TRUE(deletions().empty());
}

TEST_F(ManagerUpgradeTest, AsksForIndexCleanupOnlyWhenToldToAndSomethingWent) {
    struct Row {
        Lines after;
        IndexCleanup cleanup;
        std::vector<Lines> deletions;
    };
    const Row rows[] = {
        {{"A", "B", "C"}, IndexCleanup::yes, {}},
        {{"B", "A"}, IndexCleanup::yes, {}},
        {{"B"}, IndexCleanup::no, {}},
        {{"B"}, IndexCleanup::yes, {{"#org.example.A"}}},
        {{}, IndexCleanup::yes, {{"#org.example.A", "#org.example.B"}}},
    };
    std::size_t seen = 0;
    for (const Row& row : rows) {
        SCOPED_TRACE(listText(row.after));
        setLibraries({"A", "B"});
        auto manager = makeManager(CacheSource::main);
        setLibraries(row.after);
        EXPECT_TRUE(manager->upgradeFromMainCache(nullptr, row.cleanup));
        auto all = deletions();
        EXPECT_EQ(std::vector<Lines>(all.begin() + static_cast<std::ptrdiff_t>(seen), all.end()), row.deletions);
        seen = all.size();
    }
}

TEST_F(ManagerUpgradeTest, SaysWhatIndexCleanupDid) {
    setLibraries({"A", "B", "C"});
    auto manager = makeManager(CacheSource::main);
    setLibraries({"B"});
    device_.log().clear();
    ASSERT_TRUE(manager->upgradeFromMainCache(nullptr, IndexCleanup::yes));
    Lines lines = newLines();
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(Lines(lines.end() - 3, lines.end()),
              (Lines{"[DEBUG] asking provider manager to delete index from deleted domains",
                     "[DEBUG] items from domains [#org.example.A, #org.example.C] removed from index",
                     "[DEBUG] upgraded manager " + manager->description()}));
}

TEST_F(ManagerUpgradeTest, GoesOnWhenIndexCleanupFails) {
    setLibraries({"A", "B"});
    auto manager = makeManager(CacheSource::main);
    setLibraries({"B"});
    const Error error = posixError(EIO, "the index is damaged");
    device_.providerManager().failDeletionsWith(error);
    device_.log().clear();
    EXPECT_TRUE(manager->upgradeFromMainCache(nullptr, IndexCleanup::yes));
    EXPECT_EQ(device_.log().texts(log::Level::error),
              Lines{"[ERROR] can't delete searchable items from [#org.example.A]; " + describe(error)});
    EXPECT_EQ(manager->versionToken(), 2u);
    EXPECT_EQ(identifiersOf(*manager), Lines{"#org.example.B"});
}

TEST_F(ManagerUpgradeTest, PassesOverRecordsWithoutALibraryAndReportsThemGone) {
    setLibraries({"A", "B"});
    auto manager = makeManager(CacheSource::main);
    const auto lost = recordWithoutContainer("A");
    saveToMainCache({lost, device_.registry().recordForBundleIdentifier("org.example.B")});
    device_.log().clear();
    RecordingChangeObserver observer;
    EXPECT_TRUE(manager->upgradeFromMainCache(&observer, IndexCleanup::no));
    EXPECT_EQ(observer.calls, (Lines{"update #org.example.B", "delete #org.example.A"}));
    const Lines lines = newLines();
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(Lines(lines.begin() + 2, lines.end()),
              (Lines{"[ERROR] can't create an app library item without a data container URL",
                     "[DEBUG] can't create app library for " + lost->description(),
                     "[DEBUG] upgraded manager " + manager->description()}));
}

TEST_F(ManagerUpgradeTest, ReportsALibraryGoneWhoseDataWasGoneWhenTheManagerWasMade) {
    setLibraries({"A", "B"});
    auto former = makeManager(CacheSource::workingSet);
    ASSERT_TRUE(former->upgradeFromMainCache(nullptr, IndexCleanup::no));
    ASSERT_TRUE(former->saveToCache());
    // Uninstalled with its data, before a manager of the generation that clients were told of is made again.
    restart();
    std::filesystem::remove_all(std::filesystem::path(device_.makeContainer("B")));
    auto manager = makeManager(CacheSource::workingSet);
    ASSERT_EQ(identifiersOf(*manager), Lines{"#org.example.A"});
    setLibraries({"A"});
    RecordingChangeObserver observer;
    EXPECT_TRUE(manager->upgradeFromMainCache(&observer, IndexCleanup::yes));
    EXPECT_EQ(observer.calls, (Lines{"update #org.example.A", "delete #org.example.B"}));
    EXPECT_EQ(deletions(), std::vector<Lines>{{"#org.example.B"}});
    // Told once.
    setLibraries({"A", "C"});
    EXPECT_TRUE(manager->upgradeFromMainCache(&observer, IndexCleanup::no));
    EXPECT_EQ(observer.calls.back(), "update #org.example.A #org.example.C");
}

TEST_F(ManagerUpgradeTest, TakesNothingFromADamagedFile) {
    setLibraries({"A"});
    auto manager = makeManager(CacheSource::main);
    setLibraries({"A", "B"});
    testing::writeFile(mainCachePath(), "");
    RecordingChangeObserver observer;
    EXPECT_TRUE(manager->upgradeFromMainCache(&observer, IndexCleanup::no));
    EXPECT_EQ(observer.calls, Lines{"delete #org.example.A"});
    EXPECT_EQ(manager->versionToken(), 0u);
    ASSERT_TRUE(context_->refreshAppLibraries());
    EXPECT_TRUE(manager->upgradeFromMainCache(&observer, IndexCleanup::no));
    EXPECT_EQ(observer.calls, (Lines{"delete #org.example.A", "update #org.example.A #org.example.B"}));
    EXPECT_EQ(manager->versionToken(), 3u);
}

/// Keeps the completion of a deletion until told, or lets it go unanswered.
class HoldingProviderManager : public hostframework::ProviderManager {
public:
    explicit HoldingProviderManager(URL storage) : storage_(std::move(storage)) {}
    void signalEnumeratorForContainer(const std::string&, hostframework::Completion completion) override {
        completion(std::nullopt);
    }
    void deleteSearchableItemsWithDomainIdentifiers(const std::vector<std::string>&,
                                                    hostframework::Completion completion) override {
        held = std::move(completion);
        asked.release();
    }
    URL documentStorageURL() const override { return storage_; }
    Relationship relationshipToDocumentStorage(const URL& url) const override { return relationship(storage_, url); }

    hostframework::Completion held;
    std::binary_semaphore asked{0};

private:
    URL storage_;
};

class HeldIndexCleanupTest : public ManagerUpgradeTest {
protected:
    HeldIndexCleanupTest() {
        context_.reset();
        context_ = std::make_unique<AppLibraryContext>(environment_, device_.registry(), device_.pool(),
                                                       device_.applicationSupport());
        setLibraries({"A", "B"});
        manager_ = makeManager(CacheSource::main);
        setLibraries({"B"});
        device_.log().clear();
    }
    ~HeldIndexCleanupTest() override {
        manager_.reset();
        context_.reset();
    }

    HoldingProviderManager host_{device_.url()};
    items::Environment environment_{device_.programLog(), device_.files(), device_.generationStore(), host_, nullptr};
    std::shared_ptr<LocalAppLibraryManager> manager_;
};

TEST_F(HeldIndexCleanupTest, WaitsForTheHostsAnswerWithNoQueueHeld) {
    std::binary_semaphore finished{0};
    std::jthread upgrade([&] {
        EXPECT_TRUE(manager_->upgradeFromMainCache(nullptr, IndexCleanup::yes));
        finished.release();
    });
    ASSERT_TRUE(host_.asked.try_acquire_for(std::chrono::seconds(10)));
    // Managers and caches answer meanwhile, with the generation before.
    EXPECT_EQ(manager_->versionToken(), 1u);
    EXPECT_EQ(mainToken(), 2u);
    EXPECT_FALSE(finished.try_acquire());
    host_.held(std::nullopt);
    finished.acquire();
    EXPECT_EQ(manager_->versionToken(), 2u);
}

TEST_F(HeldIndexCleanupTest, WaitsAsLongAsTheHostTakes) {
    std::binary_semaphore finished{0};
    std::jthread upgrade([&] {
        EXPECT_TRUE(manager_->upgradeFromMainCache(nullptr, IndexCleanup::yes));
        finished.release();
    });
    ASSERT_TRUE(host_.asked.try_acquire_for(std::chrono::seconds(10)));
    EXPECT_FALSE(finished.try_acquire_for(std::chrono::milliseconds(300)));
    EXPECT_EQ(manager_->versionToken(), 1u);
    host_.held(std::nullopt);
    upgrade.join();
    EXPECT_EQ(manager_->versionToken(), 2u);
}

TEST_F(HeldIndexCleanupTest, CountsOneAnswerOnly) {
    std::jthread upgrade([&] { EXPECT_TRUE(manager_->upgradeFromMainCache(nullptr, IndexCleanup::yes)); });
    ASSERT_TRUE(host_.asked.try_acquire_for(std::chrono::seconds(10)));
    auto completion = host_.held;
    completion(posixError(EIO));
    upgrade.join();
    completion(std::nullopt);
    completion(posixError(EIO));
    EXPECT_EQ(device_.log().texts(log::Level::error),
              Lines{"[ERROR] can't delete searchable items from [#org.example.A]; " + describe(posixError(EIO))});
}

TEST_F(HeldIndexCleanupTest, GoesOnWhenTheHostDropsTheRequest) {
    std::jthread upgrade([&] { EXPECT_TRUE(manager_->upgradeFromMainCache(nullptr, IndexCleanup::yes)); });
    ASSERT_TRUE(host_.asked.try_acquire_for(std::chrono::seconds(10)));
    host_.held = nullptr;
    upgrade.join();
    EXPECT_EQ(manager_->versionToken(), 2u);
    EXPECT_EQ(device_.log().texts(log::Level::error),
              Lines{"[ERROR] can't delete searchable items from [#org.example.A]; " +
                    describe(posixError(ECANCELED, "the host dropped the request"))});
}

/// What holds for every generation that a reader may meet.
void checkGeneration(const AppLibraryGeneration& generation) {
    ASSERT_EQ(generation.appLibrariesByItemIDs.size(), generation.bundleProxiesByRootURLs.size());
    for (const auto& [identifier, item] : generation.appLibrariesByItemIDs) {
        ASSERT_EQ(identifier, item->itemIdentifier());
        const auto* record = generation.bundleProxiesByRootURLs.find(item->fileURL());
        ASSERT_TRUE(record);
        ASSERT_EQ("#" + (*record)->bundleIdentifier().value_or(""), identifier);
    }
    if (generation.versionToken == 0) {
        ASSERT_TRUE(generation.appLibrariesByItemIDs.empty());
    }
}

TEST_F(ManagerUpgradeTest, StaysWholeWhileThreadsRefreshUpgradeAndLookUp) {
    const std::vector<Lines> lists = {{"A", "B"}, {"B", "C"}, {"C"}, {"A", "C", "B"}, {"B", "A"}};
    for (const Lines& list : lists) install(list);
    auto own = makeManager(CacheSource::main);
    LocalAppLibraryManager& shared = context_->sharedManager();
    std::atomic<bool> ended = false;
    std::atomic<std::size_t> lookups = 0;
    {
        std::vector<std::jthread> readers;
        for (int i = 0; i < 2; ++i) {
            readers.emplace_back([&, i] {
                LocalAppLibraryManager& manager = i == 0 ? *own : shared;
                do {
                    checkGeneration(*manager.generation());
                    for (const URL& root : manager.rootURLsForAppLibraries()) {
                        device_.environment().appLibraries->recordForURL(root.appending("x"), Relationship::contains);
                    }
                    ++lookups;
                } while (!ended && !HasFatalFailure());
            });
        }
        std::vector<std::jthread> writers;
        for (int i = 0; i < 2; ++i) {
            writers.emplace_back([&, i] {
                for (std::size_t round = 0; round < 25; ++round) {
                    if (i == 0) install(lists[round % lists.size()]);
                    context_->refreshAppLibraries();
                    RecordingChangeObserver observer;
                    own->upgradeFromMainCache(&observer, IndexCleanup::yes);
                    shared.upgradeFromMainCache(nullptr, IndexCleanup::no);
                    if (i == 1) {
                        EXPECT_TRUE(shared.saveToCache());
                    }
                }
            });
        }
        writers.clear();
        ended = true;
    }
    EXPECT_GE(lookups, 2u);
    install({"A", "D"});
    EXPECT_TRUE(context_->refreshAppLibraries());
    for (LocalAppLibraryManager* manager : {own.get(), &shared}) {
        EXPECT_TRUE(manager->upgradeFromMainCache(nullptr, IndexCleanup::no));
        EXPECT_EQ(manager->versionToken(), mainToken());
        EXPECT_EQ(identifiersOf(*manager), (Lines{"#org.example.A", "#org.example.D"}));
    }
}

}  // namespace
}  // namespace tarnwell::applibraries
