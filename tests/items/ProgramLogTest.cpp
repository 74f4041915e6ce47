#include "items/ProgramLog.h"

#include <gtest/gtest.h>

#include <limits>
#include <set>
#include <thread>

#include "testing/CapturingLog.h"

namespace tarnwell::items {
namespace {

using Line = testing::CapturingLog::Line;
using log::Level;

class ProgramLogTest : public ::testing::Test {
protected:
    testing::CapturingLog sink;
    ProgramLog log{sink, dispatch::ThreadPool::create()};
};

TEST_F(ProgramLogTest, PutsTheLevelInFrontOfAMessage) {
    log.error("can't do it");
    log.info("done");
    log.debug("found %s 100%");
    log.debug([] { return "composed"; });
    EXPECT_EQ(sink.lines(), (std::vector<Line>{{Level::error, "[ERROR] can't do it"},
                                               {Level::info, "[INFO] done"},
                                               {Level::debug, "[DEBUG] found %s 100%"},
                                               {Level::debug, "[DEBUG] composed"}}));
}

TEST_F(ProgramLogTest, HasOneCategory) { EXPECT_STREQ(ProgramLog::kCategory, "tarnwell-storage"); }

TEST_F(ProgramLogTest, NumbersItsSectionsOnAQueueOfItsOwn) {
    EXPECT_EQ(log.sectionQueue()->label(), "tarnwell.log-section");
    // Waiting for the queue from within its own work would never end, so that stops the process.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(log.sectionQueue()->sync([&] { log.nextSectionNumber(); }), "tarnwell.log-section");
}

TEST_F(ProgramLogTest, StopsRatherThanCountSectionsTwice) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ProgramLog last(sink, dispatch::ThreadPool::create(), std::numeric_limits<std::uint64_t>::max() - 1);
    EXPECT_EQ(last.nextSectionNumber(), std::numeric_limits<std::uint64_t>::max() - 1);
    EXPECT_DEATH(last.nextSectionNumber(), "");
}

TEST_F(ProgramLogTest, WritesARawTextAsItStands) {
    log.raw(Level::error, "invalid host");
    log.raw(Level::debug, "try again");
    EXPECT_EQ(sink.lines(), (std::vector<Line>{{Level::error, "invalid host"}, {Level::debug, "try again"}}));
}

TEST_F(ProgramLogTest, ChoosesTheLevelByExpectation) {
    log.byExpectation(ProgramLog::Expectation::expected, "gone");
    log.byExpectation(ProgramLog::Expectation::unexpected, "broken");
    log.byExpectation(ProgramLog::Expectation::expected, [] { return "gone too"; });
    log.byExpectation(ProgramLog::Expectation::unexpected, [] { return "broken too"; });
    EXPECT_EQ(sink.lines(), (std::vector<Line>{{Level::debug, "[DEBUG] gone"},
                                               {Level::error, "[ERROR] broken"},
                                               {Level::debug, "[DEBUG] gone too"},
                                               {Level::error, "[ERROR] broken too"}}));
}

TEST_F(ProgramLogTest, ComposesNothingForALevelThatIsOff) {
    sink.setThreshold(Level::error);
    bool composed = false;
    auto compose = [&] {
        composed = true;
        return "text";
    };
    log.debug(compose);
    log.byExpectation(ProgramLog::Expectation::expected, compose);
    log.debug("off");
    log.info("off");
    log.raw(Level::debug, "off");
    EXPECT_FALSE(composed);
    EXPECT_FALSE(log.debugEnabled());
    log.byExpectation(ProgramLog::Expectation::unexpected, compose);
    EXPECT_TRUE(composed);
    EXPECT_EQ(sink.texts(), std::vector<std::string>{"[ERROR] text"});
}

TEST_F(ProgramLogTest, NumbersSectionsFromZeroInTheOrderInWhichTheyOpen) {
    {
        LogSection outer(log, "fetching \"x\"");
        log.info("within");
        LogSection inner(log, "");
    }
    {
        LogSection next(log, "next");
    }
    EXPECT_EQ(sink.lines(), (std::vector<Line>{{Level::debug,
                                                "[DEBUG] \xE2\x94\x8F"
                                                "0 fetching \"x\""},
                                               {Level::info, "[INFO] within"},
                                               {Level::debug,
                                                "[DEBUG] \xE2\x94\x8F"
                                                "1 "},
                                               {Level::debug,
                                                "[DEBUG] \xE2\x94\x97"
                                                "1"},
                                               {Level::debug,
                                                "[DEBUG] \xE2\x94\x97"
                                                "0"},
                                               {Level::debug,
                                                "[DEBUG] \xE2\x94\x8F"
                                                "2 next"},
                                               {Level::debug,
                                                "[DEBUG] \xE2\x94\x97"
                                                "2"}}));
}

TEST_F(ProgramLogTest, CountsSectionsWhileDebugIsOff) {
    sink.setThreshold(Level::info);
    {
        LogSection silent(log, "silent");
    }
    EXPECT_TRUE(sink.lines().empty());
    EXPECT_EQ(log.nextSectionNumber(), 1u);
}

TEST_F(ProgramLogTest, GivesSectionsOfManyThreadsNumbersOfTheirOwn) {
    constexpr int kThreads = 8;
    constexpr int kSections = 200;
    std::vector<std::set<std::uint64_t>> taken(kThreads);
    {
        std::vector<std::jthread> threads;
        for (auto& numbers : taken)
            threads.emplace_back([&] {
                std::uint64_t last = 0;
                for (int i = 0; i < kSections; ++i) {
                    std::uint64_t number = log.nextSectionNumber();
                    EXPECT_TRUE(i == 0 || number > last);
                    last = number;
                    numbers.insert(number);
                }
            });
    }
    std::set<std::uint64_t> all;
    for (const auto& numbers : taken) all.insert(numbers.begin(), numbers.end());
    EXPECT_EQ(all.size(), std::size_t{kThreads * kSections});
    EXPECT_EQ(*all.rbegin(), std::uint64_t{kThreads * kSections - 1});
}

TEST(Quoted, PutsQuotationMarksAroundTheTextAsItIs) {
    EXPECT_EQ(quoted(""), "\"\"");
    EXPECT_EQ(quoted("a \"b\"\n"), "\"a \"b\"\n\"");
}

}  // namespace
}  // namespace tarnwell::items
