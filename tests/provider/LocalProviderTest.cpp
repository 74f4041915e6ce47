#include "provider/LocalProvider.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>

#include "applibraries/LocalRootEnumerator.h"
#include "fs/LocalFileEnumerator.h"
#include "hostframework/HostError.h"
#include "items/TarnwellError.h"
#include "tests/provider/OperationsFixture.h"

namespace tarnwell::provider {
namespace {

class LocalProviderTest : public ProviderTest {
protected:
    void TearDown() override {
        if (provider_) endProvider();
    }
    void startProvider() { provider_ = LocalProvider::create(providerContext_); }
    /// Lets go of the provider and waits for an event under way.
    void endProvider() {
        const auto queue = provider_->appRefreshQueue();
        provider_.reset();
        queue->sync([] {});
    }
    /// Waits until the events that are due by now have run.
    void waitForRefresh() {
        auto counter = std::make_shared<Counter>();
        provider_->refreshInstalledAppsWithCompletionHandler([counter] { counter->increment(); });
        ASSERT_TRUE(counter->waitFor(1));
        provider_->appRefreshQueue()->sync([] {});
    }
    Lines signals() { return device_.providerManager().signals(); }
    std::string cacheFolder() const { return device_.applicationSupport() + "/Tarnwell Storage"; }
    /// The lines of pacer events and of what the provider asks of the host.
    Lines refreshLines() {
        auto lines = newLines();
        std::erase_if(lines, [](const std::string& line) {
            return line != "[DEBUG] ┏ pacer event" && !line.starts_with("[DEBUG] auto-upgrading") &&
                   !line.starts_with("[INFO] ");
        });
        return lines;
    }
    static void end(const std::shared_ptr<fs::LocalFileEnumerator>& enumerator) {
        enumerator->invalidate();
        if (enumerator->notifier()) enumerator->notifier()->reader()->streamQueue()->sync([] {});
    }
    static void drain(const fs::LocalFileEnumerator& enumerator) {
        enumerator.notifier()->reader()->streamQueue()->sync([] {});
    }

