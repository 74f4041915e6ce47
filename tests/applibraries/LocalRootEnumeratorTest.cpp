#include "applibraries/LocalRootEnumerator.h"

#include <cerrno>
#include <filesystem>

#include "fs/FSEnvironment.h"
#include "hostframework/HostError.h"
#include "testing/ScriptedFileEventService.h"
#include "tests/applibraries/AppLibraryFixture.h"

namespace tarnwell::applibraries {
namespace {

using Lines = std::vector<std::string>;

/// Keeps one listing: each call of items as a list of names, then the finish.
class RecordingObserver : public hostframework::EnumerationObserver {
public:
    void didEnumerateItems(const std::vector<hostframework::ProviderItemPtr>& items) override {
        EXPECT_FALSE(isFinished());
        calls.emplace_back();
        for (const auto& item : items) calls.back().push_back(item->filename());
    }
    void finishEnumeratingUpToPage(const std::optional<hostframework::EnumerationPage>& page) override {
        EXPECT_FALSE(isFinished());
        complete = true;
        nextPage = page;
    }
    void finishEnumeratingWithError(const Error& failure) override {
        EXPECT_FALSE(isFinished());
        error = failure;
    }
    bool isFinished() const { return complete || error; }

    std::vector<Lines> calls;
    bool complete = false;
    std::optional<hostframework::EnumerationPage> nextPage;
    std::optional<Error> error;
};

class LocalRootEnumeratorTest : public AppLibraryTest {
protected:
    std::shared_ptr<LocalRootEnumerator> makeEnumerator(const std::string& container) {
        auto enumerator = LocalRootEnumerator::create(environment_, context_->services(), container);
        if (auto notifier = enumerator->localFileEnumerator()->notifier()) {
            queues_.push_back(notifier->reader()->streamQueue());
        }
        return enumerator;
    }
    /// Starts and stops are queued, and the device must outlive them.
    void TearDown() override {
        for (const auto& queue : queues_) queue->sync([] {});
    }
    static std::shared_ptr<RecordingObserver> list(LocalRootEnumerator& enumerator,
                                                   const hostframework::EnumerationPage& page) {
        auto observer = std::make_shared<RecordingObserver>();
        enumerator.enumerateItemsForObserver(observer, page);
        EXPECT_TRUE(observer->isFinished());
        return observer;
    }
    static std::optional<fs::ChangeToken> anchorOf(LocalRootEnumerator& enumerator) {
        std::optional<fs::ChangeToken> token;
        int calls = 0;
        enumerator.currentSyncAnchorWithCompletionHandler([&](const std::optional<hostframework::SyncAnchor>& anchor) {
            ++calls;
            if (anchor) token = fs::ChangeToken::decode(*anchor);
        });
        EXPECT_EQ(calls, 1);
        return token;
    }
    void setLibraries(const Lines& names) {
        install(names);
        context_->refreshAppLibraries();
    }
    Lines realFolders(const std::vector<URL>& urls) {
        Lines paths;
        for (const URL& url : urls) paths.push_back(device_.roots().realPath(url.path()));
        return paths;
    }

