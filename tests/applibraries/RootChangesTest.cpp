#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <random>
#include <thread>

#include "applibraries/LocalRootEnumerator.h"
#include "fs/FSEnvironment.h"
#include "hostframework/HostError.h"
#include "items/TWPFileObjectIdentifier.h"
#include "testing/ScriptedFileEventService.h"
#include "tests/applibraries/AppLibraryFixture.h"

namespace tarnwell::applibraries {
namespace {

using Lines = std::vector<std::string>;
using hostframework::SyncAnchor;

constexpr std::chrono::seconds kPatience{10};

/// How one request ended: its calls in order, and the token of the anchor that it finished with.
struct Answer {
    Lines calls;
    std::optional<fs::ChangeToken> token;
};

/// One request for changes, on its own observer.
class Request {
public:
    Request() {
        observer_->onCall = [done = done_, isDone = false](const std::string& call) mutable {
            if (!call.starts_with("finish") && !call.starts_with("error")) return;
            EXPECT_FALSE(isDone) << "finished twice: " << call;
            if (!std::exchange(isDone, true)) done->set_value();
        };
    }
    const std::shared_ptr<RecordingChangeObserver>& observer() const { return observer_; }
    void start(LocalRootEnumerator& enumerator, const SyncAnchor& since) {
        enumerator.enumerateChangesForObserver(observer_, since);
    }
    Answer wait() {
        if (done_->get_future().wait_for(kPatience) != std::future_status::ready) {
            ADD_FAILURE() << "no finish came";
            return {};
        }
        return {observer_->calls, fs::ChangeToken::decode(observer_->lastAnchor)};
    }

private:
    std::shared_ptr<RecordingChangeObserver> observer_ = std::make_shared<RecordingChangeObserver>();
    std::shared_ptr<std::promise<void>> done_ = std::make_shared<std::promise<void>>();
};

class RootChangesTest : public AppLibraryTest {
protected:
    /// Streams and readers end on their queues, and the device must outlive them.
    void TearDown() override { device_.pool()->waitUntilQuiet(); }

    std::shared_ptr<LocalRootEnumerator> makeEnumerator(const std::string& container = hostframework::kRootContainer) {
        return LocalRootEnumerator::create(environment_, context_->services(), container);
    }
    /// Makes the registry list those applications: another generation of the main cache.
    void setLibraries(const Lines& names) {
        install(names);
        ASSERT_TRUE(context_->refreshAppLibraries());
    }
    /// The shared manager names the parents of what lies in a library.
    void upgradeSharedManager() {
        ASSERT_TRUE(context_->sharedManager().upgradeFromMainCache(nullptr, IndexCleanup::no));
    }
    /// Puts the main cache's generation into the working-set cache's file.
    void saveToWorkingSetCache() {
        auto manager = makeManager(CacheSource::workingSet);
        ASSERT_TRUE(manager->upgradeFromMainCache(nullptr, IndexCleanup::no));
        ASSERT_TRUE(manager->saveToCache());
    }
    /// A present anchor of that generation.
    SyncAnchor anchor(LocalRootEnumerator& enumerator, std::uint64_t version) {
        return fs::ChangeToken{.deviceUUID = enumerator.localFileEnumerator()->notifier()->deviceUUID(),
                               .streamEventID = device_.settle(),
                               .appLibraryVersionToken = version}
            .encode();
    }
    static Answer changes(LocalRootEnumerator& enumerator, const SyncAnchor& since) {
        Request request;
        request.start(enumerator, since);
        return request.wait();
    }
    std::string identifierOf(const std::string& relative) {
        return items::TWPFileObjectIdentifier(device_.environment()).itemIdentifier(device_.url(relative)).value_or("");
    }
    std::string storagePath() { return device_.url().path(); }
    std::string libraryPath(const std::string& name) {
        return device_.roots().addContainer(device_.makeContainer(name)).value().appending("Documents").path();
    }
    bool hasLine(const std::string& line) { return device_.log().contains(line); }
    /// The two lines that a section for this title opened and closed with; nothing when there were none.
    std::optional<std::pair<std::string, std::string>> sectionLines(const std::string& title) {
        const Lines lines = device_.log().texts();
        const std::string opening = "[DEBUG] ┏", closing = "[DEBUG] ┗";
        for (const auto& line : lines) {
            if (!line.starts_with(opening) || !line.ends_with(" " + title)) continue;
            const std::string number = line.substr(opening.size(), line.size() - opening.size() - title.size() - 1);
            if (!std::ranges::count(lines, closing + number)) return std::nullopt;
            return std::pair(line, closing + number);
        }
        return std::nullopt;
    }

