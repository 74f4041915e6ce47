#include "platform/dispatch/ThreadPool.h"

#include <atomic>
#include <functional>
#include <latch>
#include <memory>
#include <semaphore>
#include <thread>
#include <utility>

#include <gtest/gtest.h>

namespace tarnwell::dispatch {
namespace {

using namespace std::chrono_literals;

constexpr auto kPatience = 20s;

bool becomesTrue(const std::function<bool()>& condition) {
    auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::yield();
    }
    return true;
}

TEST(ThreadPool, StartsWithNoThread) { EXPECT_EQ(ThreadPool::create()->threadCount(), 0u); }

TEST(ThreadPool, AddsAThreadForEachPieceOfWorkThatBlocks) {
    constexpr int kCount = 50;
    std::latch allRun(kCount + 1);  // goes after the pool's threads, which look at it when they wake
    auto pool = ThreadPool::create();
    for (int i = 0; i < kCount; ++i) pool->run([&] { allRun.arrive_and_wait(); });
    allRun.arrive_and_wait();
    EXPECT_EQ(pool->threadCount(), static_cast<std::size_t>(kCount));
}

TEST(ThreadPool, UsesAnIdleThreadAgain) {
    auto pool = ThreadPool::create();
    for (int i = 0; i < 100; ++i) {
        std::binary_semaphore done(0);
        pool->run([&] { done.release(); });
        ASSERT_TRUE(done.try_acquire_for(kPatience));
    }
    // The thread may not have come to rest yet when the next work arrives, so a few may have been added.
    EXPECT_LT(pool->threadCount(), 50u);
}

TEST(ThreadPool, LetsIdleThreadsGoAndStartsNewOnesLater) {
    auto pool = ThreadPool::create(1ms);
    for (int round = 0; round < 3; ++round) {
        constexpr int kCount = 10;
        std::latch allRun(kCount + 1);
        for (int i = 0; i < kCount; ++i) pool->run([&] { allRun.arrive_and_wait(); });
        allRun.arrive_and_wait();
        EXPECT_TRUE(becomesTrue([&] { return pool->threadCount() == 0; })) << "round " << round;
    }
}

TEST(ThreadPool, WorkThatArrivesWhileThreadsLeaveIsNotLost) {
    auto pool = ThreadPool::create(0ns);
    for (int i = 0; i < 2000; ++i) {
        std::binary_semaphore done(0);
        pool->run([&] { done.release(); });
        ASSERT_TRUE(done.try_acquire_for(kPatience)) << i;
    }
}

TEST(ThreadPool, DestroyingItWaitsForRunningWork) {
    auto pool = ThreadPool::create();
    std::binary_semaphore started(0), goOn(0);
    std::atomic<bool> finished = false;
    pool->run([&] {
        started.release();
        goOn.acquire();
        finished = true;
    });
    started.acquire();
    std::thread releaser([&] { goOn.release(); });
    pool.reset();
    EXPECT_TRUE(finished);
    releaser.join();
}

TEST(ThreadPool, DestroyingItDropsWhatIsNotDueAndLetsGoOfWhatThatHolds) {
    auto pool = ThreadPool::create();
    auto held = std::make_shared<int>(1);
    std::weak_ptr<int> watched = held;
    pool->runAfter(1h, [held = std::move(held)] { FAIL() << "ran " << *held; });
    ASSERT_FALSE(watched.expired());
    pool.reset();
    EXPECT_TRUE(watched.expired());
}

TEST(ThreadPool, MayBeDestroyedByItsOwnWork) {
    for (int i = 0; i < 50; ++i) {
        auto pool = ThreadPool::create();
        std::binary_semaphore goOn(0), done(0);
        pool->runAfter(1h, [] {});
        pool->run([&, mine = pool]() mutable {
            goOn.acquire();
            mine.reset();
            done.release();
        });
        pool.reset();
        goOn.release();
        ASSERT_TRUE(done.try_acquire_for(kPatience));
    }
}

TEST(ThreadPool, RunAfterWaitsForTheDelay) {
    auto pool = ThreadPool::create();
    auto given = std::chrono::steady_clock::now();
    std::binary_semaphore done(0);
    pool->runAfter(20ms, [&] { done.release(); });
    ASSERT_TRUE(done.try_acquire_for(kPatience));
    EXPECT_GE(std::chrono::steady_clock::now() - given, 20ms);
}

TEST(ThreadPool, AnEarlierDeadlineGivenLaterIsNotHeldUp) {
    auto pool = ThreadPool::create();
    std::binary_semaphore done(0);
    pool->runAfter(std::chrono::nanoseconds::max(), [] { FAIL() << "centuries passed"; });
    pool->runAfter(1ms, [&] { done.release(); });
    EXPECT_TRUE(done.try_acquire_for(kPatience));
}

/// Runs it on a thread of its own. False when it does not return within the patience; then it is left alone.
bool returns(std::function<void()> work) {
    auto returned = std::make_shared<std::binary_semaphore>(0);
    std::thread thread([work = std::move(work), returned] {
        work();
        returned->release();
    });
    const bool came = returned->try_acquire_for(kPatience);
    if (came)
        thread.join();
    else
        thread.detach();
    return came;
}

bool comesToQuiet(const std::shared_ptr<ThreadPool>& pool) {
    return returns([pool] { pool->waitUntilQuiet(); });
}

TEST(ThreadPoolQuiet, APoolThatNeverWorkedIsQuiet) { EXPECT_TRUE(comesToQuiet(ThreadPool::create())); }

TEST(ThreadPoolQuiet, ComesOnlyAfterTheWorkThatRuns) {
    std::counting_semaphore<2> goOn(0);
    std::atomic<bool> finished = false;
    auto pool = ThreadPool::create();
    pool->run([&] {
        goOn.acquire();
        finished = true;
    });
    // Whoever does not wait is gone long before.
    pool->runAfter(20ms, [&] { goOn.release(); });
    EXPECT_TRUE(comesToQuiet(pool));
    EXPECT_TRUE(finished);
    goOn.release();  // in case it was not waited for, so that the pool can go
}

TEST(ThreadPoolQuiet, ComesOnlyAfterWorkThatNoThreadHasTakenUpYet) {
    // An idle thread needs a moment to wake; until then all threads are idle and the work waits.
    const auto pool = ThreadPool::create();
    const auto count = std::make_shared<std::atomic<int>>(0), missed = std::make_shared<std::atomic<int>>(0);
    EXPECT_TRUE(returns([pool, count, missed] {
        for (int i = 1; i <= 300; ++i) {
            pool->run([count] { ++*count; });
            pool->waitUntilQuiet();
            if (*count != i) ++*missed;
        }
    }));
    EXPECT_EQ(*missed, 0);
}

TEST(ThreadPoolQuiet, ComesOnlyAfterWorkThatWorkAdds) {
    constexpr int kLinks = 2000;
    std::atomic<int> count = 0;
    std::function<void()> link;
    auto pool = ThreadPool::create();
    link = [&count, &link, raw = pool.get()] {
        if (++count < kLinks) raw->run(link);
    };
    pool->run(link);
    EXPECT_TRUE(comesToQuiet(pool));
    EXPECT_EQ(count, kLinks);
}

TEST(ThreadPoolQuiet, DoesNotWaitForWhatIsNotDue) {
    auto pool = ThreadPool::create();
    pool->runAfter(1h, [] { FAIL() << "an hour passed"; });
    EXPECT_TRUE(comesToQuiet(pool));
    pool->run([] {});
    EXPECT_TRUE(comesToQuiet(pool));
}

TEST(ThreadPoolQuiet, ComesThoughThreadsLeave) {
    for (const auto idleTime : {std::chrono::nanoseconds(0ns), std::chrono::nanoseconds(1ms)}) {
        std::atomic<int> count = 0;
        auto pool = ThreadPool::create(idleTime);
        for (int round = 1; round <= 200; ++round) {
            for (int i = 0; i < 5; ++i) pool->run([&] { ++count; });
            ASSERT_TRUE(comesToQuiet(pool)) << "round " << round;
            ASSERT_EQ(count, 5 * round);
        }
    }
}

TEST(ThreadPoolQuiet, ComesToEveryoneWhoWaits) {
    constexpr int kWaiters = 8;
    std::counting_semaphore<2> goOn(0);
    std::atomic<bool> finished = false;
    auto pool = ThreadPool::create();
    pool->run([&] {
        goOn.acquire();
        finished = true;
    });
    const auto returned = std::make_shared<std::counting_semaphore<>>(0);
    for (int i = 0; i < kWaiters; ++i) {
        std::thread([pool, returned] {
            pool->waitUntilQuiet();
            returned->release();
        }).detach();
    }
    pool->runAfter(20ms, [&] { goOn.release(); });
    int count = 0;
    while (count < kWaiters && returned->try_acquire_for(kPatience)) ++count;
    EXPECT_EQ(count, kWaiters);
    EXPECT_TRUE(finished);
    goOn.release();
}

}  // namespace
}  // namespace tarnwell::dispatch
