#include "platform/dispatch/SerialQueue.h"

#include <atomic>
#include <csignal>
#include <functional>
#include <latch>
#include <semaphore>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "platform/dispatch/ThreadPool.h"

namespace tarnwell::dispatch {
namespace {

using namespace std::chrono_literals;

constexpr auto kPatience = 20s;

class SerialQueueTest : public ::testing::Test {
protected:
    std::shared_ptr<SerialQueue> queue(const std::string& label = "test") { return SerialQueue::create(pool_, label); }

    std::shared_ptr<ThreadPool> pool_ = ThreadPool::create();
};

TEST_F(SerialQueueTest, RunsWorkInTheOrderGiven) {
    auto serial = queue();
    std::vector<int> order;
    for (int i = 0; i < 1000; ++i) serial->async([&order, i] { order.push_back(i); });
    serial->sync([] {});
    ASSERT_EQ(order.size(), 1000u);
    for (int i = 0; i < 1000; ++i) EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
}

TEST_F(SerialQueueTest, HasItsLabel) { EXPECT_EQ(queue("tarnwell.some.queue")->label(), "tarnwell.some.queue"); }

TEST_F(SerialQueueTest, SyncReturnsTheResultAlsoOneThatOnlyMoves) {
    auto serial = queue();
    EXPECT_EQ(serial->sync([] { return 42; }), 42);
    auto owned = serial->sync([] { return std::make_unique<std::string>("moved"); });
    EXPECT_EQ(*owned, "moved");
}

TEST_F(SerialQueueTest, SyncOnAnIdleQueueRunsOnTheCallingThreadWithoutAnyOther) {
    auto serial = queue();
    EXPECT_EQ(serial->sync([] { return std::this_thread::get_id(); }), std::this_thread::get_id());
    EXPECT_EQ(pool_->threadCount(), 0u);
}

TEST_F(SerialQueueTest, AThreadThatHelpsDoesTheWorkAndWhatItAddsWithoutAnyOther) {
    auto serial = queue();
    std::vector<std::thread::id> threads;
    serial->asyncAndHelp([&] {
        EXPECT_TRUE(serial->isCurrent());
        threads.push_back(std::this_thread::get_id());
        serial->async([&] { threads.push_back(std::this_thread::get_id()); });
        EXPECT_EQ(threads.size(), 1u) << "what the work adds comes after it";
    });
    EXPECT_EQ(threads, (std::vector{std::this_thread::get_id(), std::this_thread::get_id()}));
    EXPECT_EQ(pool_->threadCount(), 0u);
    EXPECT_FALSE(serial->isCurrent());
}

TEST_F(SerialQueueTest, HelpingOnABusyQueueOnlyAddsTheWork) {
    auto serial = queue();
    std::binary_semaphore started(0), goOn(0);
    serial->async([&] {
        started.release();
        goOn.acquire();
    });
    started.acquire();
    std::thread::id ranOn;
    serial->asyncAndHelp([&] { ranOn = std::this_thread::get_id(); });
    EXPECT_EQ(ranOn, std::thread::id());
    goOn.release();
    serial->sync([] {});
    EXPECT_NE(ranOn, std::thread::id());
    EXPECT_NE(ranOn, std::this_thread::get_id());
}

TEST_F(SerialQueueTest, AHelperLeavesTheTurnToAThreadThatWaitsForIt) {
    auto serial = queue();
    std::binary_semaphore waiting(0), done(0);
    std::thread other;
    std::vector<std::string> order;
    serial->asyncAndHelp([&] {
        other = std::thread([&] {
            waiting.release();
            serial->sync([&] { order.push_back("waited"); });
            done.release();
        });
        waiting.acquire();
        order.push_back("work");
    });
    done.acquire();
    other.join();
    EXPECT_EQ(order, (std::vector<std::string>{"work", "waited"}));
}

TEST_F(SerialQueueTest, SyncOnABusyQueueWaitsForAllWorkBeforeIt) {
    auto serial = queue();
    std::binary_semaphore started(0), goOn(0);
    std::vector<int> order;
    serial->async([&] {
        started.release();
        goOn.acquire();
        order.push_back(1);
    });
    serial->async([&] { order.push_back(2); });
    started.acquire();
    std::thread releaser([&] { goOn.release(); });
    auto thread = serial->sync([&] {
        order.push_back(3);
        return std::this_thread::get_id();
    });
    releaser.join();
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(thread, std::this_thread::get_id());
}

TEST_F(SerialQueueTest, WorkGivenDuringASyncRunsAfterIt) {
    auto serial = queue();
    std::vector<int> order;
    serial->sync([&] {
        serial->async([&] { order.push_back(2); });
        order.push_back(1);
    });
    serial->sync([&] { order.push_back(3); });
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

TEST_F(SerialQueueTest, IsCurrentOnlyInItsOwnWork) {
    auto serial = queue("one"), other = queue("two");
    EXPECT_FALSE(serial->isCurrent());
    serial->sync([&] {
        EXPECT_TRUE(serial->isCurrent());
        EXPECT_FALSE(other->isCurrent());
    });
    EXPECT_FALSE(serial->isCurrent());
    std::binary_semaphore done(0);
    serial->async([&] {
        EXPECT_TRUE(serial->isCurrent());
        done.release();
    });
    ASSERT_TRUE(done.try_acquire_for(kPatience));
}

TEST_F(SerialQueueTest, StaysCurrentInANestedSyncOfABusyQueue) {
    auto outer = queue("outer"), inner = queue("inner");
    std::binary_semaphore busy(0), goOn(0), done(0);
    inner->async([&] {
        busy.release();
        goOn.acquire();
    });
    busy.acquire();
    outer->async([&] {
        goOn.release();
        inner->sync([&] {
            EXPECT_TRUE(outer->isCurrent());
            EXPECT_TRUE(inner->isCurrent());
        });
        EXPECT_FALSE(inner->isCurrent());
        done.release();
    });
    ASSERT_TRUE(done.try_acquire_for(kPatience));
}

TEST_F(SerialQueueTest, NoTwoPiecesOfWorkOverlapUnderStress) {
    auto serial = queue();
    constexpr int kThreads = 8, kRounds = 2000;
    int inside = 0, total = 0;  // plain: the queue is what guards them
    auto body = [&] {
        EXPECT_EQ(++inside, 1);
        ++total;
        --inside;
    };
    std::latch start(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            start.arrive_and_wait();
            for (int i = 0; i < kRounds; ++i) {
                if ((i + t) % 3 == 0)
                    serial->sync(body);
                else
                    serial->async(body);
            }
        });
    for (std::thread& thread : threads) thread.join();
    serial->sync([&] { EXPECT_EQ(total, kThreads * kRounds); });
}

TEST_F(SerialQueueTest, EachThreadSeesItsOwnOrderUnderStress) {
    auto serial = queue();
    constexpr int kThreads = 6, kRounds = 1000;
    std::vector<int> last(kThreads, -1);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            auto& mine = last[static_cast<std::size_t>(t)];
            for (int i = 0; i < kRounds; ++i) {
                auto body = [&mine, i] { EXPECT_EQ(std::exchange(mine, i), i - 1); };
                if (i % 7 == 0)
                    serial->sync(body);
                else
                    serial->async(body);
            }
        });
    for (std::thread& thread : threads) thread.join();
    serial->sync([&] { EXPECT_EQ(last, std::vector<int>(kThreads, kRounds - 1)); });
}

