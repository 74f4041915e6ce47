#include "platform/dispatch/Group.h"

#include <atomic>
#include <csignal>
#include <memory>
#include <semaphore>
#include <vector>

#include <gtest/gtest.h>

#include "platform/dispatch/SerialQueue.h"
#include "platform/dispatch/ThreadPool.h"

namespace tarnwell::dispatch {
namespace {

using namespace std::chrono_literals;

constexpr auto kPatience = 20s;

class GroupTest : public ::testing::Test {
protected:
    std::shared_ptr<ThreadPool> pool_ = ThreadPool::create();
    std::shared_ptr<SerialQueue> queue_ = SerialQueue::create(pool_, "test");
};

TEST_F(GroupTest, WaitOnAnEmptyGroupReturnsAtOnce) {
    Group group;
    group.wait();
    group.enter();
    group.leave();
    group.wait();
}

TEST_F(GroupTest, WaitReturnsWhenTheLastOneLeft) {
    Group group;
    std::atomic<int> left = 0;
    constexpr int kCount = 40;
    for (int i = 0; i < kCount; ++i) {
        group.enter();
        pool_->run([&] {
            ++left;
            group.leave();
        });
    }
    group.wait();
    EXPECT_EQ(left, kCount);
}

TEST_F(GroupTest, NotifyOnAnEmptyGroupRunsOnTheQueue) {
    Group group;
    std::binary_semaphore done(0);
    group.notify(queue_, [&] {
        EXPECT_TRUE(queue_->isCurrent());
        done.release();
    });
    EXPECT_TRUE(done.try_acquire_for(kPatience));
}

TEST_F(GroupTest, NotifyWaitsUntilAllLeftAndKeepsItsOrder) {
    Group group;
    std::vector<int> order;
    std::binary_semaphore done(0);
    group.enter();
    group.enter();
    group.notify(queue_, [&] { order.push_back(1); });
    group.notify(queue_, [&] {
        order.push_back(2);
        done.release();
    });
    group.leave();
    queue_->sync([&] { EXPECT_TRUE(order.empty()); });
    group.leave();
    ASSERT_TRUE(done.try_acquire_for(kPatience));
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
}

TEST_F(GroupTest, NotifiesOnceForEachNotify) {
    Group group;
    int count = 0;
    group.enter();
    group.notify(queue_, [&] { ++count; });
    group.leave();
    group.enter();
    group.leave();
    queue_->sync([&] { EXPECT_EQ(count, 1); });
}

TEST_F(GroupTest, MayBeDestroyedByWhoeverWaitedForIt) {
    for (int i = 0; i < 500; ++i) {
        auto group = std::make_unique<Group>();
        group->enter();
        pool_->run([raw = group.get()] { raw->leave(); });
        group->wait();
        group.reset();
    }
}

TEST_F(GroupTest, MayBeDestroyedInItsNotification) {
    std::binary_semaphore done(0);
    auto group = std::make_unique<Group>();
    Group& entered = *group;
    entered.enter();
    entered.notify(queue_, [&done, group = std::move(group)]() mutable {
        group.reset();
        done.release();
    });
    entered.leave();
    EXPECT_TRUE(done.try_acquire_for(kPatience));
}

TEST(GroupDeathTest, LeavingOnceTooOftenStopsTheProcess) {
    EXPECT_EXIT(
        {
            Group group;
            group.enter();
            group.leave();
            group.leave();
        },
        ::testing::KilledBySignal(SIGABRT), "a group was left more often than entered");
}

}  // namespace
}  // namespace tarnwell::dispatch
