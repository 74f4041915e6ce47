// Many changes, many producers, full queues.
#include <algorithm>
#include <atomic>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <sys/stat.h>
#include <sys/wait.h>

#include <fcntl.h>
#include <unistd.h>

#include "platform/watch/KernelLimits.h"
#include "testing/Sanitized.h"
#include "tests/watch/WatchTesting.h"

namespace tarnwell::watch {
namespace {

using testing::makeDirectories;
using Texts = std::vector<std::string>;

class WatcherLoadTest : public WatchTest {
protected:
    /// Makes the next of many names, one event each. Links, because a file system may be slow to make objects again
    /// that it has just removed by the thousand.
    void makeName(const std::string& relative) {
        if (::access(path("object").c_str(), F_OK) != 0) makeNode(path("object"));
        MUST(::link(path("object").c_str(), path(relative).c_str()));
    }
    std::uint64_t queueLimit() const {
        const KernelLimits kernel = limits();
        const std::uint64_t known =
            GetParam().source == SourceChoice::inotify ? kernel.inotifyQueuedEvents : kernel.fanotifyQueuedEvents;
        return known == 0 ? 16384 : known;
    }
};

TEST_P(WatcherLoadTest, EveryWriteIsInTheDrainAfterIt) {
    constexpr int kRounds = 10'000;
    watch("", 1);
    const Descriptor file(::open(path("file").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    drain();
    for (int round = 0; round < kRounds; ++round) {
        ASSERT_EQ(::pwrite(file.get(), "x", 1, 0), 1);
        ASSERT_EQ(textsOf(drain()), Texts{"1/file"}) << "round " << round;
    }
}

// Half of the names come from threads of this process, half from other processes, while this thread drains.
TEST_P(WatcherLoadTest, EveryNameOfConcurrentProducersIsTold) {
    constexpr int kProducers = 6;
    constexpr int kNamesEach = 1500;  // in all well below what a queue holds
    for (int producer = 0; producer < kProducers; ++producer) {
        makeDirectories(path(std::to_string(producer % 3)));
        watch(std::to_string(producer % 3), static_cast<std::uint64_t>(producer % 3 + 1));
    }
    const auto produce = [&](int producer) {
        const std::string folder = std::to_string(producer % 3);
        for (int index = 0; index < kNamesEach; ++index)
            makeName(folder + "/" + std::to_string(producer) + "." + std::to_string(index));
    };
    makeName("first");
    std::vector<pid_t> children;
    for (int producer = 0; producer < kProducers / 2; ++producer) {
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            produce(producer);
            ::_exit(0);
        }
        children.push_back(child);
    }
    std::atomic<int> running = kProducers / 2;
    std::vector<std::jthread> threads;
    for (int producer = kProducers / 2; producer < kProducers; ++producer)
        threads.emplace_back([&, producer] {
            produce(producer);
            --running;
        });
    std::set<std::string> told;
    const auto collect = [&] {
        const Drained drained = drain();
        ASSERT_FALSE(drained.overflowed);
        for (const Hint& hint : drained.hints) told.insert(std::to_string(raw(hint.directory)) + "/" + hint.name);
    };
    while (running > 0) collect();
    for (pid_t child : children) ASSERT_EQ(::waitpid(child, nullptr, 0), child);
    threads.clear();
    collect();
    for (int producer = 0; producer < kProducers; ++producer)
        for (int index = 0; index < kNamesEach; ++index)
            ASSERT_TRUE(told.contains(std::to_string(producer % 3 + 1) + "/" + std::to_string(producer) + "." +
                                      std::to_string(index)));
    EXPECT_EQ(told.size(), std::size_t{kProducers} * kNamesEach);
}

TEST_P(WatcherLoadTest, AFullQueueIsToldAndTheNextChangesAreToldAgain) {
    const std::uint64_t limit = queueLimit();
    if (limit > 100'000) GTEST_SKIP() << "the queue holds " << limit << " events";
    if (GetParam().source == SourceChoice::fileSystemMarks) GTEST_SKIP() << "other programs fill this queue, too";
    makeDirectories(path("A"));
    watch("A", 1);
    for (std::uint64_t index = 0; index < limit + 1000; ++index) makeName("A/" + std::to_string(index));
    const Drained full = drain();
    EXPECT_TRUE(full.overflowed);
    EXPECT_TRUE(watcher_->isWatched(FileID{1}));
    makeNode(path("A/after"));
    const Drained after = drain();
    EXPECT_FALSE(after.overflowed);
    EXPECT_EQ(textsOf(after), Texts{"1/after *"});
}

TEST_P(WatcherLoadTest, AQueueThatIsNotFullLosesNothing) {
    if (GetParam().source == SourceChoice::fileSystemMarks) GTEST_SKIP() << "other programs fill this queue, too";
    const std::uint64_t count = std::min<std::uint64_t>(queueLimit(), 20'000) / 2;
    makeDirectories(path("A"));
    watch("A", 1);
    for (std::uint64_t index = 0; index < count; ++index) makeName("A/" + std::to_string(index));
    const Drained drained = drain();
    EXPECT_FALSE(drained.overflowed);
    EXPECT_EQ(drained.hints.size(), count);
}

TEST_P(WatcherLoadTest, ADrainEndsWhileAThreadWritesForEver) {
    watch("", 1);
    const std::uint64_t mostEvents = queueLimit() + 1 + 64 * 1024 / 16;  // and one buffer
    std::atomic<bool> stops = false;
    std::vector<std::jthread> writers;
    for (int writer = 0; writer < 2; ++writer)
        writers.emplace_back([&, writer] {
            const Descriptor one(::open(path("a" + std::to_string(writer)).c_str(), O_WRONLY | O_CREAT, 0644));
            const Descriptor other(::open(path("b" + std::to_string(writer)).c_str(), O_WRONLY | O_CREAT, 0644));
            while (!stops) {
                if (::pwrite(one.get(), "x", 1, 0) != 1 || ::pwrite(other.get(), "x", 1, 0) != 1) return;
            }
        });
    for (int round = 0; round < (testing::kIsSanitized ? 50 : 500); ++round) {
        const Drained drained = drain();
        EXPECT_LE(drained.events, mostEvents);
        EXPECT_LE(drained.hints.size(), 4U);
    }
    stops = true;
}

TEST_P(WatcherLoadTest, AnyThreadMayDoAnything) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 300;
    for (int thread = 0; thread < kThreads; ++thread) makeDirectories(path(std::to_string(thread)));
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < kThreads; ++thread)
        threads.emplace_back([&, thread] {
            const std::string folder = path(std::to_string(thread));
            const auto number = static_cast<std::uint64_t>(thread + 1);
            for (int round = 0; round < kRounds; ++round) {
                EXPECT_TRUE(watchPath(*watcher_, folder, number));
                makeNode(folder + "/" + std::to_string(round));
                EXPECT_TRUE(watcher_->drain());
                EXPECT_LE(watcher_->watches(), std::size_t{kThreads});
                EXPECT_FALSE(watcher_->sources().empty());
                watcher_->unwatch(FileID{number});
                EXPECT_FALSE(watcher_->isWatched(FileID{number}));
            }
        });
    threads.clear();
    EXPECT_EQ(watcher_->watches(), 0U);
}

class WatcherBigTreeTest : public WatcherLoadTest {};

// Ending watches makes events of its own, which are not to push out those of others.
TEST_P(WatcherBigTreeTest, UnwatchingItFillsNoQueue) {
    const std::uint64_t count = std::min<std::uint64_t>(queueLimit() + 500, 20'000);
    makeDirectories(path("A"));
    const std::uint64_t first = 10;
    for (std::uint64_t index = 0; index < count; ++index) {
        const std::string name = "A/" + std::to_string(index);
        MUST(::mkdir(path(name).c_str(), 0755));
        auto watched = watchPath(*watcher_, path(name), first + index);
        if (!watched && watched.error().code == ENOSPC) GTEST_SKIP() << describe(watched.error());
        ASSERT_TRUE(watched);
    }
    watch("", 1);
    drain();
    EXPECT_EQ(watcher_->watches(), count + 1);
    for (std::uint64_t index = 0; index < count; ++index) watcher_->unwatch(FileID{first + index});
    makeNode(path("new"));
    const Drained drained = drain();
    EXPECT_FALSE(drained.overflowed);
    EXPECT_EQ(textsOf(drained), Texts{"1/new *"});
    EXPECT_EQ(watcher_->watches(), 1U);
    EXPECT_EQ(textsOf(drain()), Texts());
}

INSTANTIATE_TEST_SUITE_P(Sources, WatcherLoadTest, ::testing::ValuesIn(everySetting()), nameOfSetting);

// In memory, where so many directories cost little; no other source queues anything when a watch ends.
INSTANTIATE_TEST_SUITE_P(Sources, WatcherBigTreeTest,
                         ::testing::Values(Setting{SourceChoice::inotify, "/dev/shm", "InotifyInMemory"}),
                         nameOfSetting);

}  // namespace
}  // namespace tarnwell::watch
