#include "hostframework/FileCoordinator.h"

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <mutex>
#include <optional>
#include <thread>

namespace tarnwell::hostframework {
namespace {

using Path = FileCoordinator::Path;
using Use = FileCoordinator::Use;
using Grant = FileCoordinator::Grant;

/// A claim and whether it was granted.
struct Asked {
    Asked(FileCoordinator& coordinator, std::vector<Path> paths) {
        coordinator.claim(std::move(paths), [this](Grant given) {
            ++times;
            grant = std::move(given);
        });
    }
    bool isGranted() const { return times == 1; }
    void release() { grant.release(); }
    int times = 0;
    Grant grant;
};

TEST(FileCoordinator, WhatConflictsWaitsAndNothingElse) {
    struct Row {
        Path held, asked;
        bool conflicts;
    };
    const Use read = Use::reading, write = Use::writing;
    for (const Row& row : {Row{{"/a", write}, {"/a", write}, true}, Row{{"/a", write}, {"/a", read}, true},
                           Row{{"/a", read}, {"/a", write}, true}, Row{{"/a", read}, {"/a", read}, false},
                           Row{{"/a", write}, {"/a/b/c", read}, true}, Row{{"/a/b/c", write}, {"/a", read}, true},
                           Row{{"/a/b/c", read}, {"/a", write}, true}, Row{{"/a/b", read}, {"/a", read}, false},
                           Row{{"/a/b", write}, {"/a/c", write}, false}, Row{{"/a", write}, {"/ab", write}, false},
                           Row{{"/a", write}, {"/a.b", write}, false}, Row{{"/a/b", write}, {"/a/bc/d", write}, false},
                           Row{{"/", write}, {"/a/b", write}, true}, Row{{"/a/b", write}, {"/", read}, true},
                           Row{{"/", write}, {"/", write}, true}, Row{{"/a", write}, {"/b/a", write}, false}}) {
        FileCoordinator coordinator;
        Asked held(coordinator, {row.held});
        ASSERT_TRUE(held.isGranted());
        Asked asked(coordinator, {row.asked});
        EXPECT_EQ(asked.isGranted(), !row.conflicts) << row.held.path << " " << row.asked.path;
        held.release();
        EXPECT_TRUE(asked.isGranted());
    }
}

TEST(FileCoordinator, TheOrderOfAskingIsTheOrderOfGranting) {
    FileCoordinator coordinator;
    Asked reader(coordinator, {{"/a", Use::reading}});
    Asked writer(coordinator, {{"/a", Use::writing}});
    Asked later(coordinator, {{"/a/b", Use::reading}});
    Asked other(coordinator, {{"/b", Use::writing}});
    EXPECT_TRUE(other.isGranted());
    EXPECT_FALSE(writer.isGranted());
    EXPECT_FALSE(later.isGranted()) << "a writer that waits is not overtaken";
    reader.release();
    EXPECT_TRUE(writer.isGranted());
    EXPECT_FALSE(later.isGranted());
    writer.release();
    EXPECT_TRUE(later.isGranted());
}

TEST(FileCoordinator, SeveralPathsAreTakenAtOnce) {
    FileCoordinator coordinator;
    Asked first(coordinator, {{"/a", Use::writing}, {"/b", Use::writing}});
    Asked second(coordinator, {{"/b", Use::writing}, {"/a", Use::writing}});
    Asked third(coordinator, {{"/b/x", Use::reading}});
    EXPECT_TRUE(first.isGranted());
    EXPECT_FALSE(second.isGranted());
    first.release();
    EXPECT_TRUE(second.isGranted());
    EXPECT_FALSE(third.isGranted());
    second.release();
    EXPECT_TRUE(third.isGranted());
}

TEST(FileCoordinator, OneClaimMayNameAPathTwiceOrAboveItself) {
    FileCoordinator coordinator;
    Asked both(coordinator, {{"/a", Use::writing}, {"/a", Use::writing}, {"/a/b", Use::reading}});
    ASSERT_TRUE(both.isGranted());
    Asked next(coordinator, {{"/a", Use::writing}});
    EXPECT_FALSE(next.isGranted());
    both.release();
    EXPECT_TRUE(next.isGranted());
}

TEST(FileCoordinator, AGrantMayOutliveItAndBeReleasedTwice) {
    std::optional<Grant> grant;
    {
        FileCoordinator coordinator;
        grant = coordinator.wait({{"/a", Use::writing}});
    }
    grant->release();
    grant->release();
    grant.reset();
}

TEST(FileCoordinator, ThreadsNeverMeetAWriterAndAllAreServed) {
    constexpr int kThreads = 16, kRounds = 300;
    const std::vector<std::string> paths{"/r", "/r/a", "/r/b", "/r/a/x", "/r/a/y", "/r/b/x"};
    FileCoordinator coordinator;
    std::mutex mutex;
    struct Users {
        int readers = 0, writers = 0;
    };
    std::map<std::string, Users> users;
    std::atomic<int> served{0};
    const auto related = [](const std::string& a, const std::string& b) {
        return a == b || a.starts_with(b + "/") || b.starts_with(a + "/");
    };
    const auto conflict = [&](const Path& path) {
        for (const auto& [other, by] : users) {
            if (!related(path.path, other)) continue;
            if (by.writers > 0 || (path.use == Use::writing && by.readers > 0)) return true;
        }
        return false;
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            unsigned random = static_cast<unsigned>(t) + 1;
            const auto next = [&] { return (random = random * 1664525u + 1013904223u) >> 8; };
            for (int round = 0; round < kRounds; ++round) {
                const std::string& one = paths[next() % paths.size()];
                std::vector<Path> wanted{{one, next() % 2 == 0 ? Use::reading : Use::writing}};
                const std::string& two = paths[next() % paths.size()];
                if (!related(one, two)) wanted.push_back({two, next() % 2 == 0 ? Use::reading : Use::writing});
                const Grant grant = coordinator.wait(wanted);
                {
                    const std::lock_guard lock(mutex);
                    for (const Path& path : wanted) EXPECT_FALSE(conflict(path)) << path.path;
                    for (const Path& path : wanted) {
                        ++(path.use == Use::reading ? users[path.path].readers : users[path.path].writers);
                    }
                }
                std::this_thread::yield();
                const std::lock_guard lock(mutex);
                for (const Path& path : wanted) {
                    --(path.use == Use::reading ? users[path.path].readers : users[path.path].writers);
                }
                ++served;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(served.load(), kThreads * kRounds);
}

TEST(FileCoordinator, ManyThatWaitAreServedInOrder) {
    FileCoordinator coordinator;
    std::vector<int> order;
    std::vector<Grant> waiting;
    Grant first = coordinator.wait({{"/a", Use::writing}});
    for (int i = 0; i < 2000; ++i) {
        coordinator.claim({{"/a", Use::writing}}, [&order, i](Grant grant) {
            order.push_back(i);
            // Kept only in this call: the next one comes in from within.
            if (i % 500 != 0) grant.release();
        });
    }
    EXPECT_TRUE(order.empty());
    first.release();
    ASSERT_EQ(order.size(), 2000u);
    for (int i = 0; i < 2000; ++i) ASSERT_EQ(order[static_cast<std::size_t>(i)], i);
}

}  // namespace
}  // namespace tarnwell::hostframework
