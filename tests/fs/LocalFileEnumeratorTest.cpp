#include "fs/LocalFileEnumerator.h"

#include <algorithm>
#include <cerrno>
#include <set>
#include <thread>

#include "hostframework/HostError.h"
#include "items/TarnwellError.h"
#include "testing/FaultyGenerationStore.h"
#include "tests/fs/FSFixture.h"

namespace tarnwell::fs {
namespace {

using hostframework::EnumerationPage;
using hostframework::kInitialPageSortedByDate;
using hostframework::kInitialPageSortedByName;
using testing::eventAt;
using testing::eventWithFlags;
using testing::historyDoneEvent;
using Lines = std::vector<std::string>;
using ObserverPtr = std::shared_ptr<RecordingObserver>;

class LocalFileEnumeratorTest : public FSTest {
protected:
    LocalFileEnumeratorTest() {
        events_.setEventID(10);
        events_.setHistory({{historyDoneEvent(12)}});
    }

    std::shared_ptr<LocalFileEnumerator> makeEnumerator(const std::string& relative) {
        auto enumerator = LocalFileEnumerator::create(environment_, identifierOf(relative), {device_.url(relative)});
        newLines();
        return enumerator;
    }
    static ObserverPtr list(LocalFileEnumerator& enumerator, const EnumerationPage& page = kInitialPageSortedByName) {
        auto observer = std::make_shared<RecordingObserver>();
        enumerator.enumerateItemsForObserver(observer, page);
        EXPECT_TRUE(observer->isFinished());
        return observer;
    }
    /// All pages until the last; the number of items of each.
    static std::vector<std::size_t> pageSizes(LocalFileEnumerator& enumerator, std::set<std::string>& names) {
        std::vector<std::size_t> sizes;
        std::optional<EnumerationPage> page = kInitialPageSortedByName;
        while (page && sizes.size() < 100) {
            const auto observer = list(enumerator, *page);
            EXPECT_EQ(observer->reports, 1u);
            EXPECT_FALSE(observer->error.has_value());
            sizes.push_back(observer->items.size());
            for (const auto& name : observer->names()) names.insert(name);
            page = observer->page;
        }
        return sizes;
    }
    static EnumerationPage pageOf(const ChangeToken& token) { return token.encode(); }
    std::string reader(std::uint64_t since, const std::string& relative) const {
        return "<FSEventReader since:" + std::to_string(since) + " urls:[" + device_.url(relative).text() +
               "] mode:pathBased>";
    }
    static Lines sorted(Lines lines) {
        std::ranges::sort(lines);
        return lines;
    }
    static const Error kExpired;
};

const Error LocalFileEnumeratorTest::kExpired = hostframework::syncAnchorExpired();

TEST_F(LocalFileEnumeratorTest, KeepsWhatItWasMadeWith) {
    makeFolder("a");
    const std::vector<URL> urls{device_.url("a"), device_.url()};
    const auto enumerator = LocalFileEnumerator::create(environment_, "fid=5", urls);
    EXPECT_EQ(enumerator->container(), "fid=5");
    EXPECT_EQ(enumerator->enumeratedItemURL(), urls[0]);
    EXPECT_EQ(enumerator->urls(), urls);
    ASSERT_NE(enumerator->notifier(), nullptr);
    EXPECT_EQ(enumerator->notifier()->container(), "fid=5");
    EXPECT_EQ(enumerator->notifier()->reader()->urls(), urls);
    EXPECT_FALSE(enumerator->shouldUpdateFileIDInGenstore());
    EXPECT_TRUE(LocalFileEnumerator::create(environment_, "WorkingSetContainer", urls)->shouldUpdateFileIDInGenstore());
    EXPECT_FALSE(LocalFileEnumerator::create(environment_, "RootContainer", urls)->shouldUpdateFileIDInGenstore());
}

TEST_F(LocalFileEnumeratorTest, NoFoldersStopTheProcess) {
    EXPECT_DEATH(LocalFileEnumerator::create(environment_, "fid=5", {}),
                 "can't create enumerator for an empty list of URLs");
}

TEST_F(LocalFileEnumeratorTest, WithoutADeviceUUIDThereIsNoNotifierNoAnchorAndNoListing) {
    makeFolder("a");
    events_.setDeviceUUID(std::nullopt);
    const auto enumerator = LocalFileEnumerator::create(environment_, "fid=5", {device_.url("a")});
    EXPECT_EQ(newLines(), (Lines{"[ERROR] can't get volume UUID for \"" + pathOf("a") + "\"",
                                 "[ERROR] can't create notifier for \"" + pathOf("a") +
                                     "\"; enumeration will have no live update"}));
    EXPECT_EQ(enumerator->notifier(), nullptr);
    enumerator->start();
    enumerator->stop();
    bool answered = false;
    enumerator->currentSyncAnchorWithCompletionHandler([&](const auto& anchor) {
        answered = true;
        EXPECT_FALSE(anchor.has_value());
    });
    EXPECT_TRUE(answered);
    EXPECT_EQ(newLines(), Lines{});

    const auto observer = list(*enumerator);
    EXPECT_EQ(observer->reports, 0u);
    EXPECT_EQ(observer->error, items::makeError(items::DeviceUUIDError::unableToGetDeviceUUID));
    EXPECT_EQ(newLines(), (Lines{"[DEBUG] ┏ enumerate items for fid=5 with page initialPageSortedByName",
                                 "[ERROR] can't get volume UUID for " + pathOf("a"), "[DEBUG] ┗"}));
}

TEST_F(LocalFileEnumeratorTest, WithoutANotifierListingWorksOnceTheDeviceIsBack) {
    makeFiles("a", 2);
    events_.setDeviceUUID(std::nullopt);
    const auto enumerator = LocalFileEnumerator::create(environment_, "fid=5", {device_.url("a")});
    events_.setDeviceUUID(kVolume);
    EXPECT_EQ(list(*enumerator)->items.size(), 2u);
}

TEST_F(LocalFileEnumeratorTest, ASmallFolderIsOnePageWithWholeItems) {
    makeFile("a/file.txt");
    makeFile("a/.hidden");
    makeFile("a/sub/inner");
    const auto enumerator = makeEnumerator("a");
    const auto observer = list(*enumerator);
    EXPECT_EQ(sorted(observer->names()), (Lines{"file.txt", "sub"}));
    EXPECT_EQ(observer->reports, 1u);
    EXPECT_TRUE(observer->finished);
    EXPECT_FALSE(observer->page.has_value());
    for (const auto& item : observer->items) {
        const auto built = items::LocalItem::initWithURL(device_.environment(), item->fileURL(), {});
        ASSERT_NE(built, nullptr);
        EXPECT_EQ(item->itemIdentifier(), built->itemIdentifier());
        EXPECT_EQ(item->parentItemIdentifier(), built->parentItemIdentifier());
        EXPECT_EQ(item->parentItemIdentifier(), identifierOf("a"));
    }
    EXPECT_EQ(newLines(),
              (Lines{"[DEBUG] ┏ enumerate items for " + identifierOf("a") + " with page initialPageSortedByName",
                     "[DEBUG] start gather phase", "[DEBUG] discovered 2 items",
                     "[DEBUG] gather phase finished for " + pathOf("a"), "[DEBUG] ┗"}));
    ASSERT_EQ(events_.currentEventIDRequests().size(), 1u);
    EXPECT_EQ(events_.currentEventIDRequests()[0].folders, std::vector<URL>{device_.url("a")});
    // Nobody will ask for a second page, so nothing has to be looked at for its sake.
    EXPECT_EQ(events_.currentEventIDRequests()[0].interest, events::Interest::nothing);
}

TEST_F(LocalFileEnumeratorTest, ByDateGivesTheSameOrder) {
    makeFiles("a", 10);
    const auto enumerator = makeEnumerator("a");
    const auto byName = list(*enumerator)->names();
    newLines();
    EXPECT_EQ(list(*enumerator, kInitialPageSortedByDate)->names(), byName);
    EXPECT_EQ(newLines().at(0),
              "[DEBUG] ┏ enumerate items for " + identifierOf("a") + " with page initialPageSortedByDate");
}

TEST_F(LocalFileEnumeratorTest, AnEmptyFolderReportsNoItemsOnce) {
    makeFolder("a");
    const auto observer = list(*makeEnumerator("a"));
    EXPECT_EQ(observer->reports, 1u);
    EXPECT_TRUE(observer->items.empty());
    EXPECT_TRUE(observer->finished);
    EXPECT_FALSE(observer->page.has_value());
}

TEST_F(LocalFileEnumeratorTest, AFolderThatIsGoneListsNothing) {
    makeFolder("a");
    const auto enumerator = makeEnumerator("a");
    remove("a");
    events_.setDeviceUUID(kVolume);
    const auto observer = list(*enumerator);
    EXPECT_TRUE(observer->items.empty());
    EXPECT_EQ(observer->error, items::makeError(items::DeviceUUIDError::unableToGetDeviceUUID));
}

TEST_F(LocalFileEnumeratorTest, FoldersAreListedInPagesOf200) {
    struct Row {
        std::size_t entries;
        std::vector<std::size_t> pages;
    };
    for (const Row& row : {Row{199, {199}}, Row{200, {200, 0}}, Row{201, {200, 1}}, Row{450, {200, 200, 50}}}) {
        const std::string folder = "folder" + std::to_string(row.entries);
        SCOPED_TRACE(folder);
        makeFiles(folder, row.entries);
        std::set<std::string> names;
        EXPECT_EQ(pageSizes(*makeEnumerator(folder), names), row.pages);
        EXPECT_EQ(names.size(), row.entries);
    }
}

TEST_F(LocalFileEnumeratorTest, EntriesThatGiveNoItemCountForThePages) {
    device_.settle();
    makeFiles("", 199);
    makeFolder("Inbox");
    makeFile("last");
    const auto enumerator = LocalFileEnumerator::create(environment_, "RootContainer", {device_.url()});
    std::set<std::string> names;
    EXPECT_EQ(pageSizes(*enumerator, names), (std::vector<std::size_t>{199, 1}));
    EXPECT_EQ(names.size(), 200u);
    EXPECT_FALSE(names.contains("Inbox"));
}

TEST_F(LocalFileEnumeratorTest, APageCarriesTheStartOfTheListingThroughAllPages) {
    makeFiles("a", 450);
    const auto enumerator = makeEnumerator("a");
    const auto first = list(*enumerator);
    ASSERT_TRUE(first->page.has_value());
    EXPECT_EQ(ChangeToken::decode(*first->page),
              (ChangeToken{.deviceUUID = kVolume, .streamEventID = EventID{10}, .offset = 200}));
    newLines();
    events_.setEventID(99);
    const auto second = list(*enumerator, *first->page);
    ASSERT_TRUE(second->page.has_value());
    const ChangeToken expected{.deviceUUID = kVolume, .streamEventID = EventID{10}, .offset = 400};
    EXPECT_EQ(ChangeToken::decode(*second->page), expected);
    EXPECT_EQ(newLines(), (Lines{"[DEBUG] ┏ enumerate items for " + identifierOf("a") + " with page " +
                                     ChangeToken::decode(*first->page)->description(),
                                 "[DEBUG] resume gather phase at offset 200", "[DEBUG] starting " + reader(10, "a"),
                                 "[DEBUG] fsevent: received 1 events", "[DEBUG] done processing history",
                                 "[DEBUG] stopped " + reader(12, "a"), "[DEBUG] safe to resume gather phase from 10",
                                 "[DEBUG] discovered 200 items", "[DEBUG] ┗"}));
    // Only the beginning of a listing looks for the present, where something may leave before its last page.
    ASSERT_EQ(events_.currentEventIDRequests().size(), 1u);
    EXPECT_EQ(events_.currentEventIDRequests()[0].interest, events::Interest::departuresOnly);
}

TEST_F(LocalFileEnumeratorTest, APageFromBeforeADeletionExpires) {
    makeFiles("a", 201);
    const auto enumerator = makeEnumerator("a");
    const auto first = list(*enumerator);
    ASSERT_TRUE(first->page.has_value());
    newLines();
    events_.setHistory({{eventAt(11, pathOf("a/gone"), FileID{3})}, {historyDoneEvent(12)}});
    const auto second = list(*enumerator, *first->page);
    EXPECT_EQ(second->error, kExpired);
    EXPECT_EQ(second->error->code, -1002);
    EXPECT_EQ(second->reports, 0u);
    const auto lines = newLines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(Lines(lines.end() - 2, lines.end()),
              (Lines{"[DEBUG] deletion of " + pathOf("a/gone") + " requires to re-gather from scratch", "[DEBUG] ┗"}));
}

TEST_F(LocalFileEnumeratorTest, APageWhoseHistoryIsGoneExpires) {
    makeFiles("a", 201);
    const auto enumerator = makeEnumerator("a");
    const auto first = list(*enumerator);
    ASSERT_TRUE(first->page.has_value());
    newLines();
    events_.setHistory({{eventWithFlags(11, events::kEventUserDropped)}});
    EXPECT_EQ(list(*enumerator, *first->page)->error, kExpired);
    const auto lines = newLines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[lines.size() - 2],
              "[DEBUG] can't replay historical FSEvents, need to re-start gather phase from scratch");
}

TEST_F(LocalFileEnumeratorTest, APageOfAnotherDeviceExpires) {
    makeFiles("a", 3);
    const auto enumerator = makeEnumerator("a");
    const ChangeToken token{.deviceUUID = kOtherVolume, .streamEventID = EventID{10}, .offset = 200};
    const auto observer = list(*enumerator, pageOf(token));
    EXPECT_EQ(observer->error, kExpired);
    EXPECT_EQ(observer->reports, 0u);
    EXPECT_EQ(
        newLines(),
        (Lines{"[DEBUG] ┏ enumerate items for " + identifierOf("a") + " with page " + token.description(),
               "[DEBUG] device UUID changed (" + kOtherVolume.text() + " -> " + kVolume.text() + ")", "[DEBUG] ┗"}));
    EXPECT_TRUE(events_.streams().empty());
}

TEST_F(LocalFileEnumeratorTest, PagesThatAreNoTokenExpire) {
    makeFolder("a");
    const auto enumerator = makeEnumerator("a");
    auto cut = pageOf({.deviceUUID = kVolume});
    cut.pop_back();
    for (const EnumerationPage& page : {EnumerationPage{}, EnumerationPage(48, 0), EnumerationPage{1, 2, 3}, cut}) {
        SCOPED_TRACE(page.size());
        EXPECT_EQ(list(*enumerator, page)->error, kExpired);
        EXPECT_EQ(newLines(), Lines{"[ERROR] can't create change token from anchor data, resetting"});
    }
}

TEST_F(LocalFileEnumeratorTest, AnOffsetPastTheEndFinishesTheListing) {
    makeFiles("a", 3);
    const auto enumerator = makeEnumerator("a");
    for (const std::uint64_t offset : {std::uint64_t{4}, std::uint64_t{203}, ~std::uint64_t{0}}) {
        const auto observer =
            list(*enumerator, pageOf({.deviceUUID = kVolume, .streamEventID = EventID{10}, .offset = offset}));
        EXPECT_TRUE(observer->items.empty());
        EXPECT_TRUE(observer->finished);
        EXPECT_FALSE(observer->page.has_value());
    }
}

TEST_F(LocalFileEnumeratorTest, AListingWithoutAPresentPositionFails) {
    makeFiles("a", 3);
    const auto enumerator = makeEnumerator("a");
    events_.failCurrentEventID(posixError(EIO));
    const auto observer = list(*enumerator);
    EXPECT_EQ(observer->error, posixError(EIO));
    EXPECT_EQ(newLines(),
              (Lines{"[DEBUG] ┏ enumerate items for " + identifierOf("a") + " with page initialPageSortedByName",
                     "[DEBUG] start gather phase",
                     "[ERROR] can't get current event ID for " + pathOf("a") + "; " + describe(posixError(EIO)),
                     "[DEBUG] ┗"}));
}

TEST_F(LocalFileEnumeratorTest, OnlyTheFirstFolderIsListedUnlessAllDirectoriesAre) {
    makeFile("a/file");
    makeFile("a/sub/deep/file");
    makeFile("a/sub/deep/.hidden/inner");
    makeFolder("b/other");
    makeFile("b/file");
    const std::vector<URL> urls{device_.url("a"), device_.url("b")};
    for (const std::string container : {"RootContainer", "WorkingSetContainer", "fid=5"}) {
        SCOPED_TRACE(container);
        const auto enumerator = LocalFileEnumerator::create(environment_, container, urls);
        EXPECT_EQ(sorted(list(*enumerator)->names()), (Lines{"file", "sub"}));
    }
    const auto all = LocalFileEnumerator::create(environment_, "AllDirectoriesContainer", urls);
    newLines();
    const auto observer = list(*all);
    EXPECT_EQ(sorted(observer->names()), (Lines{"deep", "other", "sub"}));
    for (const auto& item : observer->items) {
        EXPECT_TRUE(item->isFolder());
        EXPECT_EQ(item->parentItemIdentifier(),
                  items::LocalItem::initWithURL(device_.environment(), item->fileURL(), {})->parentItemIdentifier());
    }
    EXPECT_EQ(newLines(),
              (Lines{"[DEBUG] ┏ enumerate items for AllDirectoriesContainer with page initialPageSortedByName",
                     "[DEBUG] start gather phase", "[DEBUG] discovered 3 items",
                     "[DEBUG] gather phase finished for " + pathOf("a") + ", " + pathOf("b"), "[DEBUG] ┗"}));
    EXPECT_EQ(events_.currentEventIDRequests().back().folders, urls);
}

TEST_F(LocalFileEnumeratorTest, TheWorkingSetHasTheFileIDOfEachItemUpdated) {
    makeFile("a/file.txt");
    makeFile("a/.hidden");
    makeFile("a/sub/inner");
    testing::FaultyGenerationStore genstore(device_.generationStore());
    const items::Environment items{device_.programLog(), device_.files(), genstore, device_.providerManager(),
                                   device_.environment().appLibraries};
    const FSEnvironment environment{items, events_, device_.pool()};
    const auto enumerator = LocalFileEnumerator::create(environment, "WorkingSetContainer", {device_.url("a")});
    newLines();
    const auto observer = list(*enumerator);
    Lines delivered;
    for (const auto& item : observer->items) delivered.push_back(item->fileURL().path());
    EXPECT_EQ(sorted(delivered), (Lines{pathOf("a/file.txt"), pathOf("a/sub")}));
    EXPECT_EQ(genstore.asked(), delivered);
    EXPECT_EQ(genstore.allocations(), 0u);
    EXPECT_EQ(newLines(), (Lines{"[DEBUG] ┏ enumerate items for WorkingSetContainer with page initialPageSortedByName",
                                 "[DEBUG] start gather phase", "[DEBUG] updating file ID in genstore",
                                 "[DEBUG] updating file ID in genstore", "[DEBUG] discovered 2 items",
                                 "[DEBUG] gather phase finished for " + pathOf("a"), "[DEBUG] ┗"}));

    // What the store answers does not matter.
    genstore.failQuestions(EIO, 2);
    const auto again = list(*enumerator);
    EXPECT_EQ(again->items.size(), 2u);
    EXPECT_FALSE(again->error.has_value());
    EXPECT_EQ(genstore.asked().size(), 4u);
}

TEST_F(LocalFileEnumeratorTest, OtherContainersLeaveTheGenerationStoreAlone) {
    makeFile("a/file.txt");
    makeFile("a/sub/inner");
    testing::FaultyGenerationStore genstore(device_.generationStore());
    const items::Environment items{device_.programLog(), device_.files(), genstore, device_.providerManager(),
                                   device_.environment().appLibraries};
    const FSEnvironment environment{items, events_, device_.pool()};
    for (const std::string container : {"RootContainer", "AllDirectoriesContainer", "fid=5"}) {
        const auto enumerator = LocalFileEnumerator::create(environment, container, {device_.url("a")});
        EXPECT_FALSE(list(*enumerator)->items.empty());
    }
    EXPECT_EQ(genstore.asked(), Lines{});
}

TEST_F(LocalFileEnumeratorTest, FilesCountForThePagesOfAllDirectories) {
    makeFiles("a", 200);
    makeFolder("b/folder");
    const auto all =
        LocalFileEnumerator::create(environment_, "AllDirectoriesContainer", {device_.url("a"), device_.url("b")});
    std::set<std::string> names;
    EXPECT_EQ(pageSizes(*all, names), (std::vector<std::size_t>{0, 1}));
    EXPECT_EQ(names, std::set<std::string>{"folder"});
}

TEST_F(LocalFileEnumeratorTest, ATrashIsListedFlatAndWithoutHiddenEntries) {
    EXPECT_EQ(LocalFileEnumerator::directoryEnumerationOptionsFor(device_.url(".Trash")), 7u);
    EXPECT_EQ(LocalFileEnumerator::directoryEnumerationOptionsFor(device_.url("a/.Trash")), 7u);
    EXPECT_EQ(LocalFileEnumerator::directoryEnumerationOptionsFor(device_.url("Trash")), std::nullopt);
    EXPECT_EQ(LocalFileEnumerator::directoryEnumerationOptionsFor(device_.url(".Trash/a")), std::nullopt);
    EXPECT_EQ(LocalFileEnumerator::directoryEnumerationOptionsFor(device_.url(".Trashes")), std::nullopt);

    makeFile(".Trash/folder/sub/inner");
    makeFile(".Trash/file");
    makeFile(".Trash/.hidden");
    const auto observer = list(*makeEnumerator(".Trash"));
    EXPECT_EQ(sorted(observer->names()), (Lines{"file", "folder"}));
    for (const auto& item : observer->items) EXPECT_TRUE(item->isTrashed());
    const auto all = LocalFileEnumerator::create(environment_, "AllDirectoriesContainer", {device_.url(".Trash")});
    EXPECT_EQ(list(*all)->names(), Lines{"folder"});
}

TEST_F(LocalFileEnumeratorTest, TheParentOfManyEntriesIsLookedUpOnce) {
    makeFiles("a", 100);
    const auto lookupsFor = [&](std::size_t count) {
        const auto enumerator =
            LocalFileEnumerator::create(faultyEnvironment_, "fid=5", {device_.url(count == 100 ? "a" : "b")});
        faultyFiles_.clear();
        EXPECT_EQ(list(*enumerator)->items.size(), count);
        return faultyFiles_.calls(testing::FaultyFileSystem::Operation::isFolder);
    };
    makeFiles("b", 50);
    // One folder test for each entry's own identifier, one for the identifier of the folder.
    EXPECT_EQ(lookupsFor(100), 101u);
    EXPECT_EQ(lookupsFor(50), 51u);
}

TEST_F(LocalFileEnumeratorTest, TheCurrentAnchorIsTheNotifiersDeviceAndThePresent) {
    makeFolder("a");
    const auto enumerator = makeEnumerator("a");
    events_.setEventID(77);
    std::optional<hostframework::SyncAnchor> anchor;
    enumerator->currentSyncAnchorWithCompletionHandler([&](const auto& made) { anchor = made; });
    ASSERT_TRUE(anchor.has_value());
    EXPECT_EQ(ChangeToken::decode(*anchor), (ChangeToken{.deviceUUID = kVolume, .streamEventID = EventID{77}}));
    EXPECT_EQ(events_.currentEventIDRequests().back().folders, std::vector<URL>{device_.url("a")});
    EXPECT_EQ(events_.currentEventIDRequests().back().interest, events::Interest::everything);
    EXPECT_EQ(newLines(), Lines{});
}

TEST_F(LocalFileEnumeratorTest, WithoutAPresentPositionThereIsNoAnchor) {
    makeFolder("a");
    const auto enumerator = makeEnumerator("a");
    events_.failCurrentEventID(posixError(EIO));
    bool answered = false;
    enumerator->currentSyncAnchorWithCompletionHandler([&](const auto& anchor) {
        answered = true;
        EXPECT_FALSE(anchor.has_value());
    });
    EXPECT_TRUE(answered);
    EXPECT_EQ(newLines(),
              Lines{"[ERROR] can't get current event ID for " + pathOf("a") + "; " + describe(posixError(EIO))});
}

TEST_F(LocalFileEnumeratorTest, StartStopAndInvalidateSwitchTheLiveUpdates) {
    makeFolder("a");
    const auto enumerator = makeEnumerator("a");
    const auto drain = [&] { enumerator->notifier()->reader()->streamQueue()->sync([] {}); };
    enumerator->start();
    drain();
    EXPECT_EQ(events_.runningStreams(), 1u);
    enumerator->stop();
    drain();
    EXPECT_EQ(events_.runningStreams(), 0u);
    enumerator->start();
    drain();
    EXPECT_EQ(events_.runningStreams(), 1u);
    enumerator->invalidate();
    enumerator->invalidate();
    drain();
    EXPECT_EQ(events_.runningStreams(), 0u);
}

// With the real journal.

class RealListingTest : public LocalFileEnumeratorTest {
protected:
    FSEnvironment real_{device_.environment(), device_.events(), device_.pool()};
    std::shared_ptr<LocalFileEnumerator> enumeratorOf(const std::string& relative) {
        return LocalFileEnumerator::create(real_, identifierOf(relative), {device_.url(relative)});
    }
};

TEST_F(RealListingTest, EntriesThatCameMeanwhileLengthenTheListing) {
    makeFiles("a", 200, "old");
    device_.settle();
    const auto enumerator = enumeratorOf("a");
    const auto first = list(*enumerator);
    ASSERT_TRUE(first->page.has_value());
    makeFiles("a", 10, "new");
    const auto second = list(*enumerator, *first->page);
    EXPECT_FALSE(second->error.has_value());
    EXPECT_EQ(second->items.size(), 10u);
    for (const auto& name : second->names()) EXPECT_TRUE(name.starts_with("new")) << name;
}

TEST_F(RealListingTest, ADeletionBetweenPagesExpiresThePageAndNamesThePath) {
    makeFiles("a", 250);
    const auto enumerator = enumeratorOf("a");
    const auto first = list(*enumerator);
    ASSERT_TRUE(first->page.has_value());
    remove("a/f007");
    newLines();
    EXPECT_EQ(list(*enumerator, *first->page)->error, kExpired);
    EXPECT_TRUE(
        device_.log().contains("[DEBUG] deletion of " + pathOf("a/f007") + " requires to re-gather from scratch"));
    // From scratch it works again.
    std::set<std::string> names;
    EXPECT_EQ(pageSizes(*enumerator, names), (std::vector<std::size_t>{200, 49}));
}

TEST_F(RealListingTest, ADeletionBeforeTheListingDoesNotExpireItsPages) {
    makeFiles("a", 250);
    device_.settle();
    remove("a/f007");
    std::set<std::string> names;
    EXPECT_EQ(pageSizes(*enumeratorOf("a"), names), (std::vector<std::size_t>{200, 49}));
    EXPECT_FALSE(names.contains("f007"));
}

TEST_F(RealListingTest, ManyThreadsMayListOneFolderAtOnce) {
    makeFiles("a", 250);
    const auto enumerator = enumeratorOf("a");
    enumerator->start();
    std::vector<std::vector<std::size_t>> sizes(4);
    std::vector<std::set<std::string>> names(4);
    {
        std::vector<std::jthread> threads;
        for (std::size_t i = 0; i < sizes.size(); ++i) {
            threads.emplace_back([&, i] { sizes[i] = pageSizes(*enumerator, names[i]); });
        }
    }
    for (std::size_t i = 0; i < sizes.size(); ++i) {
        EXPECT_EQ(sizes[i], (std::vector<std::size_t>{200, 50}));
        EXPECT_EQ(names[i].size(), 250u);
    }
    enumerator->invalidate();
    enumerator->notifier()->reader()->streamQueue()->sync([] {});
}

TEST_F(RealListingTest, TheAnchorIsOfTheRealDevice) {
    makeFolder("a");
    std::optional<hostframework::SyncAnchor> anchor;
    enumeratorOf("a")->currentSyncAnchorWithCompletionHandler([&](const auto& made) { anchor = made; });
    ASSERT_TRUE(anchor.has_value());
    const auto token = ChangeToken::decode(*anchor);
    ASSERT_TRUE(token.has_value());
    EXPECT_EQ(token->deviceUUID, device_.events().deviceUUID(device_.device()).value());
    EXPECT_EQ(token->offset, 0u);
    EXPECT_EQ(token->appLibraryVersionToken, 0u);
}

}  // namespace
}  // namespace tarnwell::fs