    fs::FSEnvironment environment_{device_.environment(), device_.events(), device_.pool()};
};

TEST_F(RootChangesTest, AnAnchorThatIsNoTokenExpires) {
    setLibraries({"A"});
    auto enumerator = makeEnumerator();
    const SyncAnchor good = anchor(*enumerator, 1);
    std::vector<SyncAnchor> rows{{}, {1, 2, 3}, Bytes(48, 0), Bytes(48, 'b'), SyncAnchor(good.begin(), good.end() - 1)};
    SyncAnchor padded = good;
    padded.resize(48);
    rows.push_back(padded);
    std::mt19937 random(7);
    for (std::size_t size : {1u, 8u, 47u, 49u, 200u, 4096u}) {
        Bytes bytes(size);
        for (auto& byte : bytes) byte = static_cast<Bytes::value_type>(random());
        rows.push_back(bytes);
    }
    setLibraries({"A", "B"});
    for (const auto& row : rows) {
        SCOPED_TRACE(::testing::PrintToString(row.size()) + " bytes");
        device_.log().clear();
        EXPECT_EQ(changes(*enumerator, row).calls, Lines{"error -1002"});
        EXPECT_EQ(newLines(), Lines{"[ERROR] can't create change token from anchor data, resetting"});
    }
    // Nothing was taken from the main cache for them.
    EXPECT_EQ(enumerator->appLibraryManager().versionToken(), 1u);
}

TEST_F(RootChangesTest, AnAnchorInAdvanceExpires) {
    for (const Lines& names : {Lines{"A"}, Lines{"A", "B"}, Lines{"B"}, Lines{"A"}}) setLibraries(names);
    auto enumerator = makeEnumerator();
    const auto files = enumerator->localFileEnumerator();
    device_.log().clear();
    EXPECT_EQ(changes(*enumerator, anchor(*enumerator, 5)).calls, Lines{"error -1002"});
    EXPECT_TRUE(sectionLines("enumerate root changes for RootContainer"));
    EXPECT_EQ(newLines(), (Lines{"[DEBUG] notifying app library changes since 5",
                                 "[DEBUG] app-library version is in advance, need to restart from scratch "
                                 "[changeTokenVersion: 5, localVersion: 4, mainCacheVersion: 4]"}));
    // Also where the main cache has come so far: the manager's generation decides, and it stays.
    setLibraries({"A", "C"});
    device_.log().clear();
    EXPECT_EQ(changes(*enumerator, anchor(*enumerator, 5)).calls, Lines{"error -1002"});
    EXPECT_TRUE(
        hasLine("[DEBUG] app-library version is in advance, need to restart from scratch "
                "[changeTokenVersion: 5, localVersion: 4, mainCacheVersion: 5]"));
    EXPECT_TRUE(device_.log().texts(log::Level::error).empty());
    EXPECT_EQ(enumerator->appLibraryManager().versionToken(), 4u);
    EXPECT_EQ(enumerator->localFileEnumerator(), files);
}

TEST_F(RootChangesTest, AnAnchorOfAnotherGenerationExpires) {
    for (const Lines& names : {Lines{"A"}, Lines{"A", "B"}, Lines{"B"}}) setLibraries(names);
    auto enumerator = makeEnumerator(hostframework::kAllDirectoriesContainer);
    setLibraries({"C"});
    for (const std::string known : {"1", "2"}) {
        device_.log().clear();
        EXPECT_EQ(changes(*enumerator, anchor(*enumerator, std::stoul(known))).calls, Lines{"error -1002"});
        EXPECT_TRUE(sectionLines("enumerate root changes for AllDirectoriesContainer"));
        EXPECT_EQ(newLines(), (Lines{"[DEBUG] notifying app library changes since " + known,
                                     "[ERROR] change token version matches nothing, need to restart from scratch "
                                     "[changeTokenVersion: " +
                                         known + ", localVersion: 3, mainCacheVersion: 4]"}));
    }
    EXPECT_EQ(enumerator->appLibraryManager().versionToken(), 3u);
}

TEST_F(RootChangesTest, TheWorkingSetsStateNamesTheSharedGenerationToo) {
    setLibraries({"A"});
    setLibraries({"A", "B"});
    saveToWorkingSetCache();
    auto enumerator = makeEnumerator(hostframework::kWorkingSetContainer);
    setLibraries({"B"});
    upgradeSharedManager();
    setLibraries({"C"});
    device_.log().clear();
    EXPECT_EQ(changes(*enumerator, anchor(*enumerator, 9)).calls, Lines{"error -1002"});
    EXPECT_EQ(changes(*enumerator, anchor(*enumerator, 1)).calls, Lines{"error -1002"});
    EXPECT_TRUE(
        hasLine("[DEBUG] app-library version is in advance, need to restart from scratch "
                "[changeTokenVersion: 9, localVersion: 2, workingSetVersion: 3, mainCacheVersion: 4]"));
    EXPECT_EQ(device_.log().texts(log::Level::error),
              Lines{"[ERROR] change token version matches nothing, need to restart from scratch "
                    "[changeTokenVersion: 1, localVersion: 2, workingSetVersion: 3, mainCacheVersion: 4]"});
    EXPECT_TRUE(device_.providerManager().deletions().empty());
}

TEST_F(RootChangesTest, ZeroIsToldOfAllLibrariesInOneCall) {
    setLibraries({"B", "A"});
    setLibraries({"B", "A", "C"});
    auto enumerator = makeEnumerator();
    device_.log().clear();
    const auto answer = changes(*enumerator, anchor(*enumerator, 0));
    EXPECT_EQ(answer.calls, (Lines{"update #org.example.B #org.example.A #org.example.C", "finish"}));
    ASSERT_TRUE(answer.token);
    EXPECT_EQ(answer.token->appLibraryVersionToken, 2u);
    EXPECT_TRUE(sectionLines("enumerate root changes for RootContainer"));
    const Lines lines = newLines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[0], "[DEBUG] notifying app library changes since 0");
    EXPECT_EQ(lines[1], "[DEBUG] change token version is zero, let's send all the app-libraries known");
    EXPECT_EQ(std::ranges::count_if(lines, [](auto& line) { return line.starts_with("[ERROR]"); }), 0);
    // The anchor is good for the next request, which has nothing to tell.
    EXPECT_EQ(changes(*enumerator, answer.token->encode()).calls, Lines{"finish"});
}

TEST_F(RootChangesTest, ZeroIsToldOfTheMainCachesLibrariesAlone) {
    setLibraries({"A", "B"});
    auto enumerator = makeEnumerator();
    const auto files = enumerator->localFileEnumerator();
    const auto since = anchor(*enumerator, 0);
    setLibraries({"B", "C"});
    const auto answer = changes(*enumerator, since);
    EXPECT_EQ(answer.calls, (Lines{"update #org.example.B #org.example.C", "finish"}));
    ASSERT_TRUE(answer.token);
    EXPECT_EQ(answer.token->appLibraryVersionToken, 2u);
    EXPECT_EQ(enumerator->appLibraryManager().versionToken(), 2u);
    EXPECT_NE(enumerator->localFileEnumerator(), files);
    EXPECT_EQ(enumerator->localFileEnumerator()->urls(), enumerator->monitoredFolders());
}

TEST_F(RootChangesTest, ZeroIsToldOfNoLibrariesWhereThereAreNone) {
    auto enumerator = makeEnumerator();
    const auto files = enumerator->localFileEnumerator();
    const auto answer = changes(*enumerator, anchor(*enumerator, 0));
    EXPECT_EQ(answer.calls, (Lines{"update", "finish"}));
    ASSERT_TRUE(answer.token);
    EXPECT_EQ(answer.token->appLibraryVersionToken, 0u);
    EXPECT_EQ(enumerator->localFileEnumerator(), files);
}

TEST_F(RootChangesTest, TheSameGenerationIsToldOfFileChangesOnly) {
    setLibraries({"A"});
    auto enumerator = makeEnumerator();
    const auto files = enumerator->localFileEnumerator();
    const auto since = anchor(*enumerator, 1);
    testing::writeFile(device_.path("note.txt"), "text");
    device_.log().clear();
    const auto answer = changes(*enumerator, since);
    EXPECT_EQ(answer.calls, (Lines{"update " + identifierOf("note.txt"), "finish"}));
    ASSERT_TRUE(answer.token);
    EXPECT_EQ(answer.token->appLibraryVersionToken, 1u);
    EXPECT_GT(answer.token->streamEventID, fs::ChangeToken::decode(since)->streamEventID);
    const Lines lines = newLines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[0], "[DEBUG] notifying app library changes since 1");
    EXPECT_EQ(lines[1], "[DEBUG] change token version matches local version");
    EXPECT_EQ(enumerator->localFileEnumerator(), files);
}

