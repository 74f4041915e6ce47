#include "fs/GatherPhaseResumeCheck.h"

#include "tests/fs/FSFixture.h"

namespace tarnwell::fs {
namespace {

using testing::eventAt;
using testing::eventWithFlags;
using testing::historyDoneEvent;
using Lines = std::vector<std::string>;
using Status = FSEventReaderGatherPhaseResumeStatus;

class GatherPhaseResumeCheckTest : public FSTest {
protected:
    Status check() { return canResumeGatherPhase(environment_, {device_.url()}, EventID{5}).status; }
    events::FileEvent deletion(std::uint64_t id, const std::string& relative) {
        return eventAt(id, pathOf(relative), FileID{id});
    }
    Status deletionOf(const std::string& relative) { return {Status::DeletionOccurred{pathOf(relative)}}; }
};

TEST_F(GatherPhaseResumeCheckTest, AsksForDeparturesBelowTheFoldersSinceThePosition) {
    events_.setEventID(30);
    events_.setHistory({{historyDoneEvent(30)}});
    const auto answer = canResumeGatherPhase(environment_, {device_.url("a"), device_.url("b")}, EventID{5});
    EXPECT_EQ(answer.presentEventID, EventID{30});
    ASSERT_EQ(events_.streams().size(), 1u);
    const auto options = events_.streams()[0].options;
    EXPECT_EQ(options.since, EventID{5});
    EXPECT_EQ(options.interest, events::Interest::departuresOnly);
    EXPECT_EQ(std::get<events::StreamOverPaths>(options.over).folders,
              (std::vector<URL>{device_.url("a"), device_.url("b")}));
}

TEST_F(GatherPhaseResumeCheckTest, AnswersByTheFirstReportThatSettlesIt) {
    makeFile("new.txt");
    const auto creation = eventAt(6, pathOf("new.txt"));
    const auto done = historyDoneEvent(20);
    const auto lost = eventWithFlags(20, events::kEventUserDropped);
    const Status canResume{Status::CanResume{}};
    const Status cannotReplay{Status::CantReplayHistoricalFSEvents{}};
    struct Row {
        const char* name;
        std::vector<testing::EventBatch> history;
        Status expected;
    };
    for (const Row& row : {
             Row{"nothing happened", {{done}}, canResume},
             Row{"creations only", {{creation}, {creation, done}}, canResume},
             Row{"creation, then deletion", {{creation, deletion(7, "gone")}, {done}}, deletionOf("gone")},
             Row{"deletion and done in one batch", {{deletion(7, "gone"), done}}, deletionOf("gone")},
             Row{"two deletions", {{deletion(7, "first"), deletion(8, "second"), done}}, deletionOf("first")},
             Row{"deletion, then dropped", {{deletion(7, "gone"), lost}}, deletionOf("gone")},
             Row{"dropped", {{lost}}, cannotReplay},
             Row{"kernel dropped", {{eventWithFlags(9, events::kEventKernelDropped)}}, cannotReplay},
             Row{"wrapped", {{eventWithFlags(1, events::kEventIDsWrapped)}}, cannotReplay},
             Row{"dropped, then deletion", {{lost, deletion(7, "gone")}, {done}}, cannotReplay},
             Row{"done, then deletion", {{done, deletion(7, "gone")}}, canResume},
             Row{"deletion elsewhere", {{eventAt(7, "/elsewhere", FileID{7}), done}}, canResume},
             Row{"deletion of something hidden", {{deletion(7, ".gone"), done}}, canResume},
         }) {
        SCOPED_TRACE(row.name);
        events_.setHistory(row.history);
        EXPECT_EQ(check(), row.expected);
        const auto stream = events_.streams().back();
        EXPECT_TRUE(stream.stopped && stream.invalidated && stream.destroyed);
    }
}

TEST_F(GatherPhaseResumeCheckTest, IsNotVerboseAndLeavesNothingRunning) {
    events_.setHistory({{eventWithFlags(20, events::kEventUserDropped)}});
    check();
    const std::string reader = "urls:[" + device_.url().text() + "] mode:pathBased>";
    EXPECT_EQ(newLines(),
              (Lines{"[DEBUG] starting <FSEventReader since:5 " + reader, "[DEBUG] fsevent: received 1 events",
                     "[DEBUG] stopped <FSEventReader since:20 " + reader}));
}

TEST_F(GatherPhaseResumeCheckTest, AStreamThatDoesNotStartCannotReplay) {
    events_.refuseStreams(testing::ScriptedFileEventService::Refusal::start);
    EXPECT_EQ(check(), Status{Status::CantReplayHistoricalFSEvents{}});
}

TEST_F(GatherPhaseResumeCheckTest, TheRealJournalKnowsWhatWasDeleted) {
    const FSEnvironment real{device_.environment(), device_.events(), device_.pool()};
    makeFile("a.txt");
    makeFile("sub/b.txt");
    const auto since = device_.events().currentEventID({device_.url()}, events::Interest::departuresOnly);
    ASSERT_TRUE(since.has_value());
    const auto status = [&] { return canResumeGatherPhase(real, {device_.url()}, *since).status; };
    EXPECT_EQ(status(), Status{Status::CanResume{}});
    makeFile("c.txt");
    makeFile("a.txt", "changed");
    EXPECT_EQ(status(), Status{Status::CanResume{}});
    remove("sub/b.txt");
    EXPECT_EQ(status(), deletionOf("sub/b.txt"));
}

TEST_F(GatherPhaseResumeCheckTest, APositionOfTheFutureCannotBeReplayed) {
    const FSEnvironment real{device_.environment(), device_.events(), device_.pool()};
    const auto now = device_.settle();
    EXPECT_EQ(canResumeGatherPhase(real, {device_.url()}, EventID{raw(now) + 1000000}).status,
              Status{Status::CantReplayHistoricalFSEvents{}});
}

}  // namespace
}  // namespace tarnwell::fs
