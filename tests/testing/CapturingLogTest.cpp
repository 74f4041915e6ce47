#include "testing/CapturingLog.h"

#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace tarnwell::testing {
namespace {

using log::Level;

TEST(CapturingLog, KeepsMessagesWithTheirLevelsInOrder) {
    CapturingLog log;
    log.write(Level::error, "[ERROR] a");
    log.write(Level::debug, "[DEBUG] b");
    log.write(Level::debug, "[DEBUG] c");
    EXPECT_EQ(log.lines(), (std::vector<CapturingLog::Line>{
                               {Level::error, "[ERROR] a"}, {Level::debug, "[DEBUG] b"}, {Level::debug, "[DEBUG] c"}}));
    EXPECT_EQ(log.texts(), (std::vector<std::string>{"[ERROR] a", "[DEBUG] b", "[DEBUG] c"}));
    EXPECT_EQ(log.texts(Level::debug), (std::vector<std::string>{"[DEBUG] b", "[DEBUG] c"}));
    EXPECT_EQ(log.texts(Level::info), std::vector<std::string>{});
}

TEST(CapturingLog, ContainsComparesWholeTexts) {
    CapturingLog log;
    log.write(Level::info, "[INFO] whole text");
    EXPECT_TRUE(log.contains("[INFO] whole text"));
    EXPECT_FALSE(log.contains("whole"));
    EXPECT_FALSE(log.contains(""));
}

TEST(CapturingLog, KeepsNothingBelowTheThreshold) {
    CapturingLog log;
    log.setThreshold(Level::error);
    log.write(Level::debug, "off");
    EXPECT_EQ(log.texts(), std::vector<std::string>{});
}

TEST(CapturingLog, ClearForgetsEverything) {
    CapturingLog log;
    log.write(Level::info, "old");
    log.clear();
    log.write(Level::info, "new");
    EXPECT_EQ(log.texts(), std::vector<std::string>{"new"});
}

TEST(CapturingLog, LosesNoMessageOfSeveralThreads) {
    CapturingLog log;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 500; ++i) log.write(Level::info, "line");
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(log.texts().size(), 2000u);
}

}  // namespace
}  // namespace tarnwell::testing