TEST_F(SerialQueueTest, AChainOfQueuesThatWaitForEachOtherEnds) {
    constexpr std::size_t kDepth = 200;
    std::vector<std::shared_ptr<SerialQueue>> queues;
    for (std::size_t i = 0; i < kDepth; ++i) queues.push_back(queue("chain " + std::to_string(i)));
    std::binary_semaphore done(0);
    std::atomic<std::size_t> reached = 0;
    // Every link is a thread of the pool that waits for a thread of the pool.
    std::function<void(std::size_t)> link = [&](std::size_t index) {
        ++reached;
        if (index + 1 == kDepth) return;
        std::binary_semaphore next(0);
        queues[index + 1]->async([&] {
            link(index + 1);
            next.release();
        });
        EXPECT_TRUE(next.try_acquire_for(kPatience));
    };
    queues[0]->async([&] {
        link(0);
        done.release();
    });
    ASSERT_TRUE(done.try_acquire_for(kPatience));
    EXPECT_EQ(reached, kDepth);
}

TEST_F(SerialQueueTest, ManyQueuesThatSyncOnOneBusyQueueAllEnd) {
    constexpr int kQueues = 100;
    auto shared = queue("shared");
    int count = 0;
    std::latch done(kQueues);
    for (int i = 0; i < kQueues; ++i)
        queue("waiting " + std::to_string(i))->async([&] {
            shared->sync([&] { ++count; });
            done.count_down();
        });
    done.wait();
    shared->sync([&] { EXPECT_EQ(count, kQueues); });
}

TEST_F(SerialQueueTest, AfterRunsNotBeforeTheDelay) {
    auto serial = queue();
    auto given = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point ran;
    std::binary_semaphore done(0);
    serial->after(30ms, [&] {
        EXPECT_TRUE(serial->isCurrent());
        ran = std::chrono::steady_clock::now();
        done.release();
    });
    ASSERT_TRUE(done.try_acquire_for(kPatience));
    EXPECT_GE(ran - given, 30ms);
}

