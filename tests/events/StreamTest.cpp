#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <semaphore>
#include <set>

#include "platform/dispatch/SerialQueue.h"
#include "testing/TestDevice.h"

namespace tarnwell::events {
namespace {

using testing::TestDevice;
using testing::writeFile;

/// Collects what a stream tells.
class Collector {
public:
    explicit Collector(TestDevice& device) : queue_(dispatch::SerialQueue::create(device.pool(), "test")) {}
    ~Collector() {
        if (stream_) queue_->sync([&] { stream_.reset(); });
    }
    void start(FileEventService& service, StreamOptions options) {
        auto made = service.createStream(std::move(options), [this](const std::vector<FileEvent>& events) {
            std::lock_guard lock(mutex_);
            events_.insert(events_.end(), events.begin(), events.end());
            changed_.notify_all();
        });
        ASSERT_TRUE(made.has_value());
        stream_ = std::move(*made);
        stream_->setQueue(queue_);
        queue_->sync([&] { EXPECT_TRUE(stream_->start()); });
    }
    /// Everything up to and with the first event that has one of the flags; fails after ten seconds.
    std::vector<FileEvent> until(std::uint32_t flags) {
        return untilTrue([&](const FileEvent& event) { return (event.flags & flags) != 0; });
    }
    template <typename F>
    std::vector<FileEvent> untilTrue(F&& isLast) {
        std::unique_lock lock(mutex_);
        bool came = changed_.wait_for(lock, std::chrono::seconds(10), [&] {
            for (const FileEvent& event : events_) {
                if (isLast(event)) return true;
            }
            return false;
        });
        EXPECT_TRUE(came) << "the awaited event did not come";
        return events_;
    }
    void clear() {
        std::lock_guard lock(mutex_);
        events_.clear();
    }

private:
    std::shared_ptr<dispatch::SerialQueue> queue_;
    std::unique_ptr<FileEventStream> stream_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<FileEvent> events_;
};

StreamOptions over(TestDevice& device, EventID since, const std::string& folder = "") {
    StreamOptions options;
    options.over = StreamOverPaths{{device.url(folder)}};
    options.since = since;
    options.latency = std::chrono::milliseconds(0);
    return options;
}

std::vector<std::string> told(TestDevice& device, const std::vector<FileEvent>& events) {
    std::vector<std::string> lines;
    std::uint64_t last = 0;
    for (const FileEvent& event : events) {
        EXPECT_GE(raw(event.id), last) << "IDs rise";
        last = raw(event.id);
        std::string line;
        if ((event.flags & kEventHistoryDone) != 0) {
            line = "history done";
        } else if ((event.flags & (kEventUserDropped | kEventKernelDropped)) != 0) {
            line = "dropped";
        } else {
            std::string root = device.url().path();
            line = ((event.flags & kEventItemRemoved) != 0 ? "- " : "+ ") + event.path->substr(root.size() + 1);
        }
        lines.push_back(line);
    }
    return lines;
}

std::vector<std::string> historySince(TestDevice& device, EventID since, const std::string& folder = "") {
    Collector collector(device);
    collector.start(device.events(), over(device, since, folder));
    return told(device, collector.until(kEventHistoryDone | kEventUserDropped));
}

using Lines = std::vector<std::string>;

TEST(Stream, WhatItsReaderDidNotFindIsToldOfAgain) {
    TestDevice device;
    writeFile(device.path("file"), "");
    EventID since = device.settle();
    const auto row = device.comparer().rowAt(*device.roots().locate(device.url("file").path()));
    ASSERT_TRUE(row);
    EXPECT_TRUE(device.events().tellAgain(row->fileID));
    EXPECT_EQ(historySince(device, since), (Lines{"+ file", "history done"}));
    EXPECT_FALSE(device.events().tellAgain(FileID{raw(row->fileID) + 1000})) << "nobody knows it";
    // What clients see no more is told of by the record of its end.
    ASSERT_EQ(std::rename(device.path("file").c_str(), device.path(".file").c_str()), 0);
    const EventID unseen = device.settle();
    EXPECT_TRUE(device.events().tellAgain(row->fileID));
    EXPECT_EQ(historySince(device, unseen), Lines{"history done"});
    ASSERT_EQ(::unlink(device.path(".file").c_str()), 0);
    device.settle();
    EXPECT_TRUE(device.events().tellAgain(row->fileID));
    EXPECT_EQ(historySince(device, since), (Lines{"- file", "history done"}));
}

TEST(Stream, WhatLiesBelowARootIsToldAnewToReadersWhoDidNotHearOfIt) {
    TestDevice device;
    std::filesystem::create_directories(device.path("folder/deep"));
    writeFile(device.path("folder/deep/file"), "");
    writeFile(device.path("folder/.hidden"), "");
    const EventID since = device.settle();
    EXPECT_EQ(historySince(device, since), Lines{"history done"});
    writeFile(device.path("new"), "");
    const EventID now = device.settle();
    ASSERT_TRUE(device.events().tellContents({device.url()}, since));
    // What such a reader hears of anyway is left where it is.
    EXPECT_EQ(historySince(device, since),
              (Lines{"+ new", "+ folder", "+ folder/deep", "+ folder/deep/file", "history done"}));
    EXPECT_EQ(historySince(device, now), (Lines{"+ folder", "+ folder/deep", "+ folder/deep/file", "history done"}));
    const EventID after = device.settle();
    ASSERT_TRUE(device.events().tellContents({device.url()}, since));
    ASSERT_TRUE(device.events().tellContents({device.url("folder")}, after)) << "no root";
    ASSERT_TRUE(device.events().tellContents({device.url()}, EventID{raw(after) + 1'000'000})) << "a future position";
    EXPECT_EQ(historySince(device, after), Lines{"history done"});
}

TEST(Stream, HistoryTellsEachChangedObjectOnceInTheOrderOfItsLastChange) {
    TestDevice device;
    writeFile(device.path("kept"), "");
    writeFile(device.path("removed"), "");
    EventID since = device.settle();
    writeFile(device.path("new"), "");
    device.settle();
    writeFile(device.path("kept"), "longer");
    device.settle();
    writeFile(device.path("new"), "longer");
    ASSERT_EQ(0, unlink(device.path("removed").c_str()));
    auto lines = historySince(device, since);
    ASSERT_EQ(4u, lines.size());
    EXPECT_EQ("+ kept", lines[0]);
    EXPECT_EQ((std::set<std::string>{"+ new", "- removed"}), (std::set<std::string>{lines[1], lines[2]}));
    EXPECT_EQ("history done", lines[3]);
    EXPECT_EQ((Lines{"history done"}), historySince(device, device.settle()));
}

TEST(Stream, HistoryIsTheSameAfterANewStart) {
    TestDevice device;
    writeFile(device.path("a"), "");
    EventID since = device.settle();
    device.restart();
    ASSERT_EQ(0, rename(device.path("a").c_str(), device.path("b").c_str()));
    writeFile(device.path("c"), "");
    device.restart();
    auto lines = historySince(device, since);
    std::sort(lines.begin(), lines.end());
    EXPECT_EQ((Lines{"+ b", "+ c", "history done"}), lines);
}

TEST(Stream, AChangeWhoseCallReturnedBeforeTheStartIsTold) {
    TestDevice device;
    for (int round = 0; round < 200; ++round) {
        EventID since = device.settle();
        writeFile(device.path("file"), std::string(static_cast<std::size_t>(round + 1), 'x'));
        auto lines = historySince(device, since);
        ASSERT_EQ((Lines{"+ file", "history done"}), lines) << "round " << round;
    }
}

TEST(Stream, ARemovedFolderTellsOfAllThatLayInItDeepestFirst) {
    TestDevice device;
    testing::makeDirectories(device.path("one/two"));
    writeFile(device.path("one/two/file"), "");
    EventID since = device.settle();
    std::filesystem::remove_all(device.path("one"));
    EXPECT_EQ((Lines{"- one/two/file", "- one/two", "- one", "history done"}), historySince(device, since));
}

TEST(Stream, WhatLeftTheFoldersIsADeletionThereAndAChangeElsewhere) {
    TestDevice device;
    testing::makeDirectories(device.path("from"));
    testing::makeDirectories(device.path("to"));
    writeFile(device.path("from/file"), "");
    EventID since = device.settle();
    ASSERT_EQ(0, rename(device.path("from/file").c_str(), device.path("to/file").c_str()));
    device.settle();
    EXPECT_EQ((Lines{"- from/file", "history done"}), historySince(device, since, "from"));
    EXPECT_EQ((Lines{"+ to/file", "history done"}), historySince(device, since, "to"));
    auto both = historySince(device, since);
    EXPECT_EQ(1, std::count(both.begin(), both.end(), "+ to/file"));
    EXPECT_EQ(0, std::count(both.begin(), both.end(), "- from/file"));
}

TEST(Stream, HiddenThingsAreNotTold) {
    TestDevice device;
    testing::makeDirectories(device.path("Inbox"));
    testing::makeDirectories(device.path("sub/Inbox"));
    testing::makeDirectories(device.path(".Trash"));
    EventID since = device.settle();
    writeFile(device.path(".hidden"), "");
    writeFile(device.path("Inbox/mail"), "");
    writeFile(device.path("sub/Inbox/shown"), "");
    writeFile(device.path(".Trash/trashed"), "");
    writeFile(device.path(".Trash/.hidden"), "");
    auto lines = historySince(device, since);
    for (const char* shown : {"+ sub/Inbox/shown", "+ .Trash/trashed"}) {
        EXPECT_EQ(1, std::count(lines.begin(), lines.end(), shown)) << shown;
    }
    for (const std::string& line : lines) {
        EXPECT_EQ(std::string::npos, line.find("hidden")) << line;
        EXPECT_EQ(std::string::npos, line.find("mail")) << line;
    }
    since = device.settle();
    ASSERT_EQ(0, rename(device.path("sub").c_str(), device.path(".sub").c_str()));
    EXPECT_EQ((Lines{"- sub/Inbox/shown", "- sub/Inbox", "- sub", "history done"}), historySince(device, since));
    since = device.settle();
    ASSERT_EQ(0, rename(device.path(".sub").c_str(), device.path("sub").c_str()));
    EXPECT_EQ((Lines{"+ sub", "+ sub/Inbox", "+ sub/Inbox/shown", "history done"}), historySince(device, since));
}

TEST(Stream, DepartureCarriesTheIdentifiersThatClientsKnow) {
    TestDevice device;
    writeFile(device.path("file"), "");
    testing::makeDirectories(device.path("folder"));
    EventID since = device.settle();
    auto file = device.files().resourceValue(device.url("file"), files::ResourceKey::documentID).value();
    auto folder = device.files().resourceValue(device.url("folder"), files::ResourceKey::fileID).value();
    ASSERT_EQ(0, unlink(device.path("file").c_str()));
    ASSERT_EQ(0, rmdir(device.path("folder").c_str()));
    Collector collector(device);
    collector.start(device.events(), over(device, since));
    for (const FileEvent& event : collector.until(kEventHistoryDone)) {
        if (!event.path) continue;
        bool isFile = event.path->ends_with("/file");
        EXPECT_EQ(isFile, event.documentID.has_value());
        if (isFile) {
            EXPECT_EQ(std::get<std::uint64_t>(file), raw(*event.documentID));
        } else {
            EXPECT_EQ(std::get<std::uint64_t>(folder), raw(*event.fileID));
        }
    }
}

TEST(Stream, APositionOfTheFutureOrFromALostRangeIsDropped) {
    TestDevice device;
    writeFile(device.path("a"), "");
    EventID now = device.settle();
    EXPECT_EQ((Lines{"dropped"}), historySince(device, EventID{raw(now) + 1}));
    EXPECT_EQ((Lines{"dropped"}), historySince(device, EventID{~std::uint64_t{0}}));
    EXPECT_EQ((Lines{"history done"}), historySince(device, now));
}

TEST(Stream, LiveBatchesFollowTheHistory) {
    TestDevice device;
    EventID since = device.settle();
    Collector collector(device);
    collector.start(device.events(), over(device, since));
    collector.until(kEventHistoryDone);
    writeFile(device.path("live"), "");
    auto events = collector.untilTrue([](const FileEvent& event) { return event.path.has_value(); });
    EXPECT_EQ((Lines{"history done", "+ live"}), told(device, events));
}

/// The history of a stream that is interested in departures only.
Lines departuresSince(TestDevice& device, EventID since) {
    StreamOptions options = over(device, since);
    options.interest = Interest::departuresOnly;
    Collector collector(device);
    collector.start(device.events(), options);
    return told(device, collector.until(kEventHistoryDone));
}

TEST(Stream, DeparturesOnlyLeavesOutChanges) {
    TestDevice device;
    writeFile(device.path("goes"), "");
    EventID since = device.settle();
    writeFile(device.path("comes"), "");
    ASSERT_EQ(0, unlink(device.path("goes").c_str()));
    EXPECT_EQ((Lines{"- goes", "history done"}), departuresSince(device, since));
}

TEST(Stream, DeparturesOnlyTellsAlsoOfWhatLivesOnElsewhereBelowTheFolders) {
    TestDevice device;
    testing::makeDirectories(device.path("a/moves"));
    testing::makeDirectories(device.path("b"));
    const EventID since = device.settle();
    ASSERT_EQ(0, rename(device.path("a/moves").c_str(), device.path("b/moves").c_str()));
    EXPECT_EQ((Lines{"- a/moves", "history done"}), departuresSince(device, since));
}

TEST(Stream, APositionWithoutInterestIsWhatIsRecorded) {
    TestDevice device;
    writeFile(device.path("known"), "");
    const EventID known = device.settle();
    writeFile(device.path("not looked at yet"), "");
    EXPECT_EQ(device.events().currentEventID({device.url()}, Interest::nothing), known);
    const auto looked = device.events().currentEventID({device.url()}, Interest::departuresOnly);
    ASSERT_TRUE(looked.has_value());
    EXPECT_GT(raw(*looked), raw(known));
    EXPECT_EQ(device.events().currentEventID({device.url()}, Interest::nothing), *looked);
}

TEST(Stream, AFailedStartTellsWhy) {
    TestDevice device;
    StreamOptions none;
    none.over = StreamOverPaths{};
    EXPECT_FALSE(device.events().createStream(none, {}).has_value());
    StreamOptions other;
    other.over = StreamOverDevice{DeviceID{77}, "/.docid"};
    EXPECT_FALSE(device.events().createStream(other, {}).has_value());
    EXPECT_TRUE(device.events().deviceUUID(DeviceID{77}).error().is(ErrorDomain::posix, ENODEV));
    EXPECT_EQ(device.store().uuid(), device.events().deviceUUID(device.device()).value());
}

TEST(Stream, WhatIsFoundWhileAHistoryIsToldBelongsToIt) {
    TestDevice device;
    const auto queue = dispatch::SerialQueue::create(device.pool(), "test");
    const EventID since = device.settle();
    writeFile(device.path("first"), "");
    std::vector<FileEvent> all;
    std::binary_semaphore done{0};
    auto stream = device.events().createStream(over(device, since), [&](const std::vector<FileEvent>& events) {
        // Whoever is told looks at the disk, which is found to have changed.
        if (all.empty()) {
            writeFile(device.path("second"), "");
            device.settle();
        }
        const bool wasDone = !all.empty() && (all.back().flags & kEventHistoryDone) != 0;
        all.insert(all.end(), events.begin(), events.end());
        if (!wasDone && (all.back().flags & kEventHistoryDone) != 0) done.release();
    });
    ASSERT_TRUE(stream.has_value());
    (*stream)->setQueue(queue);
    queue->sync([&] { EXPECT_TRUE((*stream)->start()); });
    EXPECT_TRUE(done.try_acquire_for(std::chrono::seconds(10)));
    queue->sync([&] { stream->reset(); });
    EXPECT_EQ((Lines{"+ first", "+ second", "history done"}), told(device, all));
}

TEST(Stream, WhatLeftAFolderThatIsGoneFromARenamedOneIsTold) {
    TestDevice device;
    testing::makeDirectories(device.path("folder/gone"));
    writeFile(device.path("folder/gone/document"), "");
    const EventID since = device.settle();
    std::filesystem::remove_all(device.path("folder/gone"));
    device.settle();
    ASSERT_EQ(0, rename(device.path("folder").c_str(), device.path("renamed").c_str()));
    device.settle();
    EXPECT_EQ((Lines{"- renamed/gone/document", "- renamed/gone", "history done"}),
              historySince(device, since, "renamed"));
}

TEST(Stream, StoppingInsideItsOwnCallbackEndsIt) {
    TestDevice device;
    auto queue = dispatch::SerialQueue::create(device.pool(), "test");
    EventID since = device.settle();
    for (int i = 0; i < 5; ++i) writeFile(device.path("f" + std::to_string(i)), "");
    int calls = 0;
    FileEventStream* handle = nullptr;
    auto stream = device.events().createStream(over(device, since), [&](const std::vector<FileEvent>&) {
        ++calls;
        handle->stop();
    });
    ASSERT_TRUE(stream.has_value());
    handle = stream->get();
    handle->setQueue(queue);
    queue->sync([&] { handle->start(); });
    queue->sync([] {});
    queue->sync([&] { stream->reset(); });
    EXPECT_EQ(1, calls);
}

}  // namespace
}  // namespace tarnwell::events