    std::shared_ptr<LocalProvider> provider_;
};

TEST_F(LocalProviderTest, StartUpSignalsTheWorkingSetAndThenRefreshesTheApps) {
    startProvider();
    EXPECT_EQ(newLines(), Lines{"[INFO] auto notify changes on WorkingSetContainer at startup"});
    EXPECT_EQ(signals(), Lines{"WorkingSetContainer"});
    EXPECT_EQ(provider_->appRefreshQueue()->label(), "tarnwell.app-refresh.queue");
    EXPECT_EQ(provider_->appRefreshPacer().name(), "tarnwell.app-refresh.pacer");
    // With no request at all, the event of the start comes; this waits for what it does.
    device_.registry().setApplications({application("notes")});
    EXPECT_EQ(device_.providerManager().waitForSignals(3),
              (Lines{"WorkingSetContainer", "RootContainer", "WorkingSetContainer"}));
}

TEST_F(LocalProviderTest, AnEventWithoutAChangeCallsTheCompletionsAndSignalsNothing) {
    startProvider();
    newLines();
    waitForRefresh();
    EXPECT_EQ(refreshLines(), (Lines{"[DEBUG] ┏ pacer event", "[DEBUG] auto-upgrading shared app library manager"}));
    EXPECT_EQ(signals(), Lines{"WorkingSetContainer"});
}

TEST_F(LocalProviderTest, ChangedAppsSignalTheRootAndThenTheWorkingSetAfterTheCompletions) {
    startProvider();
    waitForRefresh();
    device_.registry().setApplications({application("notes")});
    newLines();
    auto seenByCompletion = std::make_shared<Lines>();
    auto counter = std::make_shared<Counter>();
    provider_->refreshInstalledAppsWithCompletionHandler([this, seenByCompletion, counter] {
        *seenByCompletion = signals();
        counter->increment();
    });
    ASSERT_TRUE(counter->waitFor(1));
    provider_->appRefreshQueue()->sync([] {});
    EXPECT_EQ(*seenByCompletion, Lines{"WorkingSetContainer"});
    EXPECT_EQ(signals(), (Lines{"WorkingSetContainer", "RootContainer", "WorkingSetContainer"}));
    EXPECT_EQ(refreshLines(),
              (Lines{"[DEBUG] ┏ pacer event", "[DEBUG] auto-upgrading shared app library manager",
                     "[INFO] notify changes on RootContainer", "[INFO] notify changes on WorkingSetContainer"}));
    EXPECT_TRUE(provider_->itemForIdentifier("#org.example.notes").has_value());
}

TEST_F(LocalProviderTest, AManagerThatWasBehindSignalsOnlyTheWorkingSet) {
    device_.registry().setApplications({application("notes")});
    ASSERT_TRUE(context_.refreshAppLibraries());
    startProvider();
    waitForRefresh();
    EXPECT_EQ(signals(), (Lines{"WorkingSetContainer", "WorkingSetContainer"}));
}

TEST_F(LocalProviderTest, RequestsOfOneBurstShareOneEventAndAreAllCalledAgainAtTheNext) {
    startProvider();
    waitForRefresh();
    newLines();
    auto order = std::make_shared<std::vector<int>>();
    auto counter = std::make_shared<Counter>();
    const auto request = [&](int number) {
        provider_->refreshInstalledAppsWithCompletionHandler([order, counter, number] {
            order->push_back(number);
            counter->increment();
        });
    };
    provider_->appRefreshQueue()->sync([&] {
        for (int number : {1, 2, 3}) request(number);
    });
    ASSERT_TRUE(counter->waitFor(3));
    provider_->appRefreshQueue()->sync([&] { EXPECT_EQ(*order, (std::vector<int>{1, 2, 3})); });
    EXPECT_EQ(std::ranges::count(refreshLines(), "[DEBUG] ┏ pacer event"), 1);

    request(4);
    ASSERT_TRUE(counter->waitFor(7));
    provider_->appRefreshQueue()->sync([&] { EXPECT_EQ(*order, (std::vector<int>{1, 2, 3, 1, 2, 3, 4})); });
    EXPECT_EQ(std::ranges::count(refreshLines(), "[DEBUG] ┏ pacer event"), 1);
}

TEST_F(LocalProviderTest, AnEventComesHalfASecondAfterTheFirstOfItsRequestsAtTheSoonest) {
    startProvider();
    waitForRefresh();
    newLines();
    using Clock = std::chrono::steady_clock;
    auto counter = std::make_shared<Counter>();
    auto completed = std::make_shared<Clock::time_point>();
    const auto asked = Clock::now();
    provider_->appRefreshQueue()->sync([&] {
        for (int i = 0; i < 2; ++i) {
            provider_->refreshInstalledAppsWithCompletionHandler([counter, completed] {
                if (counter->count() == 0) *completed = Clock::now();
                counter->increment();
            });
        }
    });
    ASSERT_TRUE(counter->waitFor(2));
    provider_->appRefreshQueue()->sync([] {});
    EXPECT_GE(*completed - asked, std::chrono::milliseconds(500));
    EXPECT_EQ(std::ranges::count(refreshLines(), "[DEBUG] ┏ pacer event"), 1);
}

TEST_F(LocalProviderTest, ARemovedAppStaysInTheSearchIndexAndInTheWorkingSetsFile) {
    startProvider();
    device_.registry().setApplications({application("notes")});
    waitForRefresh();
    ASSERT_TRUE(provider_->itemForIdentifier("#org.example.notes").has_value());
    device_.registry().setApplications({});
    waitForRefresh();
    EXPECT_FALSE(provider_->itemForIdentifier("#org.example.notes").has_value());
    // Both belong to the working set's enumeration, which alone knows what the index was told of.
    EXPECT_EQ(device_.providerManager().deletions(), std::vector<Lines>{});
    EXPECT_TRUE(std::filesystem::exists(cacheFolder() + "/app-libraries.plist"));
    EXPECT_FALSE(std::filesystem::exists(cacheFolder() + "/searchable-app-libraries.plist"));
}

TEST_F(LocalProviderTest, AListThatCannotBeWrittenIsReportedAndSignalsNothing) {
    testing::writeFile(cacheFolder(), "in the way");
    device_.registry().setApplications({application("notes")});
    startProvider();
    newLines();
    waitForRefresh();
    auto lines = newLines();
    std::erase_if(lines, [](const std::string& line) {
        return !line.starts_with("[ERROR] ") && !line.starts_with("[INFO] ") &&
               line != "[DEBUG] auto-upgrading shared app library manager";
    });
    EXPECT_EQ(lines, (Lines{"[ERROR] can't refresh app libraries; " + describe(posixError(ENOTDIR)),
                            "[DEBUG] auto-upgrading shared app library manager"}));
    EXPECT_EQ(signals(), Lines{"WorkingSetContainer"});

    std::filesystem::remove(cacheFolder());
    waitForRefresh();
    EXPECT_EQ(signals(), (Lines{"WorkingSetContainer", "RootContainer", "WorkingSetContainer"}));
}

TEST_F(LocalProviderTest, ARequestWithoutACompletionIsARefreshAllTheSame) {
    startProvider();
    auto counter = std::make_shared<Counter>();
    provider_->refreshInstalledAppsWithCompletionHandler([counter] { counter->increment(); });
    ASSERT_TRUE(counter->waitFor(1));
    provider_->refreshInstalledAppsWithCompletionHandler({});
    EXPECT_TRUE(counter->waitFor(2));
}

TEST_F(LocalProviderTest, ACompletionMayAskForAnotherRefresh) {
    startProvider();
    auto counter = std::make_shared<Counter>();
    provider_->refreshInstalledAppsWithCompletionHandler([this, counter] {
        counter->increment();
        if (counter->count() == 1) provider_->refreshInstalledAppsWithCompletionHandler([] {});
    });
    EXPECT_TRUE(counter->waitFor(2));
}

TEST_F(LocalProviderTest, AProviderThatIsGoneHasNoMoreEvents) {
    startProvider();
    endProvider();
    newLines();
    // The second provider's event is due after the one that the first would have had.
    startProvider();
    waitForRefresh();
    EXPECT_EQ(std::ranges::count(refreshLines(), "[DEBUG] ┏ pacer event"), 1);
}

TEST_F(LocalProviderTest, TheHostsLookupsForward) {
    makeFile("a.txt");
    startProvider();
    const auto identifier = identifierOf("a.txt");
    EXPECT_EQ(provider_->persistentIdentifierForItemAtURL(device_.url("a.txt")), identifier);
    EXPECT_EQ(provider_->persistentIdentifierForItemAt(device_.url("a.txt")), identifier);
    EXPECT_EQ(provider_->URLForItemWithPersistentIdentifier(identifier), device_.url("a.txt"));
    EXPECT_EQ(provider_->urlForItemWithPersistentIdentifier(identifier), device_.url("a.txt"));
    EXPECT_EQ((*provider_->itemForIdentifier(identifier))->filename(), "a.txt");
    EXPECT_EQ((*provider_->lookup().itemForURL(device_.url("a.txt")))->itemIdentifier(), identifier);
}

TEST_F(LocalProviderTest, AURLThatIsNotFoundIsAbsentAndSilent) {
    startProvider();
    waitForRefresh();
    newLines();
    EXPECT_EQ(provider_->urlForItemWithPersistentIdentifier("#org.example.none"), std::nullopt);
    EXPECT_EQ(provider_->URLForItemWithPersistentIdentifier("#org.example.none"), std::nullopt);
    const std::string open = "[DEBUG] ┏ fetching URL for \"#org.example.none\"";
    EXPECT_EQ(newLines(), (Lines{open, "[DEBUG] ┗", open, "[DEBUG] ┗"}));
}

TEST_F(LocalProviderTest, ProvidingSucceedsForAnyURLAtOnceAndTouchesNothing) {
    auto provider = LocalProvider::create(faultyContext_);
    faultyFiles_.clear();
    int completions = 0;
    const auto completion = [&](const std::optional<Error>& error) {
        EXPECT_FALSE(error.has_value());
        ++completions;
    };
    for (const URL& url : {device_.url("gone"), URL::file("/elsewhere"), URL::parse("https://example.org/a")}) {
        provider->providePlaceholderAtURL(url, completion);
        provider->startProvidingItemAtURL(url, completion);
        provider->stopProvidingItemAtURL(url);
        provider->itemChangedAtURL(url);
    }
    EXPECT_EQ(completions, 6);
    EXPECT_EQ(faultyFiles_.calls(), 0u);
    provider_ = std::move(provider);
}

TEST_F(LocalProviderTest, TheHostsOperationsForward) {
    const Application notes = application("notes");
    install({notes});
    const std::string library = "#org.example.notes";
    const URL documents = documentsOf(notes);
    testing::writeFile(*notes.containerPath + "/Documents/a.txt", "x");
    testing::writeFile(device_.home() + "/new.txt", "x");
    startProvider();
    auto& operations = device_.fileOperations();
    const auto wait = [&](const auto& start) {
        ItemAnswer answer;
        start(answer);
        const auto item = answer.wait();
        if (!item) throw std::runtime_error(describe(item.error()));
        return *item;
    };
    const std::string item = *provider_->persistentIdentifierForItemAtURL(documents.appending("a.txt"));
    const std::string folder =
        wait([&](auto answer) { provider_->createDirectoryWithName("Folder", library, answer); })->itemIdentifier();
    wait([&](auto answer) { provider_->importDocumentAtURL(URL::file(device_.home() + "/new.txt"), folder, answer); });
    wait([&](auto answer) { provider_->renameItemWithIdentifier(item, "b.txt", answer); });
    wait([&](auto answer) { provider_->reparentItemWithIdentifier(item, folder, "c.txt", answer); });
    const Date date{std::chrono::nanoseconds(1'700'000'000'000'000'000)};
    EXPECT_EQ(wait([&](auto answer) { provider_->setLastUsedDate(date, item, answer); })->lastUsedDate(), date);
    EXPECT_TRUE(wait([&](auto answer) { provider_->setTagData(std::nullopt, item, answer); })->tagData().has_value());
    EXPECT_EQ(wait([&](auto answer) { provider_->setFavoriteRank(3, item, answer); })->favoriteRank(), 3u);
    EXPECT_TRUE(wait([&](auto answer) { provider_->trashItemWithIdentifier(item, answer); })->isTrashed());
    EXPECT_EQ(
        wait([&](auto answer) { provider_->untrashItemWithIdentifier(item, library, answer); })->parentItemIdentifier(),
        library);
    DoneAnswer deleted, cleaned;
    provider_->deleteItemWithIdentifier(item, deleted);
    EXPECT_EQ(deleted.wait(), std::nullopt);
    provider_->removeTrashedItemsOlderThanDate(date, cleaned);
    EXPECT_EQ(cleaned.wait(), std::nullopt);
    const std::string top = documents.path();
    EXPECT_EQ(operations.calls(),
              (Lines{"create Folder under " + top, "import " + device_.home() + "/new.txt under " + top + "/Folder",
                     "rename " + top + "/a.txt to b.txt", "move " + top + "/b.txt under " + top + "/Folder as c.txt",
                     "trash " + top + "/Folder/c.txt under " + top + "/.Trash",
                     "move " + top + "/.Trash/c.txt under " + top + " or another name", "delete " + top + "/c.txt"}));
}

/// A program that has just started: nothing has asked for the shared manager yet.
class ProviderStartTest : public fs::FSTest {
protected:
    using Lines = std::vector<std::string>;

