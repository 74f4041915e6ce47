#include "platform/watch/HintCollector.h"

#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/watch/KernelLimits.h"
#include "tests/watch/WatchTesting.h"

namespace tarnwell::watch {
namespace {

TEST(HintCollectorTest, EqualHintsBecomeOneInTheOrderOfTheFirst) {
    HintCollector collector;
    collector.add(FileID{2}, "b", false);
    collector.add(FileID{1}, "a", false);
    collector.add(FileID{2}, "b", false);
    collector.add(FileID{1}, "b", false);
    collector.add(FileID{1}, "", false);
    collector.add(FileID{1}, "a", false);
    const Drained drained = collector.take();
    ASSERT_EQ(drained.hints.size(), 4U);
    EXPECT_EQ(drained.hints[0].directory, FileID{2});
    EXPECT_EQ(drained.hints[1].name, "a");
    EXPECT_EQ(drained.hints[2].name, "b");
    EXPECT_EQ(drained.hints[3].name, "");
}

TEST(HintCollectorTest, ANameThatChangedOnceHasChanged) {
    const std::vector<std::vector<bool>> rows = {{true, false}, {false, true}, {true, true}};
    for (const auto& row : rows)
        for (bool apart : {false, true}) {
            HintCollector collector;
            for (bool namesChanged : row) {
                collector.add(FileID{1}, "a", namesChanged);
                if (apart) collector.add(FileID{1}, "between", false);
            }
            EXPECT_TRUE(collector.take().hints[0].namesChanged);
        }
}

TEST(HintCollectorTest, ManyHintsStayApart) {
    HintCollector collector;
    for (int pass = 0; pass < 2; ++pass)
        for (std::uint64_t directory = 1; directory <= 100; ++directory)
            for (int name = 0; name < 100; ++name) collector.add(FileID{directory}, std::to_string(name), pass == 1);
    const Drained drained = collector.take();
    EXPECT_EQ(drained.hints.size(), 10'000U);
    for (const Hint& hint : drained.hints) EXPECT_TRUE(hint.namesChanged);
}

TEST(KernelLimitsTest, AreWhatTheKernelSays) {
    const KernelLimits kernel = limits();
    const std::vector<std::pair<std::string, std::uint64_t>> rows = {
        {"inotify/max_user_watches", kernel.inotifyWatches},
        {"inotify/max_user_instances", kernel.inotifyInstances},
        {"inotify/max_queued_events", kernel.inotifyQueuedEvents},
        {"fanotify/max_user_marks", kernel.fanotifyMarks},
        {"fanotify/max_user_groups", kernel.fanotifyGroups},
        {"fanotify/max_queued_events", kernel.fanotifyQueuedEvents}};
    for (const auto& [name, value] : rows) {
        std::ifstream file("/proc/sys/fs/" + name);
        std::uint64_t expected = 0;
        file >> expected;
        EXPECT_EQ(value, expected) << name;
    }
}

}  // namespace
}  // namespace tarnwell::watch