TEST_F(SerialQueueTest, AfterKeepsTheOrderOfDeadlinesWhateverTheOrderGiven) {
    auto serial = queue();
    std::vector<int> order;
    std::binary_semaphore done(0);
    serial->after(60ms, [&] {
        order.push_back(3);
        done.release();
    });
    serial->after(0ns, [&] { order.push_back(1); });
    serial->after(30ms, [&] { order.push_back(2); });
    ASSERT_TRUE(done.try_acquire_for(kPatience));
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

TEST_F(SerialQueueTest, AfterWithOneDelayKeepsTheOrderGiven) {
    auto serial = queue();
    constexpr int kCount = 500;
    std::vector<int> order;
    std::binary_semaphore done(0);
    for (int i = 0; i < kCount; ++i)
        serial->after(1ms, [&, i] {
            order.push_back(i);
            if (i + 1 == kCount) done.release();
        });
    ASSERT_TRUE(done.try_acquire_for(kPatience));
    ASSERT_EQ(order.size(), static_cast<std::size_t>(kCount));
    for (int i = 0; i < kCount; ++i) EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
}

TEST_F(SerialQueueTest, ANegativeDelayIsNone) {
    std::binary_semaphore done(0);
    queue()->after(-1h, [&] { done.release(); });
    EXPECT_TRUE(done.try_acquire_for(kPatience));
}

TEST_F(SerialQueueTest, PendingWorkRunsWhenTheLastReferenceGoes) {
    std::binary_semaphore goOn(0), done(0);
    int count = 0;
    auto serial = queue();
    serial->async([&] { goOn.acquire(); });
    for (int i = 0; i < 10; ++i) serial->async([&] { ++count; });
    serial->async([&] { done.release(); });
    serial.reset();
    goOn.release();
    ASSERT_TRUE(done.try_acquire_for(kPatience));
    EXPECT_EQ(count, 10);
}

TEST_F(SerialQueueTest, PendingWorkRunsWhenPoolAndQueueAreLetGo) {
    std::binary_semaphore goOn(0), done(0), later(0);
    auto serial = queue();
    serial->async([&] { goOn.acquire(); });
    serial->async([&] { done.release(); });
    serial->after(1ms, [&] { later.release(); });
    serial.reset();
    pool_.reset();
    goOn.release();
    EXPECT_TRUE(done.try_acquire_for(kPatience));
    EXPECT_TRUE(later.try_acquire_for(kPatience));
}

TEST_F(SerialQueueTest, MayBeLetGoInItsOwnWork) {
    std::binary_semaphore goOn(0), done(0);
    auto serial = queue();
    serial->async([&, held = serial]() mutable {
        goOn.acquire();
        held.reset();
        done.release();
    });
    serial.reset();
    goOn.release();
    ASSERT_TRUE(done.try_acquire_for(kPatience));
    auto inSync = queue();
    inSync->sync([&] { inSync.reset(); });
    EXPECT_FALSE(inSync);
}

TEST_F(SerialQueueTest, WorkAndWhatItHoldsGoBeforeTheNextWorkRuns) {
    struct Probe {
        std::atomic<bool>& gone;
        SerialQueue& queue;
        ~Probe() { gone = queue.isCurrent(); }
    };
    auto serial = queue();
    std::atomic<bool> gone = false;
    serial->async([probe = std::make_shared<Probe>(gone, *serial)] { EXPECT_TRUE(probe->queue.isCurrent()); });
    bool goneBefore = false;
    std::binary_semaphore done(0);
    serial->async([&] {
        goneBefore = gone;
        done.release();
    });
    ASSERT_TRUE(done.try_acquire_for(kPatience));
    EXPECT_TRUE(goneBefore);
}

using SerialQueueDeathTest = SerialQueueTest;

TEST_F(SerialQueueDeathTest, SyncOnItselfStopsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            auto serial = SerialQueue::create(ThreadPool::create(), "tarnwell.loop");
            serial->sync([&] { serial->sync([] {}); });
        },
        ::testing::KilledBySignal(SIGABRT), "the queue \"tarnwell.loop\" would wait for itself");
}

TEST_F(SerialQueueDeathTest, SyncOnItselfThroughAnotherQueueStopsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            auto pool = ThreadPool::create();
            auto serial = SerialQueue::create(pool, "tarnwell.outer");
            auto other = SerialQueue::create(pool, "tarnwell.inner");
            serial->sync([&] { other->sync([&] { serial->sync([] {}); }); });
        },
        ::testing::KilledBySignal(SIGABRT), "the queue \"tarnwell.outer\" would wait for itself");
}

TEST_F(SerialQueueDeathTest, AssertCurrentStopsTheProcessElsewhere) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto serial = queue("tarnwell.asserted");
    serial->sync([&] { serial->assertCurrent(); });
    EXPECT_EXIT(serial->assertCurrent(), ::testing::KilledBySignal(SIGABRT), "not on the queue \"tarnwell.asserted\"");
}

}  // namespace
}  // namespace tarnwell::dispatch