TEST_F(RootChangesTest, AnUpgradeIsToldOfTheNewGenerationAndOfWhatIsGoneThenOfFileChanges) {
    struct Row {
        Lines before, after, calls;
    };
    const Row rows[] = {
        {{"A", "B"}, {"C", "A"}, {"update #org.example.C #org.example.A", "delete #org.example.B"}},
        {{"A"}, {"B", "A"}, {"update #org.example.B #org.example.A"}},
        {{"A", "B"}, {}, {"delete #org.example.A #org.example.B"}},
        {{"B", "A", "C"}, {"D"}, {"update #org.example.D", "delete #org.example.B #org.example.A #org.example.C"}},
    };
    int number = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(::testing::PrintToString(row.after));
        setLibraries(row.before);
        auto enumerator = makeEnumerator();
        const auto since = anchor(*enumerator, mainToken());
        setLibraries(row.after);
        const std::string name = "note" + std::to_string(number++);
        testing::writeFile(device_.path(name), "text");
        const auto answer = changes(*enumerator, since);
        Lines expected = row.calls;
        expected.push_back("update " + identifierOf(name));
        expected.push_back("finish");
        EXPECT_EQ(answer.calls, expected);
        ASSERT_TRUE(answer.token);
        EXPECT_EQ(answer.token->appLibraryVersionToken, mainToken());
        EXPECT_EQ(changes(*enumerator, answer.token->encode()).calls, Lines{"finish"});
        // The index keeps what the working set's own upgrade removes from it.
        EXPECT_TRUE(device_.providerManager().deletions().empty());
    }
}

