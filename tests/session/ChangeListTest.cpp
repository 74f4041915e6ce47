#include "session/ChangeList.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

namespace tarnwell::session {
namespace {

std::vector<Change> some() { return {{"did=1", std::nullopt}, {"did=2", Item{}}}; }

std::atomic<int> made = 0;
std::string identifiersOf(const std::vector<Change>& changes) {
    ++made;
    std::string text;
    for (const auto& change : changes) text += change.identifier + " ";
    return text;
}

TEST(ChangeList, CopiesAreTheSameList) {
    const ChangeList list(some());
    const ChangeList copy = list;
    EXPECT_EQ(&list.all(), &copy.all());
    EXPECT_EQ(copy.size(), 2U);
    EXPECT_EQ(copy[1].identifier, "did=2");
}

TEST(ChangeList, IsBroughtIntoItsFormOnceByHoweverMany) {
    made = 0;
    const ChangeList list(some());
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([copy = list] { EXPECT_EQ(copy.inForm(identifiersOf), "did=1 did=2 "); });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(made, 1);
}

TEST(ChangeList, TakingLeavesCopiesAsTheyAre) {
    ChangeList list(some());
    const ChangeList copy = list;
    EXPECT_EQ(std::move(list).take().size(), 2U);
    EXPECT_EQ(copy.size(), 2U);
    ChangeList alone(some());
    const Change* first = alone.all().data();
    EXPECT_EQ(std::move(alone).take().data(), first) << "it was copied";
}

TEST(ChangeList, OfNothingIsEmpty) {
    EXPECT_TRUE(ChangeList().empty());
    EXPECT_EQ(ChangeList().begin(), ChangeList().end());
}

}  // namespace
}  // namespace tarnwell::session
