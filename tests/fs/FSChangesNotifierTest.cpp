#include "fs/FSChangesNotifier.h"

#include "tests/fs/FSFixture.h"

namespace tarnwell::fs {
namespace {

using testing::eventAt;
using testing::eventWithFlags;
using testing::historyDoneEvent;
using Lines = std::vector<std::string>;

class FSChangesNotifierTest : public FSTest {
protected:
    std::shared_ptr<FSChangesNotifier> started(const std::string& container) {
        auto notifier = FSChangesNotifier::create(environment_, container, {device_.url()});
        notifier->start();
        drain(*notifier);
        return notifier;
    }
    static void drain(const FSChangesNotifier& notifier) {
        notifier.reader()->streamQueue()->sync([] {});
    }
    static void stop(FSChangesNotifier& notifier) {
        notifier.stop();
        drain(notifier);
    }
    events::FileEvent change() { return eventAt(++lastID_, pathOf("gone"), FileID{1}); }
    Lines signals() { return device_.providerManager().signals(); }

    std::uint64_t lastID_ = 100;
};

TEST_F(FSChangesNotifierTest, WatchesItsFoldersFromItsCreationOn) {
    events_.setEventID(41);
    auto notifier = FSChangesNotifier::create(environment_, "fid=5", {device_.url(), device_.url("a")});
    ASSERT_NE(notifier, nullptr);
    EXPECT_EQ(notifier->container(), "fid=5");
    EXPECT_EQ(notifier->deviceUUID(), kVolume);
    EXPECT_TRUE(notifier->reader()->verbose());
    EXPECT_EQ(notifier->reader()->mode(), FSEventReader::Mode::pathBased);
    EXPECT_TRUE(events_.currentEventIDRequests().empty());
    EXPECT_TRUE(events_.streams().empty());

    events_.setEventID(50);
    notifier->start();
    drain(*notifier);
    ASSERT_EQ(events_.streams().size(), 1u);
    const auto options = events_.streams()[0].options;
    EXPECT_EQ(options.since, EventID{41});
    EXPECT_EQ(options.interest, events::Interest::everything);
    EXPECT_EQ(std::get<events::StreamOverPaths>(options.over).folders,
              (std::vector<URL>{device_.url(), device_.url("a")}));
    stop(*notifier);
    EXPECT_EQ(events_.runningStreams(), 0u);
}

TEST_F(FSChangesNotifierTest, AnyContainerSignalsTheRootAndThenTheWorkingSet) {
    for (const std::string container : {"fid=5", "RootContainer", "AllDirectoriesContainer"}) {
        SCOPED_TRACE(container);
        const auto before = signals().size();
        auto notifier = started(container);
        newLines();
        events_.play({change()});
        const auto lines = newLines();
        ASSERT_GE(lines.size(), 2u);
        EXPECT_EQ(Lines(lines.end() - 2, lines.end()),
                  (Lines{"[INFO] notify changes on RootContainer", "[INFO] notify changes on WorkingSetContainer"}));
        const auto after = signals();
        EXPECT_EQ(Lines(after.begin() + static_cast<std::ptrdiff_t>(before), after.end()),
                  (Lines{"RootContainer", "WorkingSetContainer"}));
        stop(*notifier);
    }
}

TEST_F(FSChangesNotifierTest, TheWorkingSetSignalsOnlyItself) {
    auto notifier = started("WorkingSetContainer");
    events_.play({change()});
    EXPECT_EQ(signals(), Lines{"WorkingSetContainer"});
    stop(*notifier);
}

TEST_F(FSChangesNotifierTest, NothingIsSignalledBeforeAnythingChanged) {
    auto notifier = started("fid=5");
    events_.play({historyDoneEvent(1)});
    events_.play({});
    events_.play({eventAt(2, pathOf("gone"))});
    EXPECT_EQ(signals(), Lines{});
    stop(*notifier);
}

TEST_F(FSChangesNotifierTest, ChangesDeletionsAndDroppedEventsAllSignal) {
    makeFile("a.txt");
    for (const auto& event :
         {eventAt(1, pathOf("a.txt")), change(), eventWithFlags(3, events::kEventUserDropped),
          eventWithFlags(3, events::kEventKernelDropped), eventWithFlags(4, events::kEventIDsWrapped)}) {
        SCOPED_TRACE(event.flags);
        const auto before = signals().size();
        auto notifier = started("WorkingSetContainer");
        events_.play({event});
        EXPECT_EQ(signals().size(), before + 1);
        stop(*notifier);
    }
}

TEST_F(FSChangesNotifierTest, ManyChangesOfOneBatchSignalOnce) {
    auto notifier = started("WorkingSetContainer");
    events_.play({change(), change(), change()});
    EXPECT_EQ(signals(), Lines{"WorkingSetContainer"});
    stop(*notifier);
}

TEST_F(FSChangesNotifierTest, AfterOneChangeEveryLaterBatchSignalsAgain) {
    auto notifier = started("WorkingSetContainer");
    events_.play({change()});
    events_.play({historyDoneEvent(2)});
    events_.play({});
    EXPECT_EQ(signals(), (Lines{"WorkingSetContainer", "WorkingSetContainer", "WorkingSetContainer"}));
    stop(*notifier);
}

TEST_F(FSChangesNotifierTest, AStoppedNotifierIsSilent) {
    auto notifier = started("fid=5");
    stop(*notifier);
    events_.play({change()});
    EXPECT_EQ(signals(), Lines{});
}

TEST_F(FSChangesNotifierTest, WithoutADeviceUUIDThereIsNone) {
    events_.setDeviceUUID(std::nullopt);
    EXPECT_EQ(FSChangesNotifier::create(environment_, "fid=5", {device_.url()}), nullptr);
    EXPECT_EQ(newLines(), Lines{"[ERROR] can't get volume UUID for \"" + pathOf() + "\""});
}

TEST_F(FSChangesNotifierTest, NoFoldersStopTheProcess) {
    EXPECT_DEATH(FSChangesNotifier::create(environment_, "fid=5", {}),
                 "require at least one URL to init a change notifier");
}

TEST_F(FSChangesNotifierTest, ARealChangeReachesTheHost) {
    const FSEnvironment real{device_.environment(), device_.events(), device_.pool()};
    auto notifier = FSChangesNotifier::create(real, "fid=5", {device_.url()});
    ASSERT_NE(notifier, nullptr);
    makeFile("before-the-start");
    notifier->start();
    const auto seen = device_.providerManager().waitForSignals(2);
    ASSERT_GE(seen.size(), 2u);
    EXPECT_EQ(Lines(seen.begin(), seen.begin() + 2), (Lines{"RootContainer", "WorkingSetContainer"}));
    stop(*notifier);
}

}  // namespace
}  // namespace tarnwell::fs
