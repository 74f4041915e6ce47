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
    auto pool = ThreadPool::create();
    constexpr int kCount = 50;
    std::latch allRun(kCount + 1);
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

}  // namespace
}  // namespace tarnwell::dispatch
