#include "fs/FSEventReader.h"

#include <cerrno>
#include <chrono>

#include "items/TarnwellError.h"
#include "tests/fs/FSFixture.h"

namespace tarnwell::fs {
namespace {

using testing::eventAt;
using testing::eventWithFlags;
using testing::historyDoneEvent;
using Lines = std::vector<std::string>;
using Refusal = testing::ScriptedFileEventService::Refusal;

class FSEventReaderTest : public FSTest {
protected:
    std::shared_ptr<FSEventReader> makeReader(FSEventReader::Configuration configuration) {
        return makeReader(environment_, std::move(configuration));
    }
    std::shared_ptr<FSEventReader> makeReader(const FSEnvironment& environment,
                                              FSEventReader::Configuration configuration) {
        if (configuration.urls.empty()) configuration.urls = {device_.url()};
        auto reader = FSEventReader::create(environment, std::move(configuration));
        delegate_->watch(reader);
        reader->setDelegate(delegate_);
        return reader;
    }
    static void start(const std::shared_ptr<FSEventReader>& reader) {
        reader->streamQueue()->sync([&] { reader->start(); });
    }
    static void stop(const std::shared_ptr<FSEventReader>& reader) {
        reader->streamQueue()->sync([&] { reader->stop(); });
    }
    static void drain(const std::shared_ptr<FSEventReader>& reader) {
        reader->streamQueue()->sync([] {});
    }
    static EventID lastProcessed(const std::shared_ptr<FSEventReader>& reader) {
        return reader->streamQueue()->sync([&] { return reader->lastProcessedFSEventID(); });
    }
    std::string description(std::uint64_t since, const std::string& mode = "pathBased") const {
        return "<FSEventReader since:" + std::to_string(since) + " urls:[" + device_.url().text() + "] mode:" + mode +
               ">";
    }
    /// The lines of one batch, in between the line that counts it.
    Lines linesOfBatch(std::size_t count) {
        auto lines = newLines();
        const std::string first = "[DEBUG] fsevent: received " + std::to_string(count) + " events";
        EXPECT_FALSE(lines.empty());
        if (lines.empty()) return lines;
        EXPECT_EQ(lines.front(), first);
        lines.erase(lines.begin());
        return lines;
    }

