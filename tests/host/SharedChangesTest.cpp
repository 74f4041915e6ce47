#include "host/SharedChanges.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <latch>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace tarnwell::host {
namespace {

using session::ChangeBatch;

/// Anchors are numbers here: what was told up to one, and how far it goes now.
class SharedChangesTest : public ::testing::Test {
protected:
    static Bytes anchor(int number) {
        const std::string text = std::to_string(number);
        return {text.begin(), text.end()};
    }
    Result<ChangeBatch> ask(int from, const std::function<Result<ChangeBatch>()>& how) {
        return shared_.changes(
            "container", anchor(from),
            [this]() -> Result<std::optional<Bytes>> {
                ++currentAsked_;
                return now_;
            },
            [&] {
                ++asked_;
                return how();
            });
    }
    /// Ten at a time.
    Result<ChangeBatch> ask(int from) {
        return ask(from, [this, from]() -> Result<ChangeBatch> {
            const int to = std::min(from + 10, last_);
            std::vector<session::Change> changes;
            for (int i = from; i < to; ++i) changes.push_back({std::to_string(version_) + ":" + std::to_string(i), {}});
            return ChangeBatch{std::move(changes), anchor(to), to < last_};
        });
    }
    /// The identifiers of all that is told from there on.
    std::vector<std::string> follow(int from) {
        std::vector<std::string> told;
        for (bool more = true; more;) {
            auto batch = ask(from);
            EXPECT_TRUE(batch);
            for (const auto& change : batch->changes) told.push_back(change.identifier);
            from = std::stoi(std::string(textOf(batch->anchor)));
            more = batch->moreComing;
        }
        return told;
    }

    std::chrono::steady_clock::time_point clock_;
    SharedChanges shared_{[this] { return clock_; }};
    std::optional<Bytes> now_ = anchor(1);
    int last_ = 50;
    int version_ = 1;
    std::atomic<int> asked_ = 0, currentAsked_ = 0;
};

TEST_F(SharedChangesTest, TheSecondClientIsToldWhatTheFirstWas) {
    const auto first = follow(0);
    EXPECT_EQ(first.size(), 50u);
    EXPECT_EQ(asked_, 5);
    EXPECT_EQ(follow(0), first);
    EXPECT_EQ(follow(0), first);
    // Not the batch at the very beginning, whose anchor was not known to be asked for twice, and not the last one.
    EXPECT_EQ(asked_, 5 + 2 + 1);
}

TEST_F(SharedChangesTest, OneClientThatIsUpToDatePaysNothingForIt) {
    last_ = 0;
    for (int i = 0; i < 3; ++i) (void)follow(0);
    EXPECT_EQ(currentAsked_, 0);
    // Nor once it has followed to the end.
    last_ = 50;
    (void)follow(0);
    currentAsked_ = 0;
    for (int i = 0; i < 3; ++i) (void)follow(50);
    EXPECT_EQ(currentAsked_, 0);
    (void)follow(40);
    EXPECT_EQ(currentAsked_, 0);
}

TEST_F(SharedChangesTest, NothingIsSharedOnceSomethingChanged) {
    (void)follow(0);
    version_ = 2;
    now_ = anchor(2);
    for (const auto& identifier : follow(0)) EXPECT_TRUE(identifier.starts_with("2:")) << identifier;
    EXPECT_EQ(asked_, 10);
}

TEST_F(SharedChangesTest, NorWhereNobodyKnowsWhetherSomethingDid) {
    now_ = std::nullopt;
    (void)follow(0);
    (void)follow(0);
    EXPECT_EQ(asked_, 10);
}

TEST_F(SharedChangesTest, AnErrorIsToldToTheOneWhoAsked) {
    (void)follow(0);
    (void)ask(30);
    now_ = anchor(2);
    const auto failed = ask(30, [] { return Result<ChangeBatch>(failure(posixError(EIO))); });
    ASSERT_FALSE(failed);
    EXPECT_TRUE(failed.error().is(ErrorDomain::posix, EIO));
    EXPECT_TRUE(ask(30));
    EXPECT_THROW((void)ask(40, []() -> Result<ChangeBatch> { throw std::runtime_error("no memory"); }),
                 std::runtime_error);
    EXPECT_TRUE(ask(40));
}

TEST_F(SharedChangesTest, WhoAsksMeanwhileWaitsForTheAnswer) {
    (void)follow(0);
    now_ = anchor(2);
    asked_ = 0;
    std::latch isAsked(1), mayAnswer(1);
    const auto slow = [&]() -> Result<ChangeBatch> {
        isAsked.count_down();
        mayAnswer.wait();
        return ChangeBatch{{{"slow", {}}}, anchor(20), true};
    };
    std::thread first([&] { EXPECT_EQ(ask(10, slow)->changes[0].identifier, "slow"); });
    isAsked.wait();
    std::vector<std::thread> others;
    for (int i = 0; i < 4; ++i) {
        others.emplace_back([&] { EXPECT_EQ(ask(10)->changes[0].identifier, "slow"); });
    }
    while (currentAsked_ < 4) std::this_thread::yield();
    mayAnswer.count_down();
    first.join();
    for (auto& other : others) other.join();
    EXPECT_EQ(asked_, 1);
    // Where the one who was waited for has nothing to share, each asks for itself.
    now_ = anchor(3);
    EXPECT_TRUE(ask(40));
    EXPECT_TRUE(ask(40));
    EXPECT_EQ(asked_, 3);
}

TEST_F(SharedChangesTest, WhatIsOlderIsLetGoWhoeverAsksNext) {
    (void)follow(0);
    std::weak_ptr<const int> held;
    now_ = anchor(2);
    (void)ask(20, [&]() -> Result<ChangeBatch> {
        session::ChangeList list{{"kept", {}}};
        static const auto pack = +[](const std::vector<session::Change>&) { return std::make_shared<const int>(1); };
        held = list.inForm(pack);
        return ChangeBatch{std::move(list), anchor(30), true};
    });
    clock_ += SharedChanges::kLongestKept;
    (void)ask(50);
    EXPECT_FALSE(held.expired());
    EXPECT_EQ(ask(20)->changes[0].identifier, "kept");
    clock_ += std::chrono::milliseconds(1);
    (void)ask(50);
    EXPECT_TRUE(held.expired());
}

TEST_F(SharedChangesTest, KeepsNoMoreThanItSays) {
    last_ = 10 * static_cast<int>(SharedChanges::kMostBatches) * 4;
    const auto first = follow(0);
    const int before = asked_;
    EXPECT_EQ(follow(0), first);
    EXPECT_GT(asked_ - before, static_cast<int>(SharedChanges::kMostBatches));
}

}  // namespace
}  // namespace tarnwell::host
