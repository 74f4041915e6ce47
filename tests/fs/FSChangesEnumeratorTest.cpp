#include "fs/FSChangesEnumerator.h"

#include <algorithm>

#include "fs/LocalFileEnumerator.h"
#include "hostframework/HostError.h"
#include "tests/fs/ChangeRecorder.h"
#include "tests/fs/FSFixture.h"

namespace tarnwell::fs {
namespace {

using testing::eventAt;
using testing::EventBatch;
using testing::eventWithFlags;
using testing::historyDoneEvent;
using Lines = std::vector<std::string>;

class FSChangesEnumeratorTest : public FSTest {
protected:
    FSChangesEnumeratorTest() {
        events_.setEventID(500);
        events_.setDocumentHistory({{historyDoneEvent(500)}});
    }

    /// Runs one request to its finish, with everything that it has queued.
    std::shared_ptr<ChangeRecorder> request(const ChangeToken& token, const std::string& container = "fid=5",
                                            std::vector<URL> urls = {}) {
        auto recorder = std::make_shared<ChangeRecorder>();
        if (urls.empty()) urls = {device_.url()};
        auto enumerator = FSChangesEnumerator::create(environment_, token, container, urls, recorder);
        newLines();
        enumerator->start();
        recorder->wait();
        waitUntilStopped();
        return recorder;
    }
    std::shared_ptr<ChangeRecorder> requestSince(std::uint64_t since, const std::string& container = "fid=5") {
        return request(tokenSince(since), container);
    }
    static ChangeToken tokenSince(std::uint64_t since, std::uint64_t offset = 0) {
        return {.deviceUUID = kVolume, .streamEventID = EventID{since}, .offset = offset, .appLibraryVersionToken = 7};
    }
    void waitUntilStopped() {
        for (int i = 0; i < 1000 && events_.runningStreams() > 0; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        EXPECT_EQ(events_.runningStreams(), 0u);
    }
    events::FileEvent change(std::uint64_t id, const std::string& relative, std::uint32_t flags = 0) {
        auto event = eventAt(id, pathOf(relative));
        event.flags = flags;
        return event;
    }
    events::FileEvent deletion(std::uint64_t id, std::uint32_t document) {
        auto event = eventAt(id, pathOf("gone" + std::to_string(id)), DocumentID{document});
        event.flags = events::kEventItemRemoved;
        return event;
    }
    /// Deletions with the IDs and document IDs first, first + 1, …
    EventBatch deletions(std::uint64_t first, std::size_t count) {
        EventBatch batch;
        for (std::uint64_t id = first; id < first + count; ++id) {
            batch.push_back(deletion(id, static_cast<std::uint32_t>(id)));
        }
        return batch;
    }
    static Lines deletionReports(std::uint64_t first, std::size_t count) {
        Lines lines;
        for (std::uint64_t id = first; id < first + count; ++id) lines.push_back("delete did=" + std::to_string(id));
        return lines;
    }
    Lines linesAbout(std::string_view text) {
        Lines lines = newLines();
        std::erase_if(lines, [&](const std::string& line) { return line.find(text) == std::string::npos; });
        return lines;
    }
};

TEST_F(FSChangesEnumeratorTest, NeedsAURL) {
    EXPECT_DEATH(FSChangesEnumerator::create(environment_, {}, "fid=5", {}, std::make_shared<ChangeRecorder>()),
                 "require at least one URL to init a change enumerator");
}

TEST_F(FSChangesEnumeratorTest, TellsByPathThenByDocumentAndCatchesUp) {
    makeFile("a");
    makeFile("b");
    const auto document = documentIDOf("b");
    events_.setHistory({{change(11, "a"), deletion(12, 77)}, {historyDoneEvent(500)}});
    events_.setDocumentHistory({{eventAt(13, "/.docid/1/changed/" + std::to_string(raw(document)) + "/src=1,dst=2")},
                                {historyDoneEvent(500)}});
    const auto recorder = requestSince(10);
    EXPECT_EQ(recorder->reports(), (Lines{"update a", "delete did=77", "update b"}));
    EXPECT_FALSE(recorder->moreComing());
    EXPECT_EQ(
        recorder->token(),
        (ChangeToken{.deviceUUID = kVolume, .streamEventID = EventID{500}, .offset = 0, .appLibraryVersionToken = 7}));
    const Lines lines = newLines();
    const auto said = [&](const std::string& line) { return std::ranges::count(lines, line); };
    EXPECT_EQ(said("[DEBUG] forward deletion of did=77"), 1);
    EXPECT_EQ(said("[DEBUG] processed all FSEvents path based, carry on with the docID based"), 1);
    EXPECT_EQ(said("[DEBUG] fetching changes did catch up"), 1);
    EXPECT_EQ(std::ranges::count_if(
                  lines, [](const std::string& line) { return line.starts_with("[DEBUG] forward update of "); }),
              2);

    const auto streams = events_.streams();
    ASSERT_EQ(streams.size(), 2u);
    EXPECT_EQ(streams[0].options.since, EventID{10});
    EXPECT_TRUE(std::holds_alternative<events::StreamOverPaths>(streams[0].options.over));
    EXPECT_EQ(streams[0].options.interest, events::Interest::everything);
    EXPECT_FALSE(streams[0].options.upTo.has_value());
    EXPECT_EQ(streams[1].options.since, EventID{10});
    EXPECT_TRUE(std::holds_alternative<events::StreamOverDevice>(streams[1].options.over));
    EXPECT_EQ(streams[1].options.upTo, EventID{500}) << "both passes must end at the same moment";
    EXPECT_EQ(streams[1].queueLabel, "tarnwell.fsevents-stream");
}

TEST_F(FSChangesEnumeratorTest, WaitsForTheEndOfTheHistory) {
    events_.setHistory({deletions(11, 3)});
    auto recorder = std::make_shared<ChangeRecorder>();
    auto enumerator = FSChangesEnumerator::create(environment_, tokenSince(10), "fid=5", {device_.url()}, recorder);
    enumerator->start();
    for (int i = 0; i < 1000 && recorder->reports().size() < 3; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(recorder->finishes(), 0);
    events_.play({historyDoneEvent(20)});
    recorder->wait();
    EXPECT_EQ(recorder->token()->streamEventID, EventID{500}) << "the greater of both passes";
    waitUntilStopped();
}

TEST_F(FSChangesEnumeratorTest, AMovedItemIsForwardedWithItsNewParent) {
    makeFile("folder/a");
    events_.setHistory({{change(11, "folder/a", events::kEventItemRenamed)}, {historyDoneEvent(500)}});
    requestSince(10);
    const auto lines = linesAbout("forward update of");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(lines[0].ends_with(" to " + identifierOf("folder"))) << lines[0];
}

TEST_F(FSChangesEnumeratorTest, DeliversAtMost200ChangesARequest) {
    const EventBatch all = deletions(11, 450);
    const auto serve = [&](std::uint64_t after) {
        EventBatch rest;
        for (const auto& event : all) {
            if (raw(event.id) > after) rest.push_back(event);
        }
        events_.setHistory({rest, {historyDoneEvent(500)}});
    };
    serve(10);
    const auto first = requestSince(10);
    EXPECT_EQ(first->reports(), deletionReports(11, 200));
    EXPECT_TRUE(first->moreComing());
    EXPECT_EQ(first->token(), tokenSince(10, 200));
    EXPECT_EQ(first->finishes(), 1);

    serve(210);
    const auto second = request(*first->token());
    EXPECT_EQ(events_.streams().back().options.since, EventID{210}) << "goes on by seeking";
    EXPECT_EQ(events_.streams().back().options.begunAt, EventID{10});
    EXPECT_EQ(second->reports(), deletionReports(211, 200));
    EXPECT_TRUE(second->moreComing());
    EXPECT_EQ(second->token(), tokenSince(10, 400));

    serve(410);
    const auto third = request(*second->token());
    EXPECT_EQ(third->reports(), deletionReports(411, 50));
    EXPECT_FALSE(third->moreComing());
    EXPECT_EQ(third->token()->streamEventID, EventID{500});
    EXPECT_EQ(third->token()->offset, 0u);
}

TEST_F(FSChangesEnumeratorTest, Exactly200ChangesHaveAnEmptyBatchBehindThem) {
    events_.setHistory({deletions(11, 200), {historyDoneEvent(500)}});
    const auto first = requestSince(10);
    EXPECT_EQ(first->reports().size(), 200u);
    EXPECT_TRUE(first->moreComing());
    events_.setHistory({{historyDoneEvent(500)}});
    const auto second = request(*first->token());
    EXPECT_EQ(second->reports(), Lines{});
    EXPECT_FALSE(second->moreComing());
    EXPECT_EQ(second->token()->streamEventID, EventID{500});
}

TEST_F(FSChangesEnumeratorTest, GoesOnInTheDocumentPassAfterTheNewestByPath) {
    EventBatch documents;
    for (std::uint64_t id = 11; id <= 260; ++id) {
        // No document has such an ID, so each is a deletion.
        documents.push_back(eventAt(id, "/.docid/1/changed/" + std::to_string(90'000 + id) + "/src=1,dst=0"));
    }
    documents.push_back(historyDoneEvent(300));
    events_.setHistory({{historyDoneEvent(300)}});
    events_.setDocumentHistory({documents});
    const auto first = requestSince(10);
    EXPECT_EQ(first->reports().size(), 200u);
    ASSERT_TRUE(first->moreComing());

    documents.erase(documents.begin(), documents.begin() + 200);
    documents.back() = historyDoneEvent(400);
    events_.setHistory({{deletion(350, 5), historyDoneEvent(400)}});
    events_.setDocumentHistory({documents});
    const auto before = events_.streams().size();
    const auto second = request(*first->token());
    const auto streams = events_.streams();
    ASSERT_EQ(streams.size(), before + 2);
    EXPECT_EQ(streams[before].options.since, EventID{300}) << "what came by path since is told first";
    EXPECT_EQ(streams[before + 1].options.since, EventID{210});
    EXPECT_EQ(streams[before + 1].options.upTo, EventID{400});
    EXPECT_EQ(second->reports().size(), 51u);
    EXPECT_EQ(second->reports().front(), "delete did=5");
    EXPECT_EQ(second->token()->streamEventID, EventID{400});
}

TEST_F(FSChangesEnumeratorTest, ABatchThatIsNotKnownAnyMoreExpires) {
    events_.setHistory({deletions(11, 250), {historyDoneEvent(500)}});
    const auto recorder = request(tokenSince(10, 200));
    EXPECT_EQ(recorder->error(), hostframework::syncAnchorExpired());
    EXPECT_EQ(recorder->reports(), Lines{});
    EXPECT_EQ(newLines(), Lines{"[DEBUG] fetching changes did finish after reset"});
    EXPECT_TRUE(events_.streams().empty());
}

TEST_F(FSChangesEnumeratorTest, TheSamePositionInAnotherContainerIsAnotherBatch) {
    events_.setHistory({deletions(11, 250), {historyDoneEvent(500)}});
    const auto first = requestSince(10, "fid=5");
    EXPECT_EQ(request(*first->token(), "fid=6")->error(), hostframework::syncAnchorExpired());
    EXPECT_FALSE(request(*first->token(), "fid=5")->error().has_value());
}

TEST_F(FSChangesEnumeratorTest, ABatchThatCannotBeRememberedIsAnError) {
    events_.failContinuations(posixError(ENOSPC));
    events_.setHistory({deletions(11, 250), {historyDoneEvent(500)}});
    const auto recorder = requestSince(10);
    EXPECT_EQ(recorder->error(), posixError(ENOSPC));
    EXPECT_EQ(recorder->finishes(), 1);
    EXPECT_EQ(request(tokenSince(10, 200))->error(), posixError(ENOSPC));
}

TEST_F(FSChangesEnumeratorTest, DroppedEventsAndWrappedIDsExpire) {
    for (const auto flag : {events::kEventUserDropped, events::kEventKernelDropped, events::kEventIDsWrapped}) {
        SCOPED_TRACE(flag);
        events_.setHistory({{deletion(11, 5), eventWithFlags(12, flag), deletion(13, 6)}, {historyDoneEvent(500)}});
        const auto recorder = requestSince(10);
        EXPECT_EQ(recorder->error(), hostframework::syncAnchorExpired());
        EXPECT_EQ(recorder->reports(), Lines{"delete did=5"}) << "nothing is told after the finish";
        EXPECT_EQ(recorder->finishes(), 1);
        EXPECT_EQ(linesAbout("did finish after reset"), Lines{"[DEBUG] fetching changes did finish after reset"});
    }
}

TEST_F(FSChangesEnumeratorTest, TheWorkingSetIsNotToldOfAppLibraries) {
    makeFile("a");
    events_.setHistory({{change(11, "a"), deletion(12, 77)}, {historyDoneEvent(500)}});
    const auto recorder = requestSince(10, hostframework::kWorkingSetContainer);
    EXPECT_EQ(recorder->reports(), (Lines{"update a", "delete did=77"}));
}

TEST_F(FSChangesEnumeratorTest, AllDirectoriesAreToldOfFoldersOnly) {
    makeFile("a");
    makeFolder("folder");
    auto goneFolder = eventAt(14, pathOf("gone"), FileID{4711});
    goneFolder.flags = events::kEventItemRemoved;
    events_.setHistory(
        {{change(11, "a"), change(12, "folder"), deletion(13, 77), goneFolder}, {historyDoneEvent(500)}});
    const auto recorder = requestSince(10, hostframework::kAllDirectoriesContainer);
    EXPECT_EQ(recorder->reports(), (Lines{"update folder", "delete fid=4711"}));
    const auto lines = linesAbout("ignore update of");
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_TRUE(lines[0].ends_with("; item is not a directory of " + device_.url().path())) << lines[0];
    EXPECT_EQ(lines[1], "[DEBUG] ignore update of did=77; item is not a directory");
}

TEST_F(FSChangesEnumeratorTest, WhatIsLeftOutIsNotCounted) {
    makeFolder("folder");
    EventBatch batch = deletions(11, 300);
    batch.push_back(change(400, "folder"));
    events_.setHistory({batch, {historyDoneEvent(500)}});
    const auto recorder = requestSince(10, hostframework::kAllDirectoriesContainer);
    EXPECT_EQ(recorder->reports(), Lines{"update folder"});
    EXPECT_FALSE(recorder->moreComing());
}

TEST_F(FSChangesEnumeratorTest, WhatAFollowedFolderTookOutOfSightIsDeleted) {
    makeFile(".hidden/folder/stays");
    const auto still = documentIDOf(".hidden/folder/stays");
    const auto removal = [&](std::uint64_t id, const std::string& relative, DocumentID document) {
        auto event = eventAt(id, pathOf(relative), document);
        event.flags = events::kEventItemRemoved;
        return event;
    };
    events_.setHistory({{removal(11, ".hidden/folder/stays", still), removal(12, ".hidden/folder/gone", DocumentID{77}),
                         change(13, ".hidden/folder/stays")},
                        {historyDoneEvent(500)}});
    const auto recorder = request(tokenSince(10), "fid=5", {device_.url(".hidden/folder")});
    EXPECT_EQ(recorder->reports(), (Lines{"delete did=" + std::to_string(raw(still)), "delete did=77"}));
}

class FoldersThatCameIn : public FSChangesEnumeratorTest {
protected:
    events::FileEvent arrival(std::uint64_t id, const std::string& relative) {
        return change(id, relative, events::kEventItemRenamed | events::kEventItemBroughtContents);
    }
};

TEST_F(FoldersThatCameIn, BringTheirContents) {
    makeFile("folder/a");
    makeFile("folder/sub/b");
    makeFile("folder/.hidden");
    events_.setHistory({{arrival(11, "folder")}, {historyDoneEvent(500)}});
    const auto recorder = requestSince(10);
    auto reports = recorder->reports();
    ASSERT_FALSE(reports.empty());
    EXPECT_EQ(reports.front(), "update folder");
    std::ranges::sort(reports);
    EXPECT_EQ(reports, (Lines{"update a", "update b", "update folder", "update sub"}));
    EXPECT_EQ(linesAbout("scanning folder"), Lines{"[DEBUG] scanning folder " + pathOf("folder") + " from offset 0"});
}

TEST_F(FoldersThatCameIn, AreToldInBatches) {
    makeFiles("folder", 450);
    events_.keepJournal();
    events_.record(arrival(0, "folder"));
    std::set<std::string> names;
    std::vector<std::size_t> sizes;
    Lines scans;
    ChangeToken token = tokenSince(500);
    for (bool more = true; more && sizes.size() < 10;) {
        const auto recorder = request(token);
        ASSERT_FALSE(recorder->error().has_value());
        sizes.push_back(recorder->reports().size());
        for (const auto& report : recorder->reports()) EXPECT_TRUE(names.insert(report).second) << report;
        for (auto& line : linesAbout("scanning folder")) scans.push_back(std::move(line));
        more = recorder->moreComing();
        token = *recorder->token();
    }
    EXPECT_EQ(sizes, (std::vector<std::size_t>{200, 200, 51}));
    EXPECT_EQ(names.size(), 451u);
    const std::string text = "[DEBUG] scanning folder " + pathOf("folder") + " from offset ";
    EXPECT_EQ(scans, (Lines{text + "0", text + "199", text + "399"}));
}

TEST_F(FoldersThatCameIn, AreToldFromTheBeginningAgainAfterSomethingLeftThem) {
    makeFiles("folder", 300);
    events_.keepJournal();
    events_.record(arrival(0, "folder"));
    const auto first = request(tokenSince(500));
    ASSERT_TRUE(first->moreComing());
    // One of those told already goes: those behind it move up by one.
    auto departure = eventAt(0, pathOf("folder/f000"), documentIDOf("folder/f000"));
    departure.flags = events::kEventItemRemoved;
    remove("folder/f000");
    events_.record(departure);
    std::set<std::string> names;
    ChangeToken token = *first->token();
    for (bool more = true; more;) {
        const auto recorder = request(token);
        for (const auto& report : recorder->reports()) names.insert(report);
        more = recorder->moreComing();
        token = *recorder->token();
    }
    for (std::size_t i = 199; i < 300; ++i) EXPECT_TRUE(names.contains("update f" + std::to_string(i))) << i;
}

TEST_F(FoldersThatCameIn, AndWentOnAreLeftToTheirOwnRecords) {
    makeFiles("folder", 300);
    events_.keepJournal();
    events_.record(arrival(0, "folder"));
    const auto first = request(tokenSince(500));
    ASSERT_TRUE(first->moreComing());
    ASSERT_EQ(std::rename(device_.path("folder").c_str(), device_.path(".hidden").c_str()), 0);
    device_.settle();
    const auto second = request(*first->token(), "fid=5", {device_.url("elsewhere")});
    EXPECT_EQ(second->reports(), Lines{});
    EXPECT_FALSE(second->error().has_value());
}

TEST_F(FoldersThatCameIn, TellAllDirectoriesOfTheirFoldersOnly) {
    makeFiles("folder", 450);
    makeFolder("folder/last");
    events_.setHistory({{arrival(11, "folder")}, {historyDoneEvent(500)}});
    const auto recorder = requestSince(10, hostframework::kAllDirectoriesContainer);
    EXPECT_EQ(recorder->reports(), (Lines{"update folder", "update last"}));
}

// ---- the request at the local file enumerator --------------------------------------------------------------------

class ChangesOfLocalFileEnumerator : public FSChangesEnumeratorTest {
protected:
    std::shared_ptr<LocalFileEnumerator> make(const std::string& container) {
        auto enumerator = LocalFileEnumerator::create(environment_, container, {device_.url()});
        newLines();
        return enumerator;
    }
    /// Of a folder of its own.
    std::shared_ptr<LocalFileEnumerator> makeForFolder() {
        makeFolder("watched");
        auto enumerator = LocalFileEnumerator::create(environment_, identifierOf("watched"), {device_.url("watched")});
        newLines();
        return enumerator;
    }
    static std::shared_ptr<ChangeRecorder> ask(LocalFileEnumerator& enumerator, const Bytes& anchor) {
        auto recorder = std::make_shared<ChangeRecorder>();
        enumerator.enumerateChangesForObserver(recorder, anchor);
        recorder->wait();
        return recorder;
    }
    static void waitUntilRemoved(const LocalFileEnumerator& enumerator) {
        for (int i = 0; i < 1000 && !enumerator.enumerators().empty(); ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        EXPECT_TRUE(enumerator.enumerators().empty());
    }
};

TEST_F(ChangesOfLocalFileEnumerator, AnAnchorThatIsNoneExpires) {
    const auto enumerator = makeForFolder();
    for (const Bytes& anchor : {Bytes(), Bytes(48, 'x'), Bytes{1, 2, 3}}) {
        EXPECT_EQ(ask(*enumerator, anchor)->error(), hostframework::syncAnchorExpired());
        EXPECT_EQ(newLines(), Lines{"[ERROR] can't create change token from anchor data, resetting"});
    }
}

TEST_F(ChangesOfLocalFileEnumerator, EachFlippedByteIsAnotherAnchorOrNone) {
    events_.keepJournal();
    const auto enumerator = makeForFolder();
    const Bytes anchor = tokenSince(500).encode();
    for (std::size_t i = 0; i < anchor.size(); ++i) {
        Bytes flipped = anchor;
        flipped[i] ^= 0xFF;
        const auto recorder = ask(*enumerator, flipped);
        const auto token = ChangeToken::decode(flipped);
        const bool isGood =
            token && token->deviceUUID == kVolume && raw(token->streamEventID) <= 500 && token->offset == 0;
        EXPECT_EQ(recorder->error().has_value(), !isGood) << i;
        if (!isGood) {
            EXPECT_EQ(recorder->error(), hostframework::syncAnchorExpired()) << i;
        }
    }
    waitUntilStopped();
}

TEST_F(ChangesOfLocalFileEnumerator, AnAnchorOfAnotherVolumeExpires) {
    const auto enumerator = makeForFolder();
    auto token = tokenSince(10);
    token.deviceUUID = kOtherVolume;
    EXPECT_EQ(ask(*enumerator, token.encode())->error(), hostframework::syncAnchorExpired());
    EXPECT_EQ(
        newLines(),
        (Lines{"[DEBUG] ┏ enumerate changes for " + enumerator->container() + " with token " + token.description(),
               "[DEBUG] device UUID changed (" + kOtherVolume.text() + " -> " + kVolume.text() + ")", "[DEBUG] ┗"}));
}

TEST_F(ChangesOfLocalFileEnumerator, WithoutAVolumeIdentityTheRequestFails) {
    const auto enumerator = makeForFolder();
    events_.setDeviceUUID(std::nullopt);
    const auto recorder = ask(*enumerator, tokenSince(10).encode());
    ASSERT_TRUE(recorder->error().has_value());
    EXPECT_EQ(recorder->error()->domain, ErrorDomain::deviceUUID);
    EXPECT_EQ(linesAbout("can't get volume UUID for"),
              Lines{"[ERROR] can't get volume UUID for " + device_.url("watched").path()});
}

TEST_F(ChangesOfLocalFileEnumerator, AFolderThatLeftItsPathToAnotherOneIsNotMistakenForIt) {
    const auto enumerator = makeForFolder();
    ASSERT_EQ(std::rename(device_.path("watched").c_str(), device_.path("moved").c_str()), 0);
    makeFolder("watched");
    const auto recorder = ask(*enumerator, tokenSince(10).encode());
    ASSERT_TRUE(recorder->error().has_value());
    EXPECT_EQ(recorder->error()->domain, ErrorDomain::deviceUUID);
    EXPECT_EQ(recorder->reports(), Lines{});
}

TEST_F(ChangesOfLocalFileEnumerator, AFinishTakesTheEnumerationOutWhateverComes) {
    const auto enumerator = make(hostframework::kRootContainer);
    events_.setHistory({deletions(11, 250), {historyDoneEvent(500)}});
    const auto first = ask(*enumerator, tokenSince(10).encode());
    EXPECT_TRUE(first->moreComing());
    waitUntilRemoved(*enumerator);
    events_.setHistory({{historyDoneEvent(500)}});
    EXPECT_FALSE(ask(*enumerator, first->anchor())->moreComing());
    waitUntilRemoved(*enumerator);
    events_.setHistory({{eventWithFlags(11, events::kEventUserDropped)}});
    EXPECT_TRUE(ask(*enumerator, tokenSince(10).encode())->error().has_value());
    waitUntilRemoved(*enumerator);
    waitUntilStopped();
}

TEST_F(ChangesOfLocalFileEnumerator, SeveralRequestsRunAtOnceAndStopEndsThem) {
    const auto enumerator = makeForFolder();
    events_.setHistory({{deletion(11, 5)}});
    auto first = std::make_shared<ChangeRecorder>(), second = std::make_shared<ChangeRecorder>();
    enumerator->enumerateChangesForObserver(first, tokenSince(10).encode());
    enumerator->enumerateChangesForObserver(second, tokenSince(10).encode());
    EXPECT_EQ(enumerator->enumerators().size(), 2u);
    for (int i = 0; i < 1000 && events_.runningStreams() < 2; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(events_.runningStreams(), 2u);
    const auto running = enumerator->enumerators();
    enumerator->retire();
    EXPECT_EQ(events_.runningStreams(), 2u);
    enumerator->invalidate();
    waitUntilStopped();
    events_.play({historyDoneEvent(500)});
    EXPECT_EQ(first->finishes() + second->finishes(), 0);
    for (const auto& one : running) enumerator->removeEnumerator(one);
}

TEST_F(ChangesOfLocalFileEnumerator, OnlyTheWorkingSetHasItsFileIDsUpdated) {
    makeFile("a");
    events_.setHistory({{change(11, "a")}, {historyDoneEvent(500)}});
    ask(*make(hostframework::kWorkingSetContainer), tokenSince(10).encode());
    EXPECT_EQ(linesAbout("updating file ID"), Lines{"[DEBUG] updating file ID in genstore"});
    ask(*make(hostframework::kRootContainer), tokenSince(10).encode());
    EXPECT_EQ(linesAbout("updating file ID"), Lines{});
    waitUntilStopped();
}

}  // namespace
}  // namespace tarnwell::fs