TEST_F(RootChangesTest, AnUpgradeBringsTheFoldersOfTheNewGeneration) {
    setLibraries({"A"});
    auto enumerator = makeEnumerator();
    const auto files = enumerator->localFileEnumerator();
    const auto since = anchor(*enumerator, 1);
    setLibraries({"B", "A"});
    upgradeSharedManager();
    device_.log().clear();
    const auto answer = changes(*enumerator, since);
    EXPECT_TRUE(hasLine("[DEBUG] updated root enumerator to monitor [" + storagePath() + ", " + libraryPath("B") +
                        ", " + libraryPath("A") + "]"));
    EXPECT_NE(enumerator->localFileEnumerator(), files);
    EXPECT_EQ(enumerator->localFileEnumerator()->container(), hostframework::kRootContainer);
    Lines paths;
    for (const URL& url : enumerator->localFileEnumerator()->urls()) paths.push_back(url.path());
    EXPECT_EQ(paths, (Lines{storagePath(), libraryPath("B"), libraryPath("A")}));
    // What happens in the new folder is told from then on.
    testing::writeFile(device_.makeContainer("B") + "/Documents/new.txt", "text");
    ASSERT_TRUE(answer.token);
    const auto later = changes(*enumerator, answer.token->encode());
    ASSERT_EQ(later.calls.size(), 2u) << ::testing::PrintToString(later.calls);
    EXPECT_TRUE(later.calls[0].starts_with("update did=")) << later.calls[0];
}

TEST_F(RootChangesTest, WhatANewLibraryHeldBeforeTheAnchorIsToldWithIt) {
    for (const std::string version : {"0", "1"}) {
        SCOPED_TRACE("an anchor of generation " + version);
        const std::string kept = "Kept" + version, added = "Added" + version;
        setLibraries({kept});
        auto enumerator = makeEnumerator();
        testing::writeFile(device_.makeContainer(kept) + "/Documents/known.txt", "text");
        testing::writeFile(device_.makeContainer(added) + "/Documents/old.txt", "text");
        setLibraries({added, kept});
        upgradeSharedManager();
        // Another client made the index know both libraries; this one's anchor is taken after that.
        const auto since = anchor(*enumerator, version == "0" ? 0 : enumerator->appLibraryManager().versionToken());
        const auto answer = changes(*enumerator, since);
        // To a generation of zero every library is new.
        ASSERT_EQ(answer.calls.size(), version == "0" ? 4u : 3u) << ::testing::PrintToString(answer.calls);
        EXPECT_EQ(answer.calls[0], "update #org.example." + added + " #org.example." + kept);
        EXPECT_TRUE(answer.calls[1].starts_with("update did=")) << answer.calls[1];
        ASSERT_TRUE(answer.token);
        EXPECT_EQ(changes(*enumerator, answer.token->encode()).calls, Lines{"finish"});
    }
}

