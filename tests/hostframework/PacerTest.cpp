#include "hostframework/Pacer.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <semaphore>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/dispatch/ThreadPool.h"

namespace tarnwell::hostframework {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kPatience = 20s;
constexpr auto kInterval = 40ms;

class PacerTest : public ::testing::Test {
protected:
    PacerTest() : pacer_(std::in_place, "test.pacer", queue_, kInterval) {
        pacer_->setEventBlock([this] { count(); });
    }
    ~PacerTest() override {
        pacer_.reset();
        queue_->sync([] {});
    }

    void count() {
        EXPECT_TRUE(queue_->isCurrent());
        std::lock_guard lock(mutex_);
        events_.push_back(Clock::now());
        changed_.notify_all();
    }
    bool waitForEvents(std::size_t number) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, kPatience, [&] { return events_.size() >= number; });
    }
    std::vector<Clock::time_point> events() {
        std::lock_guard lock(mutex_);
        return events_;
    }
    /// Returns when everything that was due within `time` from now has run on the queue.
    void letPass(std::chrono::nanoseconds time) {
        std::binary_semaphore done(0);
        queue_->after(time, [&] { done.release(); });
        done.acquire();
    }

    std::shared_ptr<dispatch::ThreadPool> pool_ = dispatch::ThreadPool::create();
    std::shared_ptr<dispatch::SerialQueue> queue_ = dispatch::SerialQueue::create(pool_, "test");
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Clock::time_point> events_;
    std::optional<Pacer> pacer_;
};

TEST_F(PacerTest, HasItsName) { EXPECT_EQ(pacer_->name(), "test.pacer"); }

TEST_F(PacerTest, ThreeSignalsWithinTheIntervalMakeOneEvent) {
    pacer_->resume();
    auto signalled = Clock::now();
    for (int i = 0; i < 3; ++i) pacer_->signal();
    ASSERT_TRUE(waitForEvents(1));
    EXPECT_GE(events().front() - signalled, kInterval);
    letPass(2 * kInterval);
    EXPECT_EQ(events().size(), 1u);
}

TEST_F(PacerTest, ASignalAfterAnEventMakesAnotherAnIntervalLater) {
    pacer_->resume();
    pacer_->signal();
    ASSERT_TRUE(waitForEvents(1));
    pacer_->signal();
    ASSERT_TRUE(waitForEvents(2));
    auto times = events();
    EXPECT_GE(times[1] - times[0], kInterval);
}

TEST_F(PacerTest, SignalsWhileSuspendedAreRememberedAsOne) {
    pacer_->signal();
    pacer_->signal();
    letPass(2 * kInterval);
    EXPECT_EQ(events().size(), 0u);
    auto resumed = Clock::now();
    pacer_->resume();
    ASSERT_TRUE(waitForEvents(1));
    EXPECT_GE(events().front() - resumed, kInterval);
    letPass(2 * kInterval);
    EXPECT_EQ(events().size(), 1u);
}

TEST_F(PacerTest, ResumingWithoutASignalMakesNoEvent) {
    pacer_->resume();
    pacer_->resume();
    letPass(2 * kInterval);
    EXPECT_EQ(events().size(), 0u);
}

TEST_F(PacerTest, ResumingAgainWhileWaitingMakesNoSecondEvent) {
    pacer_->signal();
    pacer_->resume();
    pacer_->resume();
    ASSERT_TRUE(waitForEvents(1));
    letPass(2 * kInterval);
    EXPECT_EQ(events().size(), 1u);
}

TEST_F(PacerTest, ASignalDuringAnEventMakesAnother) {
    std::atomic<int> runs = 0;
    pacer_->setEventBlock([&] {
        if (++runs == 1) pacer_->signal();
        count();
    });
    pacer_->resume();
    pacer_->signal();
    ASSERT_TRUE(waitForEvents(2));
    letPass(2 * kInterval);
    EXPECT_EQ(events().size(), 2u);
}

TEST_F(PacerTest, AnEventWithoutABlockDoesNothing) {
    pacer_->setEventBlock(nullptr);
    pacer_->resume();
    pacer_->signal();
    letPass(2 * kInterval);
    pacer_->setEventBlock([this] { count(); });
    pacer_->signal();
    EXPECT_TRUE(waitForEvents(1));
}

TEST_F(PacerTest, ADestroyedPacerFiresNoMore) {
    pacer_->resume();
    pacer_->signal();
    pacer_.reset();
    letPass(2 * kInterval);
    EXPECT_EQ(events().size(), 0u);
}

TEST_F(PacerTest, MayBeDestroyedInItsOwnEventWithASignalPending) {
    auto held = std::make_shared<int>(7);
    std::weak_ptr<int> watched = held;
    pacer_->setEventBlock([this, held = std::move(held)] {
        pacer_->signal();
        pacer_.reset();
        EXPECT_EQ(*held, 7);  // the block lives until it returns
        count();
    });
    pacer_->resume();
    pacer_->signal();
    ASSERT_TRUE(waitForEvents(1));
    letPass(2 * kInterval);
    EXPECT_EQ(events().size(), 1u);
    EXPECT_TRUE(watched.expired());
}

TEST_F(PacerTest, SignalsFromManyThreadsLoseNone) {
    pacer_.emplace("test.pacer", queue_, 1us);
    pacer_->setEventBlock([this] { count(); });
    pacer_->resume();
    std::vector<std::thread> threads;
    std::mutex lastMutex;
    Clock::time_point last;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 500; ++i) {
                auto now = Clock::now();
                pacer_->signal();
                std::lock_guard lock(lastMutex);
                last = std::max(last, now);
            }
        });
    for (std::thread& thread : threads) thread.join();
    std::unique_lock lock(mutex_);
    EXPECT_TRUE(changed_.wait_for(lock, kPatience, [&] { return !events_.empty() && events_.back() >= last; }));
    EXPECT_LE(events_.size(), 2000u);
}

}  // namespace
}  // namespace tarnwell::hostframework