    static bool loadsAManager(const std::string& line) {
        return line.starts_with("[DEBUG] ┏ loading bundle proxies from");
    }

    applibraries::AppLibraryContext context_{device_.environment(), device_.registry(), device_.pool(),
                                             device_.applicationSupport()};
};

TEST_F(ProviderStartTest, TheFirstEventAndNotTheStartLoadsTheSharedManager) {
    newLines();
    auto provider = LocalProvider::create({environment_, context_, device_.fileOperations(), device_.accessScopes(),
                                           device_.deviceInfo(), device_.iconRenderer()});
    auto counter = std::make_shared<Counter>();
    provider->refreshInstalledAppsWithCompletionHandler([counter] { counter->increment(); });
    ASSERT_TRUE(counter->waitFor(1));
    const auto queue = provider->appRefreshQueue();
    provider.reset();
    queue->sync([] {});

    const Lines lines = newLines();
    const auto event = std::ranges::find(lines, "[DEBUG] ┏ pacer event");
    ASSERT_NE(event, lines.end());
    EXPECT_EQ(Lines(lines.begin(), event), Lines{"[INFO] auto notify changes on WorkingSetContainer at startup"});
    EXPECT_EQ(std::count_if(event, lines.end(), loadsAManager), 1);
}

// The choice of an enumerator.

TEST_F(LocalProviderTest, TheThreeContainersOfTheTopGetARootEnumeratorWhoseNotifierIsStarted) {
    startProvider();
    for (const std::string container : {"RootContainer", "WorkingSetContainer", "AllDirectoriesContainer"}) {
        SCOPED_TRACE(container);
        const auto before = events_.runningStreams();
        const auto enumerator = provider_->enumeratorForContainerItemIdentifier(container);
        ASSERT_TRUE(enumerator.has_value());
        const auto root = std::dynamic_pointer_cast<applibraries::LocalRootEnumerator>(*enumerator);
        ASSERT_NE(root, nullptr);
        EXPECT_EQ(root->container(), container);
        EXPECT_FALSE(root->isRunning());
        drain(*root->localFileEnumerator());
        EXPECT_EQ(events_.runningStreams(), before + 1);
        root->invalidate();
        drain(*root->localFileEnumerator());
        EXPECT_EQ(events_.runningStreams(), before);
    }
}

TEST_F(LocalProviderTest, EveryOtherContainerGetsAnEnumeratorOfItsFolder) {
    makeFile("folder/a.txt");
    const auto notes = application("notes");
    testing::writeFile(*notes.containerPath + "/Documents/n.txt", "x");
    install({notes});
    startProvider();
    struct Row {
        std::string container;
        URL url;
        Lines names;
    };
    for (const Row& row : {Row{identifierOf("folder"), device_.url("folder"), {"a.txt"}},
                           Row{"#org.example.notes", documentsOf(notes), {"n.txt"}},
                           Row{"TemporaryLocalFolder", device_.url(".TemporaryLocalFolder"), {}}}) {
        SCOPED_TRACE(row.container);
        const auto enumerator = provider_->enumeratorForContainerItemIdentifier(row.container);
        ASSERT_TRUE(enumerator.has_value());
        const auto files = std::dynamic_pointer_cast<fs::LocalFileEnumerator>(*enumerator);
        ASSERT_NE(files, nullptr);
        EXPECT_EQ(files->container(), row.container);
        EXPECT_EQ(files->urls(), std::vector<URL>{row.url});
        drain(*files);
        EXPECT_EQ(events_.runningStreams(), 1u);
        auto observer = std::make_shared<fs::RecordingObserver>();
        files->enumerateItemsForObserver(observer, hostframework::kInitialPageSortedByName);
        EXPECT_EQ(observer->names(), row.names);
        end(files);
        EXPECT_EQ(events_.runningStreams(), 0u);
    }
}

TEST_F(LocalProviderTest, AnEnumeratorWithoutANotifierIsGivenAllTheSame) {
    makeFolder("folder");
    startProvider();
    events_.setDeviceUUID(std::nullopt);
    for (const auto& container : {identifierOf("folder"), std::string("RootContainer")}) {
        EXPECT_TRUE(provider_->enumeratorForContainerItemIdentifier(container).has_value());
    }
    EXPECT_TRUE(events_.streams().empty());
}

TEST_F(LocalProviderTest, AnUnknownContainerIsNoSuchItemWhereTheItemIsAnInvalidIdentifier) {
    startProvider();
    waitForRefresh();
    newLines();
    const std::string unknown = "#org.example.none";
    const auto enumerator = provider_->enumeratorForContainerItemIdentifier(unknown);
    ASSERT_FALSE(enumerator.has_value());
    EXPECT_EQ(enumerator.error(), hostframework::noSuchItem(unknown));
    EXPECT_EQ(newLines(), (Lines{"[DEBUG] ┏ enumerator for " + unknown,
                                 "[DEBUG] ┏ fetching URL for \"" + unknown + "\"", "[DEBUG] ┗", "[DEBUG] ┗"}));
    EXPECT_EQ(provider_->itemForIdentifier(unknown).error(),
              items::makeError(items::TarnwellError::invalidItemIdentifier));
}

TEST_F(LocalProviderTest, AFolderIsBrowsedFromTheRootDown) {
    makeFile("folder/sub/a.txt");
    startProvider();
    std::string container = "RootContainer";
    for (const std::string expected : {"folder", "sub", "a.txt"}) {
        auto enumerator = provider_->enumeratorForContainerItemIdentifier(container);
        ASSERT_TRUE(enumerator.has_value());
        auto observer = std::make_shared<fs::RecordingObserver>();
        (*enumerator)->enumerateItemsForObserver(observer, hostframework::kInitialPageSortedByName);
        ASSERT_EQ(observer->names(), Lines{expected});
        EXPECT_EQ(observer->items[0]->parentItemIdentifier(), container);
        container = observer->items[0]->itemIdentifier();
        (*enumerator)->invalidate();
        if (auto root = std::dynamic_pointer_cast<applibraries::LocalRootEnumerator>(*enumerator)) {
            drain(*root->localFileEnumerator());
        } else if (auto files = std::dynamic_pointer_cast<fs::LocalFileEnumerator>(*enumerator)) {
            drain(*files);
        }
    }
}

}  // namespace
}  // namespace tarnwell::provider