TEST_F(RootChangesTest, WithoutAnyLibraryLeftTheStorageRootIsMonitoredAlone) {
    setLibraries({"A", "B"});
    auto enumerator = makeEnumerator();
    const auto since = anchor(*enumerator, 1);
    setLibraries({});
    device_.log().clear();
    const auto answer = changes(*enumerator, since);
    EXPECT_EQ(answer.calls, (Lines{"delete #org.example.A #org.example.B", "finish"}));
    EXPECT_TRUE(hasLine("[DEBUG] updated root enumerator to monitor [" + storagePath() + "]"));
    ASSERT_EQ(enumerator->localFileEnumerator()->urls().size(), 1u);
    EXPECT_EQ(enumerator->localFileEnumerator()->urls()[0].path(), storagePath());
}

TEST_F(RootChangesTest, LiveUpdatesGoOnWithTheNewFolders) {
    enum class Live { running, notifierOnly, none };
    for (const Live live : {Live::running, Live::notifierOnly, Live::none}) {
        SCOPED_TRACE(static_cast<int>(live));
        setLibraries({"A"});
        auto enumerator = makeEnumerator();
        const auto former = enumerator->localFileEnumerator();
        const auto since = anchor(*enumerator, mainToken());
        if (live == Live::running) enumerator->start();
        if (live == Live::notifierOnly) former->start();
        setLibraries({"A", "B"});
        upgradeSharedManager();
        changes(*enumerator, since);
        const auto next = enumerator->localFileEnumerator();
        ASSERT_NE(next, former);
        EXPECT_FALSE(former->notifier()->isStarted());
        EXPECT_EQ(next->notifier()->isStarted(), live != Live::none);
        EXPECT_EQ(enumerator->isRunning(), live == Live::running);
        if (live != Live::none) {
            const auto signalled = device_.providerManager().signals().size();
            testing::writeFile(device_.makeContainer("B") + "/Documents/new" + std::to_string(signalled), "text");
            EXPECT_GE(device_.providerManager().waitForSignals(signalled + 2).size(), signalled + 2);
        }
        enumerator->stop();
        // Both readers are at rest before their last users let go.
        for (const auto& files : {former, next}) files->notifier()->reader()->streamQueue()->sync([] {});
    }
}

TEST_F(RootChangesTest, ARequestUnderWayOnTheReplacedEnumeratorFinishes) {
    setLibraries({"A"});
    const UUID uuid = *UUID::parse("8D1C5A1E-5B57-4C6B-9B1F-0D7A3F6E2C41");
    // Histories by path do not end until the test has them end.
    testing::ScriptedFileEventService events(uuid);
    events.setDocumentHistory({{testing::historyDoneEvent(9)}});
    const fs::FSEnvironment environment{device_.environment(), events, device_.pool()};
    const auto waitForStreams = [&](std::size_t count) {
        const auto deadline = std::chrono::steady_clock::now() + kPatience;
        while (events.runningStreams() != count && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::yield();
        }
        return events.runningStreams();
    };
    const auto enumerator =
        LocalRootEnumerator::create(environment, context_->services(), hostframework::kRootContainer);
    const auto former = enumerator->localFileEnumerator();
    const auto since =
        fs::ChangeToken{.deviceUUID = uuid, .streamEventID = EventID{3}, .appLibraryVersionToken = 1}.encode();
    enumerator->start();
    Request first, second;
    first.start(*enumerator, since);
    ASSERT_EQ(waitForStreams(2), 2u);  // the live updates and the request

    setLibraries({"A", "B"});
    second.start(*enumerator, since);
    ASSERT_NE(enumerator->localFileEnumerator(), former);
    // The former live updates have ended, those in their place run, and both requests do.
    ASSERT_EQ(waitForStreams(3), 3u);
    for (const auto& files : {former, enumerator->localFileEnumerator()}) {
        files->notifier()->reader()->streamQueue()->sync([] {});
    }
    ASSERT_EQ(waitForStreams(3), 3u);
    EXPECT_EQ(former->enumerators().size(), 1u);
    events.play({testing::historyDoneEvent(9)});
    EXPECT_EQ(first.wait().calls, Lines{"finish"});
    const auto answer = second.wait();
    EXPECT_EQ(answer.calls, (Lines{"update #org.example.A #org.example.B", "finish"}));
    ASSERT_TRUE(answer.token);
    EXPECT_EQ(answer.token->appLibraryVersionToken, 2u);
    enumerator->stop();
    device_.pool()->waitUntilQuiet();
    EXPECT_TRUE(former->enumerators().empty());
}

