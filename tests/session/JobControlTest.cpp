#include "session/JobControl.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace tarnwell::session {
namespace {

TEST(JobControl, TellsWhoeverListensHowFarItIs) {
    std::vector<JobProgress> told;
    const JobControl job([&](const JobProgress& at) { told.push_back(at); });
    const JobProgress first{.index = 1, .bytesDone = 2, .itemsDone = 3, .bytesTotal = 4, .itemsTotal = 5};
    job.report(first);
    JobControl().report(first);
    EXPECT_EQ(told, std::vector<JobProgress>{first});
}

TEST(JobControl, CancelsTheStepThatIsUnderWayOnce) {
    JobControl job;
    int cancelled = 0;
    job.setCanceller([&] { ++cancelled; });
    EXPECT_FALSE(job.isCancelled());
    job.cancel();
    job.cancel();
    EXPECT_TRUE(job.isCancelled());
    EXPECT_EQ(cancelled, 1);
}

TEST(JobControl, AStepThatBeginsAfterwardsIsCancelledAtOnceAndOneThatEndedIsNot) {
    JobControl job;
    int ended = 0, late = 0;
    job.setCanceller([&] { ++ended; });
    job.setCanceller({});
    job.cancel();
    EXPECT_EQ(ended, 0);
    job.setCanceller([&] { ++late; });
    EXPECT_EQ(late, 1);
}

TEST(JobControl, NoCancellerIsCalledAfterItsStep) {
    for (int round = 0; round < 200; ++round) {
        JobControl job;
        std::atomic<bool> isUnderWay{true};
        std::atomic<int> late{0};
        job.setCanceller([&] {
            if (!isUnderWay) ++late;
        });
        std::thread canceller([&] { job.cancel(); });
        job.setCanceller({});
        isUnderWay = false;
        canceller.join();
        ASSERT_EQ(late, 0);
    }
}

}  // namespace
}  // namespace tarnwell::session