    fs::FSEnvironment environment_{device_.environment(), device_.events(), device_.pool()};
    std::vector<std::shared_ptr<dispatch::SerialQueue>> queues_;
};

TEST_F(LocalRootEnumeratorTest, ChoosesTheCacheByItsContainer) {
    struct Row {
        const std::string& container;
        CacheSource source;
    };
    const Row rows[] = {{hostframework::kRootContainer, CacheSource::main},
                        {hostframework::kAllDirectoriesContainer, CacheSource::main},
                        {hostframework::kWorkingSetContainer, CacheSource::workingSet}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.container);
        auto enumerator = makeEnumerator(row.container);
        EXPECT_EQ(enumerator->container(), row.container);
        EXPECT_EQ(enumerator->appLibraryManager().cacheSource(), row.source);
        EXPECT_NE(&enumerator->appLibraryManager(), &context_->sharedManager());
        EXPECT_EQ(enumerator->localFileEnumerator()->container(), row.container);
        EXPECT_EQ(enumerator->enumQueue()->label(), "tarnwell.root-enumerator.queue");
        EXPECT_FALSE(enumerator->isRunning());
    }
}

TEST_F(LocalRootEnumeratorTest, MonitorsTheStorageRootAloneWithoutLibraries) {
    auto enumerator = makeEnumerator(hostframework::kRootContainer);
    EXPECT_EQ(realFolders(enumerator->localFileEnumerator()->urls()), Lines{device_.path()});
}

TEST_F(LocalRootEnumeratorTest, MonitorsTheStorageRootThenTheLibrariesInRegistryOrder) {
    setLibraries({"B", "A"});
    auto enumerator = makeEnumerator(hostframework::kRootContainer);
    EXPECT_EQ(
        realFolders(enumerator->localFileEnumerator()->urls()),
        (Lines{device_.path(), device_.makeContainer("B") + "/Documents", device_.makeContainer("A") + "/Documents"}));
    EXPECT_EQ(enumerator->monitoredFolders(), enumerator->localFileEnumerator()->urls());
    // The working set's list is its own, and nothing has been saved there yet.
    EXPECT_EQ(realFolders(makeEnumerator(hostframework::kWorkingSetContainer)->monitoredFolders()),
              Lines{device_.path()});
}

TEST_F(LocalRootEnumeratorTest, ListsTheLibrariesFirstOnBothInitialPages) {
    setLibraries({"B", "A"});
    testing::writeFile(device_.path("note.txt"), "text");
    testing::makeDirectories(device_.path("folder"));
    testing::writeFile(device_.makeContainer("A") + "/Documents/inner.txt", "text");
    auto enumerator = makeEnumerator(hostframework::kRootContainer);
    for (const auto& page : {hostframework::kInitialPageSortedByName, hostframework::kInitialPageSortedByDate}) {
        auto observer = list(*enumerator, page);
        ASSERT_EQ(observer->calls.size(), 2u);
        EXPECT_EQ(observer->calls[0], (Lines{"B", "A"}));
        std::ranges::sort(observer->calls[1]);
        EXPECT_EQ(observer->calls[1], (Lines{"folder", "note.txt"}));
        EXPECT_TRUE(observer->complete);
        EXPECT_FALSE(observer->nextPage);
    }
}

TEST_F(LocalRootEnumeratorTest, BeginsTheListingWithAnEmptyCallWithoutLibraries) {
    auto observer = list(*makeEnumerator(hostframework::kRootContainer), hostframework::kInitialPageSortedByName);
    EXPECT_EQ(observer->calls, (std::vector<Lines>{{}, {}}));
    EXPECT_TRUE(observer->complete);
}

TEST_F(LocalRootEnumeratorTest, BracketsTheListingAndCountsTheLibraries) {
    setLibraries({"A", "B"});
    auto enumerator = makeEnumerator(hostframework::kRootContainer);
    device_.log().clear();
    list(*enumerator, hostframework::kInitialPageSortedByName);
    const Lines lines = device_.log().texts();
    ASSERT_GE(lines.size(), 3u);
    const std::string number = lines.back().substr(std::string("[DEBUG] ┗").size());
    EXPECT_EQ(lines[0], "[DEBUG] ┏" + number + " enumerate root items for RootContainer");
    EXPECT_EQ(lines[1], "[DEBUG] discovered 2 app-libraries");
}

TEST_F(LocalRootEnumeratorTest, LeavesTheLibrariesOutOfLaterPages) {
    setLibraries({"A"});
    for (int i = 0; i < 201; ++i) testing::writeFile(device_.path("file" + std::to_string(i)), "");
    auto enumerator = makeEnumerator(hostframework::kRootContainer);
    auto first = list(*enumerator, hostframework::kInitialPageSortedByName);
    ASSERT_TRUE(first->nextPage);
    ASSERT_EQ(first->calls.size(), 2u);
    EXPECT_EQ(first->calls[1].size(), 200u);
    device_.log().clear();
    auto second = list(*enumerator, *first->nextPage);
    ASSERT_EQ(second->calls.size(), 1u);
    EXPECT_EQ(second->calls[0].size(), 1u);
    EXPECT_TRUE(second->complete);
    EXPECT_FALSE(second->nextPage);
    EXPECT_FALSE(device_.log().contains("[DEBUG] discovered 1 app-libraries"));
}

TEST_F(LocalRootEnumeratorTest, RefusesAPageThatIsNoToken) {
    setLibraries({"A"});
    auto enumerator = makeEnumerator(hostframework::kRootContainer);
    for (const Bytes& page : {Bytes{1, 2, 3}, Bytes(48, 0)}) {
        device_.log().clear();
        auto observer = list(*enumerator, page);
        EXPECT_TRUE(observer->calls.empty());
        ASSERT_TRUE(observer->error);
        EXPECT_TRUE(observer->error->is(ErrorDomain::host, hostframework::kSyncAnchorExpired));
        EXPECT_EQ(device_.log().texts(log::Level::error),
                  Lines{"[ERROR] can't create change token from anchor data, resetting"});
    }
}

TEST_F(LocalRootEnumeratorTest, ListsTheFoldersOfEveryLibraryForAllDirectories) {
    setLibraries({"A"});
    testing::makeDirectories(device_.path("outer/inner"));
    testing::writeFile(device_.path("outer/note.txt"), "text");
    testing::makeDirectories(device_.makeContainer("A") + "/Documents/below");
    // The parent of what lies in a library is named by the shared manager.
    ASSERT_TRUE(context_->sharedManager().upgradeFromMainCache(nullptr, IndexCleanup::no));
    auto observer =
        list(*makeEnumerator(hostframework::kAllDirectoriesContainer), hostframework::kInitialPageSortedByName);
    ASSERT_EQ(observer->calls.size(), 2u);
    EXPECT_EQ(observer->calls[0], Lines{"A"});
    std::ranges::sort(observer->calls[1]);
    EXPECT_EQ(observer->calls[1], (Lines{"below", "inner", "outer"}));
}

TEST_F(LocalRootEnumeratorTest, GivesAnchorsOfItsManagersGeneration) {
    auto enumerator = makeEnumerator(hostframework::kRootContainer);
    auto first = anchorOf(*enumerator);
    ASSERT_TRUE(first);
    EXPECT_EQ(first->appLibraryVersionToken, 0u);
    setLibraries({"A"});
    setLibraries({"A", "B"});
    EXPECT_EQ(anchorOf(*enumerator)->appLibraryVersionToken, 0u);
    ASSERT_TRUE(enumerator->appLibraryManager().upgradeFromMainCache(nullptr, IndexCleanup::no));
    auto second = anchorOf(*enumerator);
    ASSERT_TRUE(second);
    EXPECT_EQ(second->appLibraryVersionToken, 2u);
    EXPECT_EQ(second->deviceUUID, enumerator->localFileEnumerator()->notifier()->deviceUUID());
    EXPECT_EQ(second->version, 0u);
    EXPECT_EQ(second->offset, 0u);
    EXPECT_GE(second->streamEventID, first->streamEventID);
    EXPECT_EQ(anchorOf(*makeEnumerator(hostframework::kWorkingSetContainer))->appLibraryVersionToken, 0u);
}

TEST_F(LocalRootEnumeratorTest, GivesNoAnchorWithoutASourceOfChangesOrAPosition) {
    setLibraries({"A"});
    testing::ScriptedFileEventService events(*UUID::parse("8D1C5A1E-5B57-4C6B-9B1F-0D7A3F6E2C41"));
    const fs::FSEnvironment environment{device_.environment(), events, device_.pool()};
    enum class Lack { source, position };
    for (Lack lack : {Lack::source, Lack::position}) {
        SCOPED_TRACE(static_cast<int>(lack));
        const auto uuid = lack == Lack::source ? std::nullopt : UUID::parse("8D1C5A1E-5B57-4C6B-9B1F-0D7A3F6E2C41");
        events.setDeviceUUID(uuid);
        events.failCurrentEventID(lack == Lack::position ? std::optional(posixError(EIO)) : std::nullopt);
        const auto enumerator =
            LocalRootEnumerator::create(environment, context_->services(), hostframework::kRootContainer);
        ASSERT_EQ(enumerator->localFileEnumerator()->notifier() == nullptr, lack == Lack::source);
        device_.log().clear();
        std::vector<std::optional<hostframework::SyncAnchor>> anchors;
        enumerator->currentSyncAnchorWithCompletionHandler(
            [&](const std::optional<hostframework::SyncAnchor>& anchor) { anchors.push_back(anchor); });
        EXPECT_EQ(anchors, (std::vector<std::optional<hostframework::SyncAnchor>>{std::nullopt}));
        EXPECT_EQ(device_.log().texts(log::Level::error).size(), lack == Lack::position ? 1u : 0u);
    }
}

TEST_F(LocalRootEnumeratorTest, RunsFromStartToStopOrInvalidate) {
    setLibraries({"A"});
    auto enumerator = makeEnumerator(hostframework::kRootContainer);
    const auto before = enumerator->appLibraryManager().generation();
    enumerator->stop();
    EXPECT_FALSE(enumerator->isRunning());
    enumerator->start();
    EXPECT_TRUE(enumerator->isRunning());
    enumerator->start();
    EXPECT_TRUE(enumerator->isRunning());
    enumerator->stop();
    EXPECT_FALSE(enumerator->isRunning());
    enumerator->start();
    enumerator->invalidate();
    EXPECT_FALSE(enumerator->isRunning());
    enumerator->invalidate();
    EXPECT_EQ(enumerator->appLibraryManager().generation(), before);
}

TEST_F(LocalRootEnumeratorTest, TellsTheHostOfLiveChangesWhileItRuns) {
    setLibraries({"A"});
    ASSERT_TRUE(context_->sharedManager().upgradeFromMainCache(nullptr, IndexCleanup::no));
    auto enumerator = makeEnumerator(hostframework::kRootContainer);
    enumerator->start();
    testing::writeFile(device_.makeContainer("A") + "/Documents/new.txt", "text");
    const Lines signals = device_.providerManager().waitForSignals(2);
    ASSERT_GE(signals.size(), 2u);
    EXPECT_EQ(signals[0], hostframework::kRootContainer);
    EXPECT_EQ(signals[1], hostframework::kWorkingSetContainer);
    enumerator->invalidate();
}

TEST_F(LocalRootEnumeratorTest, AcceptsAnotherFileEnumerator) {
    auto enumerator = makeEnumerator(hostframework::kRootContainer);
    testing::makeDirectories(device_.path("folder"));
    testing::writeFile(device_.path("folder/inner.txt"), "text");
    auto other = fs::LocalFileEnumerator::create(environment_, hostframework::kRootContainer, {device_.url("folder")});
    enumerator->setLocalFileEnumerator(other);
    EXPECT_EQ(enumerator->localFileEnumerator(), other);
    auto observer = list(*enumerator, hostframework::kInitialPageSortedByName);
    EXPECT_EQ(observer->calls, (std::vector<Lines>{{}, {"inner.txt"}}));
    enumerator->setRunning(true);
    EXPECT_TRUE(enumerator->isRunning());
    enumerator->setRunning(false);
    EXPECT_FALSE(enumerator->isRunning());
}

TEST_F(LocalRootEnumeratorTest, AnswersWhileItsQueueIsBusy) {
    auto enumerator = makeEnumerator(hostframework::kRootContainer);
    enumerator->enumQueue()->sync([&] {
        EXPECT_TRUE(list(*enumerator, hostframework::kInitialPageSortedByName)->complete);
        EXPECT_TRUE(anchorOf(*enumerator));
        enumerator->start();
        enumerator->stop();
    });
}

TEST_F(LocalRootEnumeratorTest, EndsItsLiveUpdatesWhenItGoes) {
    device_.log().clear();
    auto enumerator = makeEnumerator(hostframework::kRootContainer);
    auto files = enumerator->localFileEnumerator();
    enumerator->start();
    enumerator.reset();
    // The stop is queued behind the start on the reader's queue, so the reader is at rest when its last user lets go.
    files->notifier()->reader()->streamQueue()->sync([] {});
    files.reset();
    EXPECT_TRUE(device_.log().texts(log::Level::error).empty());
}

}  // namespace
}  // namespace tarnwell::applibraries