TEST_F(RootChangesTest, TheWorkingSetCleansTheIndexAndKeepsItsGeneration) {
    setLibraries({"A", "B", "C"});
    saveToWorkingSetCache();
    auto enumerator = makeEnumerator(hostframework::kWorkingSetContainer);
    const auto since = anchor(*enumerator, 1);
    setLibraries({"D", "B"});
    device_.log().clear();
    const auto answer = changes(*enumerator, since);
    EXPECT_EQ(answer.calls,
              (Lines{"update #org.example.D #org.example.B", "delete #org.example.A #org.example.C", "finish"}));
    EXPECT_TRUE(sectionLines("enumerate root changes for WorkingSetContainer"));
    EXPECT_EQ(device_.providerManager().deletions(), (std::vector<Lines>{{"#org.example.A", "#org.example.C"}}));
    ASSERT_TRUE(answer.token);
    EXPECT_EQ(answer.token->appLibraryVersionToken, 2u);
    EXPECT_TRUE(device_.log().texts(log::Level::error).empty());

    const auto saved = makeManager(CacheSource::workingSet);
    EXPECT_EQ(saved->versionToken(), 2u);
    EXPECT_EQ(identifiersOf(*saved), (Lines{"#org.example.D", "#org.example.B"}));
}

TEST_F(RootChangesTest, TheWorkingSetCleansTheIndexFromZeroToo) {
    setLibraries({"A", "B"});
    saveToWorkingSetCache();
    auto enumerator = makeEnumerator(hostframework::kWorkingSetContainer);
    const auto since = anchor(*enumerator, 0);
    setLibraries({"B"});
    const auto answer = changes(*enumerator, since);
    EXPECT_EQ(answer.calls, (Lines{"update #org.example.B", "finish"}));
    EXPECT_EQ(device_.providerManager().deletions(), (std::vector<Lines>{{"#org.example.A"}}));
    EXPECT_EQ(makeManager(CacheSource::workingSet)->versionToken(), 2u);
}

TEST_F(RootChangesTest, OtherContainersLeaveTheWorkingSetsCacheAlone) {
    setLibraries({"A"});
    saveToWorkingSetCache();
    auto enumerator = makeEnumerator(hostframework::kAllDirectoriesContainer);
    const auto since = anchor(*enumerator, 1);
    setLibraries({"B"});
    EXPECT_EQ(changes(*enumerator, since).calls, (Lines{"update #org.example.B", "delete #org.example.A", "finish"}));
    EXPECT_EQ(makeManager(CacheSource::workingSet)->versionToken(), 1u);
    EXPECT_TRUE(device_.providerManager().deletions().empty());
}

TEST_F(RootChangesTest, AFailedSaveOfTheWorkingSetsCacheIsLoggedAndNoMore) {
    setLibraries({"A"});
    auto enumerator = makeEnumerator(hostframework::kWorkingSetContainer);
    const auto since = anchor(*enumerator, 0);
    testing::makeDirectories(workingSetCachePath() + "/in the way");
    testing::writeFile(device_.path("note.txt"), "text");
    device_.log().clear();
    const auto answer = changes(*enumerator, since);
    EXPECT_EQ(answer.calls, (Lines{"update #org.example.A", "update " + identifierOf("note.txt"), "finish"}));
    ASSERT_TRUE(answer.token);
    EXPECT_EQ(answer.token->appLibraryVersionToken, 1u);
    const Lines errors = device_.log().texts(log::Level::error);
    ASSERT_EQ(errors.size(), 1u) << ::testing::PrintToString(errors);
    const std::string begin = "[ERROR] can't save working-set cache to disk; ";
    EXPECT_TRUE(errors[0].starts_with(begin)) << errors[0];
    EXPECT_GT(errors[0].size(), begin.size());
    EXPECT_EQ(enumerator->appLibraryManager().versionToken(), 1u);
}

}  // namespace
}  // namespace tarnwell::applibraries