    std::shared_ptr<RecordingDelegate> delegate_ = std::make_shared<RecordingDelegate>();
};

TEST_F(FSEventReaderTest, PathModeOpensAStreamOverTheFolders) {
    auto reader = makeReader({.urls = {device_.url(), device_.url("a")}, .since = EventID{7}});
    start(reader);
    const auto streams = events_.streams();
    ASSERT_EQ(streams.size(), 1u);
    const auto& options = streams[0].options;
    ASSERT_TRUE(std::holds_alternative<events::StreamOverPaths>(options.over));
    EXPECT_EQ(std::get<events::StreamOverPaths>(options.over).folders,
              (std::vector<URL>{device_.url(), device_.url("a")}));
    EXPECT_EQ(options.since, EventID{7});
    EXPECT_EQ(options.latency, std::chrono::milliseconds(500));
    EXPECT_EQ(options.flags, 0x51u);
    EXPECT_EQ(options.interest, events::Interest::everything);
    EXPECT_EQ(streams[0].queueLabel, "tarnwell.fsevents-stream");
    EXPECT_TRUE(streams[0].started);
    EXPECT_EQ(newLines(), Lines{"[DEBUG] starting <FSEventReader since:7 urls:[" + device_.url().text() + ", " +
                                device_.url("a").text() + "] mode:pathBased>"});
    stop(reader);
}

TEST_F(FSEventReaderTest, DocumentIDModeOpensAStreamRelativeToTheDevice) {
    auto reader = makeReader({.since = EventID{3}, .mode = FSEventReader::Mode::docIDBased});
    start(reader);
    const auto streams = events_.streams();
    ASSERT_EQ(streams.size(), 1u);
    ASSERT_TRUE(std::holds_alternative<events::StreamOverDevice>(streams[0].options.over));
    const auto& over = std::get<events::StreamOverDevice>(streams[0].options.over);
    EXPECT_EQ(over.device, device_.device());
    EXPECT_EQ(over.path, "/.docid");
    EXPECT_EQ(newLines(), Lines{"[DEBUG] starting " + description(3, "docIDBased")});
    stop(reader);
}

TEST_F(FSEventReaderTest, TheInterestReachesTheStream) {
    auto reader = makeReader({.interest = events::Interest::departuresOnly});
    start(reader);
    EXPECT_EQ(events_.streams().at(0).options.interest, events::Interest::departuresOnly);
    stop(reader);
}

TEST_F(FSEventReaderTest, AnExistingObjectIsReportedAsChanged) {
    makeFile("a.txt");
    makeFolder("folder");
    auto reader = makeReader({});
    start(reader);
    newLines();
    events_.play({eventAt(1, pathOf("a.txt")), eventAt(2, pathOf("folder"))});
    EXPECT_EQ(linesOfBatch(2), (Lines{"[DEBUG] did change " + device_.url("a.txt").text(),
                                      "[DEBUG] did change " + device_.url("folder").text()}));
    EXPECT_EQ(delegate_->takeCalls(),
              (Lines{"changed " + pathOf("a.txt") + " " + identifierOf("a.txt"),
                     "changed " + pathOf("folder") + " " + identifierOf("folder"), "batch finished"}));
    stop(reader);
}

TEST_F(FSEventReaderTest, NothingAtThePathIsADeletionUnderTheIdentifierOfTheEvent) {
    auto reader = makeReader({});
    start(reader);
    newLines();
    auto both = eventAt(3, pathOf("gone3"), DocumentID{44});
    both.fileID = FileID{9};
    events_.play({eventAt(1, pathOf("gone1"), DocumentID{42}), eventAt(2, pathOf("gone2"), FileID{7}), both});
    EXPECT_EQ(linesOfBatch(3), (Lines{"[DEBUG] did delete " + device_.url("gone1").text(),
                                      "[DEBUG] did delete " + device_.url("gone2").text(),
                                      "[DEBUG] did delete " + device_.url("gone3").text()}));
    EXPECT_EQ(delegate_->takeCalls(),
              (Lines{"deleted " + pathOf("gone1") + " did=42", "deleted " + pathOf("gone2") + " fid=7",
                     "deleted " + pathOf("gone3") + " did=44", "batch finished"}));
    stop(reader);
}

TEST_F(FSEventReaderTest, APathBelowWhatIsNoFolderAnyMoreIsADeletion) {
    makeFile("wasFolder");
    auto reader = makeReader({});
    start(reader);
    events_.play({eventAt(1, pathOf("wasFolder/inner"), DocumentID{42})});
    EXPECT_EQ(delegate_->takeCalls(), (Lines{"deleted " + pathOf("wasFolder/inner") + " did=42", "batch finished"}));
    stop(reader);
}

TEST_F(FSEventReaderTest, ALinkThatLeadsNowhereIsAnObjectAtItsPath) {
    ASSERT_EQ(::symlink("nowhere", device_.path("link").c_str()), 0);
    auto reader = makeReader({});
    start(reader);
    events_.play({eventAt(1, pathOf("link"))});
    const auto calls = delegate_->takeCalls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_TRUE(calls[0].starts_with("changed " + pathOf("link") + " fid="));
    stop(reader);
}

TEST_F(FSEventReaderTest, EventsThatDoNotCountAreDroppedWithTheirReason) {
    makeFolder("watched");
    makeFile("watched/.hidden");
    makeFile("watched/.folder/inner");
    makeFile("watched/.Trash/inner");
    makeFile("elsewhere");
    makeFile("watched/other");
    makeFolder("watched/folder");
    const std::string document = identifierOf("watched/other");
    const std::string folder = identifierOf("watched/folder");
    const auto dropping = [&](const std::string& relative, const std::string& reason) {
        return "[DEBUG] dropping fsevent at " + device_.url(relative).text() + "; " + reason;
    };
    struct Row {
        events::FileEvent event;
        std::string line;
    };
    const std::vector<Row> rows{
        {eventAt(1, pathOf("watched/gone")),
         "[DEBUG] dropping fsevent at \"" + pathOf("watched/gone") + "\"; No object at path"},
        {eventAt(1, pathOf("watched/.hidden")), dropping("watched/.hidden", "URL is hidden")},
        {eventAt(1, pathOf("watched/.goneAndHidden"), DocumentID{5}),
         dropping("watched/.goneAndHidden", "URL is hidden")},
        {eventAt(1, pathOf("watched/.folder/inner")), dropping("watched/.folder/inner", "URL is hidden")},
        {eventAt(1, pathOf("watched/.Trash/inner")), dropping("watched/.Trash/inner", "URL is hidden")},
        {eventAt(1, pathOf("elsewhere")), dropping("elsewhere", "URL is not monitored")},
        {eventAt(1, pathOf("goneElsewhere"), DocumentID{5}), dropping("goneElsewhere", "URL is not monitored")},
        {eventAt(1, pathOf("watched")), dropping("watched", "URL is not monitored")},
        {eventAt(1, pathOf("watchedToo"), FileID{5}), dropping("watchedToo", "URL is not monitored")},
        {eventAt(1, "/outside/every/root", FileID{5}),
         "[DEBUG] dropping fsevent at file:///outside/every/root; URL is not monitored"},
        {eventAt(1, pathOf("watched/other"), DocumentID{4000000000}),
         dropping("watched/other", "fileObjectIDs don't match (" + document + " vs did=4000000000)")},
        {eventAt(1, pathOf("watched/other"), FileID{999999999}),
         dropping("watched/other", "fileObjectIDs don't match (" + document + " vs fid=999999999)")},
        {eventAt(1, pathOf("watched/folder"), FileID{999999999}),
         dropping("watched/folder", "fileObjectIDs don't match (" + folder + " vs fid=999999999)")},
    };
    auto reader = makeReader({.urls = {device_.url("watched")}});
    start(reader);
    newLines();
    for (const Row& row : rows) {
        SCOPED_TRACE(row.line);
        events_.play({row.event});
        EXPECT_EQ(linesOfBatch(1), Lines{row.line});
        EXPECT_EQ(delegate_->takeCalls(), Lines{"batch finished"});
    }
    stop(reader);
}

TEST_F(FSEventReaderTest, AnObjectThatGivesNoItemIsDropped) {
    makeFolder("Inbox");
    auto reader = makeReader({});
    start(reader);
    newLines();
    events_.play({eventAt(1, pathOf("Inbox"))});
    EXPECT_EQ(linesOfBatch(1),
              (Lines{"[DEBUG] can't create an item for the \"Inbox\" directory",
                     "[DEBUG] dropping fsevent at " + device_.url("Inbox").text() + "; can't create local item"}));
    EXPECT_EQ(delegate_->takeCalls(), Lines{"batch finished"});
    stop(reader);
}

TEST_F(FSEventReaderTest, WhatCannotBeLookedAtIsNoDeletion) {
    makeFile("a.txt");
    faultyFiles_.fail(testing::FaultyFileSystem::Operation::resourceValue, EACCES);
    auto reader = makeReader(faultyEnvironment_, {});
    start(reader);
    events_.play({eventAt(1, pathOf("a.txt"), DocumentID{5})});
    EXPECT_EQ(delegate_->takeCalls(), Lines{"batch finished"});
    EXPECT_TRUE(device_.log().contains("[DEBUG] dropping fsevent at " + device_.url("a.txt").text() +
                                       "; can't create local item"));
    stop(reader);
}

TEST_F(FSEventReaderTest, AnObjectMatchesByEitherNumberOfTheEvent) {
    makeFile("a.txt");
    makeFolder("folder");
    const auto document = documentIDOf("a.txt");
    auto safeSaved = eventAt(3, pathOf("a.txt"), document);
    safeSaved.fileID = FileID{999999999};
    auto noDocumentAnyMore = eventAt(5, pathOf("folder"), DocumentID{4000000000});
    noDocumentAnyMore.fileID = fileIDOf("folder");
    auto reader = makeReader({});
    start(reader);
    events_.play({eventAt(1, pathOf("a.txt"), document), eventAt(2, pathOf("a.txt"), fileIDOf("a.txt")), safeSaved,
                  eventAt(4, pathOf("folder"), fileIDOf("folder")), noDocumentAnyMore});
    const std::string file = "changed " + pathOf("a.txt") + " " + identifierOf("a.txt");
    const std::string folder = "changed " + pathOf("folder") + " " + identifierOf("folder");
    EXPECT_EQ(delegate_->takeCalls(), (Lines{file, file, file, folder, folder, "batch finished"}));
    stop(reader);
}

TEST_F(FSEventReaderTest, WhatIsKnownAndNotFoundIsToldOfAgainInsteadOfDeleted) {
    makeFile("other");
    const FileID onItsWay{4711}, gone{4712}, replaced{4713};
    events_.knowObjects({onItsWay, replaced});
    auto removed = eventAt(3, pathOf("removed"), onItsWay);
    removed.flags = events::kEventItemRemoved;
    auto reader = makeReader({});
    start(reader);
    newLines();
    events_.play({eventAt(1, pathOf("moving"), onItsWay), eventAt(2, pathOf("gone"), gone), removed,
                  eventAt(4, pathOf("other"), replaced)});
    EXPECT_EQ(delegate_->takeCalls(), (Lines{"deleted " + pathOf("gone") + " fid=4712",
                                             "deleted " + pathOf("removed") + " fid=4711", "batch finished"}));
    EXPECT_EQ(events_.objectsToTellAgain(), (std::vector<FileID>{onItsWay, replaced}));
    EXPECT_EQ(linesOfBatch(4).front(),
              "[DEBUG] dropping fsevent at " + device_.url("moving").text() + "; No object at path");
    stop(reader);
}

TEST_F(FSEventReaderTest, ALinkIsNotTheObjectThatItLeadsTo) {
    makeFolder("moved");
    const FileID departed = fileIDOf("moved");
    ASSERT_EQ(std::rename(device_.path("moved").c_str(), device_.path(".moved").c_str()), 0);
    ASSERT_EQ(::symlink(".moved", device_.path("moved").c_str()), 0);
    auto removed = eventAt(1, pathOf("moved"), departed);
    removed.flags = events::kEventItemRemoved;
    auto reader = makeReader({});
    start(reader);
    events_.play({removed});
    EXPECT_EQ(delegate_->takeCalls(),
              (Lines{"deleted " + pathOf("moved") + " fid=" + std::to_string(raw(departed)), "batch finished"}));
    stop(reader);
}

TEST_F(FSEventReaderTest, TheTrashOfARootIsVisible) {
    makeFile(".Trash/a.txt");
    makeFile(".Trash/.hidden");
    auto reader = makeReader({});
    start(reader);
    events_.play(
        {eventAt(1, pathOf(".Trash/a.txt")), eventAt(2, pathOf(".Trash/.hidden")), eventAt(3, pathOf(".Trash"))});
    EXPECT_EQ(delegate_->takeCalls(),
              (Lines{"changed " + pathOf(".Trash/a.txt") + " " + identifierOf(".Trash/a.txt"),
                     "changed " + pathOf(".Trash") + " " + identifierOf(".Trash"), "batch finished"}));
    stop(reader);
}

TEST_F(FSEventReaderTest, ConditionsOfTheStreamAreReportedInTheirOrder) {
    struct Row {
        std::uint32_t flags;
        bool verbose;
        Lines lines;
        Lines calls;
    };
    using namespace events;
    const std::string wrapped = "[INFO] fsevents id wrapped";
    const std::string dropped = "[INFO] dropped fsevents";
    const std::string done = "[DEBUG] done processing history";
    const std::vector<Row> rows{
        {kEventIDsWrapped, false, {wrapped}, {"dropped", "batch finished"}},
        {kEventIDsWrapped | kEventUserDropped | kEventKernelDropped | kEventHistoryDone,
         true,
         {wrapped},
         {"dropped", "batch finished"}},
        {kEventUserDropped, false, {}, {"dropped", "batch finished"}},
        {kEventKernelDropped, false, {}, {"dropped", "batch finished"}},
        {kEventUserDropped, true, {dropped}, {"dropped", "batch finished"}},
        {kEventKernelDropped | kEventHistoryDone, true, {dropped}, {"dropped", "batch finished"}},
        {kEventHistoryDone, false, {done}, {"history done", "batch finished"}},
        {kEventHistoryDone | kEventItemRemoved, false, {done}, {"history done", "batch finished"}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE("flags " + std::to_string(row.flags) + (row.verbose ? " verbose" : ""));
        auto reader = makeReader({.verbose = row.verbose});
        start(reader);
        newLines();
        events_.play({eventWithFlags(9, row.flags)});
        auto lines = linesOfBatch(1);
        if (row.verbose) {
            ASSERT_FALSE(lines.empty());
            EXPECT_EQ(lines.front(), "[DEBUG] fsevents:");
            lines.erase(lines.begin());
        }
        EXPECT_EQ(lines, row.lines);
        EXPECT_EQ(delegate_->takeCalls(), row.calls);
        stop(reader);
    }
}

TEST_F(FSEventReaderTest, ConditionsNeedNoPathButItemEventsDo) {
    auto reader = makeReader({});
    start(reader);
    newLines();
    events_.play({historyDoneEvent(1), eventWithFlags(2, events::kEventItemModified)});
    EXPECT_EQ(linesOfBatch(2),
              (Lines{"[DEBUG] done processing history", "[ERROR] ignore event 1 because no path can be extracted"}));
    EXPECT_EQ(delegate_->takeCalls(), (Lines{"history done", "batch finished"}));
    stop(reader);
}

TEST_F(FSEventReaderTest, AVerboseReaderLogsEveryEventWithAPath) {
    auto reader = makeReader({.verbose = true});
    start(reader);
    newLines();
    events_.play({eventAt(4, pathOf("x"), FileID{3}), historyDoneEvent(5), eventAt(6, pathOf("y"), DocumentID{8})});
    EXPECT_EQ(linesOfBatch(3),
              (Lines{"[DEBUG] fsevents: \"" + pathOf("x") + "\" fileID:3 eventID:4, \"" + pathOf("y") +
                         "\" fileID:unspecified eventID:6",
                     "[DEBUG] did delete " + device_.url("x").text(), "[DEBUG] done processing history",
                     "[DEBUG] did delete " + device_.url("y").text()}));
    stop(reader);
}

TEST_F(FSEventReaderTest, AnEmptyBatchIsStillABatch) {
    auto reader = makeReader({});
    start(reader);
    newLines();
    events_.play({});
    EXPECT_EQ(linesOfBatch(0), Lines{});
    EXPECT_EQ(delegate_->takeCalls(), Lines{"batch finished"});
    stop(reader);
}

TEST_F(FSEventReaderTest, TheLastProcessedEventIDAdvancesWithEveryEventAndNeverGoesBack) {
    auto reader = makeReader({.since = EventID{10}});
    EXPECT_EQ(lastProcessed(reader), EventID{10});
    start(reader);
    events_.play({eventAt(12, pathOf("dropped"))});
    EXPECT_EQ(lastProcessed(reader), EventID{12});
    events_.play({historyDoneEvent(20)});
    EXPECT_EQ(lastProcessed(reader), EventID{20});
    events_.play({eventWithFlags(1, events::kEventIDsWrapped)});
    EXPECT_EQ(lastProcessed(reader), EventID{20});
    stop(reader);
}

TEST_F(FSEventReaderTest, StoppingReleasesTheStreamAndStartingAgainGoesOnWhereItWas) {
    auto reader = makeReader({.since = EventID{10}});
    start(reader);
    events_.play({historyDoneEvent(15)});
    newLines();
    stop(reader);
    EXPECT_EQ(newLines(), Lines{"[DEBUG] stopped " + description(15)});
    auto stream = events_.streams().at(0);
    EXPECT_TRUE(stream.stopped && stream.invalidated && stream.destroyed);

    start(reader);
    EXPECT_EQ(newLines(), Lines{"[DEBUG] starting " + description(15)});
    ASSERT_EQ(events_.streams().size(), 2u);
    EXPECT_EQ(events_.streams()[1].options.since, EventID{15});
    stop(reader);
}

TEST_F(FSEventReaderTest, StartingTwiceAndStoppingTwiceDoNothingMore) {
    auto reader = makeReader({});
    stop(reader);
    EXPECT_EQ(newLines(), Lines{});
    start(reader);
    start(reader);
    EXPECT_EQ(events_.streams().size(), 1u);
    stop(reader);
    newLines();
    stop(reader);
    EXPECT_EQ(newLines(), Lines{});
}

TEST_F(FSEventReaderTest, NothingIsReportedAfterAStop) {
    auto reader = makeReader({});
    start(reader);
    stop(reader);
    newLines();
    events_.play({historyDoneEvent(1)});
    EXPECT_EQ(newLines(), Lines{});
    EXPECT_EQ(delegate_->takeCalls(), Lines{});
}

TEST_F(FSEventReaderTest, AReaderDestroyedWhileStartedSaysSoAndReleasesItsStream) {
    auto reader = makeReader({.since = EventID{4}});
    start(reader);
    newLines();
    reader.reset();
    EXPECT_EQ(newLines(), Lines{"[ERROR] stream deleted without being stopped; " + description(4)});
    auto stream = events_.streams().at(0);
    EXPECT_TRUE(stream.stopped && stream.invalidated && stream.destroyed);
    events_.play({historyDoneEvent(5)});
    EXPECT_EQ(delegate_->takeCalls(), Lines{});
}

/// Lets go of the reader, or stops it, in the middle of a batch.
class ReleasingDelegate : public RecordingDelegate {
public:
    enum class Act { release, stop };
    ReleasingDelegate(std::shared_ptr<FSEventReader>& reader, Act act) : reader_(reader), act_(act) {}
    void historyDone() override {
        RecordingDelegate::historyDone();
        if (act_ == Act::release) reader_.reset();
        if (act_ == Act::stop) reader_->stop();
    }

private:
    std::shared_ptr<FSEventReader>& reader_;
    const Act act_;
};

TEST_F(FSEventReaderTest, AReaderMayGoOrStopInsideItsOwnCallback) {
    for (auto act : {ReleasingDelegate::Act::release, ReleasingDelegate::Act::stop}) {
        auto reader = FSEventReader::create(environment_, {.urls = {device_.url()}});
        auto delegate = std::make_shared<ReleasingDelegate>(reader, act);
        delegate->watch(reader);
        reader->setDelegate(delegate);
        const auto queue = reader->streamQueue();
        start(reader);
        events_.play({historyDoneEvent(1), eventAt(2, pathOf("gone"), FileID{3})});
        queue->sync([] {});
        EXPECT_EQ(delegate->takeCalls(),
                  (Lines{"history done", "deleted " + pathOf("gone") + " fid=3", "batch finished"}));
        const auto stream = events_.streams().back();
        EXPECT_TRUE(stream.stopped && stream.invalidated && stream.destroyed);
    }
}

TEST_F(FSEventReaderTest, AReaderWhoseDelegateIsGoneReadsOn) {
    auto reader = makeReader({});
    start(reader);
    delegate_.reset();
    newLines();
    events_.play({historyDoneEvent(1)});
    EXPECT_EQ(linesOfBatch(1), Lines{"[DEBUG] done processing history"});
    stop(reader);
}

TEST_F(FSEventReaderTest, AStreamThatCannotBeCreatedStopsTheProcess) {
    events_.refuseStreams(Refusal::create);
    auto reader = makeReader({});
    EXPECT_DEATH(start(reader), "can't create the stream of <FSEventReader");
}

TEST_F(FSEventReaderTest, AStreamThatDoesNotStartIsToldAsDroppedEvents) {
    events_.refuseStreams(Refusal::start);
    auto reader = makeReader({});
    start(reader);
    drain(reader);
    EXPECT_EQ(newLines(), (Lines{"[DEBUG] starting " + description(0),
                                 "[ERROR] can't start " + description(0) + "; the stream refused"}));
    EXPECT_EQ(delegate_->takeCalls(), (Lines{"dropped", "batch finished"}));
    EXPECT_TRUE(events_.streams().at(0).destroyed);
}

TEST_F(FSEventReaderTest, AStorageWithoutADeviceIsToldAsDroppedEvents) {
    faultyFiles_.fail(testing::FaultyFileSystem::Operation::deviceID, EIO);
    auto reader = makeReader(faultyEnvironment_, {.mode = FSEventReader::Mode::docIDBased});
    start(reader);
    drain(reader);
    EXPECT_EQ(newLines(),
              (Lines{"[DEBUG] starting " + description(0, "docIDBased"),
                     "[ERROR] can't start " + description(0, "docIDBased") + "; " + describe(posixError(EIO))}));
    EXPECT_EQ(delegate_->takeCalls(), (Lines{"dropped", "batch finished"}));
    EXPECT_TRUE(events_.streams().empty());
}

TEST_F(FSEventReaderTest, StartOffItsQueueStopsTheProcess) {
    auto reader = makeReader({});
    EXPECT_DEATH(reader->start(), "not on the queue");
}

TEST_F(FSEventReaderTest, TheDeviceUUIDIsTheOneOfTheDeviceThatHoldsTheURL) {
    EXPECT_EQ(FSEventReader::deviceUUID(environment_, device_.url()).value(), kVolume);
    const Error noUUID = items::makeError(items::DeviceUUIDError::unableToGetDeviceUUID);
    EXPECT_EQ(FSEventReader::deviceUUID(environment_, device_.url("gone")).error(), noUUID);
    events_.setDeviceUUID(std::nullopt);
    EXPECT_EQ(FSEventReader::deviceUUID(environment_, device_.url()).error(), noUUID);
}

// Document-ID mode.

/// A generation store in which one document is another file than it is.
class MistakenGenerationStore : public store::GenerationStoreManager {
public:
    MistakenGenerationStore(store::GenerationStoreManager& real, DocumentID document, FileID file)
        : real_(real), document_(document), file_(file) {}
    Result<DocumentID> getOrAllocateDocumentID(const Descriptor& descriptor) override {
        return real_.getOrAllocateDocumentID(descriptor);
    }
    Result<std::optional<DocumentID>> permanentStorage(const URL& url) override { return real_.permanentStorage(url); }
    Result<FileID> fileIDForDocumentID(DocumentID document, DeviceID device) override {
        if (document == document_) return file_;
        return real_.fileIDForDocumentID(document, device);
    }
    URL documentStorageFolder() const override { return real_.documentStorageFolder(); }

private:
    store::GenerationStoreManager& real_;
    const DocumentID document_;
    const FileID file_;
};

class DocumentIDReaderTest : public FSEventReaderTest {
protected:
    std::string changePath(std::uint64_t document) const {
        return "/.docid/517/changed/" + std::to_string(document) + "/src=445,dst=460";
    }
    static constexpr FSEventReader::Mode kMode = FSEventReader::Mode::docIDBased;
};

TEST_F(DocumentIDReaderTest, ADocumentThatLivesIsReportedWhereItIs) {
    makeFile("a.txt");
    const auto document = raw(documentIDOf("a.txt"));
    ASSERT_EQ(std::rename(device_.path("a.txt").c_str(), device_.path("b.txt").c_str()), 0);
    device_.settle();
    auto reader = makeReader({.mode = kMode});
    start(reader);
    newLines();
    events_.play({eventAt(1, changePath(document))});
    EXPECT_EQ(linesOfBatch(1), Lines{"[DEBUG] did change " + device_.url("b.txt").text()});
    EXPECT_EQ(delegate_->takeCalls(),
              (Lines{"changed " + pathOf("b.txt") + " did=" + std::to_string(document), "batch finished"}));
    stop(reader);
}

TEST_F(DocumentIDReaderTest, ADocumentThatLeadsNowhereIsADeletion) {
    auto reader = makeReader({.mode = kMode});
    start(reader);
    events_.play({eventAt(1, changePath(4000000000))});
    EXPECT_EQ(delegate_->takeCalls(),
              (Lines{"deleted " + changePath(4000000000) + " did=4000000000", "batch finished"}));
    EXPECT_TRUE(device_.log().contains("[DEBUG] did delete " + URL::file(changePath(4000000000)).text()));
    stop(reader);
}

TEST_F(DocumentIDReaderTest, PathsOfAnotherFormAreErrors) {
    auto reader = makeReader({.mode = kMode});
    start(reader);
    newLines();
    for (const std::string& path : {std::string("/elsewhere"), changePath(1) + "x", std::string("/.docid/changed/")}) {
        SCOPED_TRACE(path);
        events_.play({eventAt(1, path)});
        EXPECT_EQ(linesOfBatch(1), Lines{"[ERROR] can't parse docID path \"" + path +
                                         "\"; format expected is "
                                         "\"/.docid/$dev/changed/$docid/src=$src,dst=$dst\""});
        EXPECT_EQ(delegate_->takeCalls(), Lines{"batch finished"});
    }
    stop(reader);
}

TEST_F(DocumentIDReaderTest, NumbersThatNoDocumentCanHaveAreErrors) {
    auto reader = makeReader({.mode = kMode});
    start(reader);
    newLines();
    for (const std::uint64_t number : {std::uint64_t{0}, std::uint64_t{1} << 32}) {
        events_.play({eventAt(1, changePath(number))});
        EXPECT_EQ(linesOfBatch(1), Lines{"[ERROR] can't compute url for did=" + std::to_string(number)});
        EXPECT_EQ(delegate_->takeCalls(), Lines{"batch finished"});
    }
    stop(reader);
}

TEST_F(DocumentIDReaderTest, DocumentsThatDoNotCountAreDropped) {
    makeFile("watched/.hidden");
    makeFile("elsewhere");
    const auto hidden = raw(documentIDOf("watched/.hidden"));
    const auto elsewhere = raw(documentIDOf("elsewhere"));
    device_.settle();
    auto reader = makeReader({.urls = {device_.url("watched")}, .mode = kMode});
    start(reader);
    newLines();
    events_.play({eventAt(1, changePath(hidden)), eventAt(2, changePath(elsewhere))});
    EXPECT_EQ(linesOfBatch(2),
              (Lines{"[DEBUG] dropping fsevent at " + device_.url("watched/.hidden").text() + "; URL is hidden",
                     "[DEBUG] dropping fsevent at " + device_.url("elsewhere").text() + "; URL is not monitored"}));
    EXPECT_EQ(delegate_->takeCalls(), Lines{"batch finished"});
    stop(reader);
}

TEST_F(DocumentIDReaderTest, AFileThatIsAnotherDocumentIsDropped) {
    makeFile("a.txt");
    const std::string identifier = identifierOf("a.txt");
    MistakenGenerationStore store(device_.generationStore(), DocumentID{77777}, fileIDOf("a.txt"));
    items::Environment items{device_.programLog(), device_.files(), store, device_.providerManager()};
    FSEnvironment environment{items, events_, device_.pool()};
    auto reader = makeReader(environment, {.mode = kMode});
    start(reader);
    newLines();
    events_.play({eventAt(1, changePath(77777))});
    EXPECT_EQ(linesOfBatch(1), Lines{"[DEBUG] dropping fsevent at " + device_.url("a.txt").text() +
                                     "; fileObjectIDs don't match (" + identifier + " vs did=77777)"});
    EXPECT_EQ(delegate_->takeCalls(), Lines{"batch finished"});
    stop(reader);
}

}  // namespace
}  // namespace tarnwell::fs
