// Watches come, go and change their numbers.
#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include <sys/stat.h>

#include <fcntl.h>
#include <unistd.h>

#include "tests/watch/WatchTesting.h"

namespace tarnwell::watch {
namespace {

using testing::makeDirectories;
using Texts = std::vector<std::string>;
using Numbers = std::vector<FileID>;

class WatcherTest : public WatchTest {};

TEST_P(WatcherTest, NothingIsToldBeforeSomethingHappens) {
    watch("", 1);
    const Drained drained = drain();
    EXPECT_EQ(textsOf(drained), Texts());
    EXPECT_EQ(drained.unwatched, Numbers());
    EXPECT_FALSE(drained.overflowed);
}

TEST_P(WatcherTest, TheDescriptorIsReadableWhileThereIsSomethingToDrain) {
    // The mark of a file system also wakes us for others, who may be at work now.
    if (GetParam().source == SourceChoice::fileSystemMarks) GTEST_SKIP() << "readable for other programs' changes, too";
    watch("", 1);
    drain();
    EXPECT_FALSE(isReadable(*watcher_));
    makeNode(path("new"));
    EXPECT_TRUE(isReadable(*watcher_));
    drain();
    EXPECT_FALSE(isReadable(*watcher_));
    watcher_->unwatch(FileID{1});
    drain();
    EXPECT_FALSE(isReadable(*watcher_));
}

TEST_P(WatcherTest, ItSaysHowManyEventsWait) {
    const auto queued = [&] {
        std::size_t events = 0;
        for (const SourceStatus& source : watcher_->sources()) events = std::max(events, source.queued);
        return events;
    };
    // A mark on a whole file system is told of what others do there, too.
    const bool isAlone = std::string_view(GetParam().name).find("FileSystem") == std::string_view::npos;
    watch("", 1);
    (void)drain();
    EXPECT_TRUE(!isAlone || queued() == 0);
    for (int i = 0; i < 10; ++i) makeNode(path("node " + std::to_string(i)));
    EXPECT_GE(queued(), 10u);
    EXPECT_TRUE(!isAlone || queued() == 10) << queued();
    (void)drain();
    EXPECT_TRUE(!isAlone || queued() == 0);
}

TEST_P(WatcherTest, WhatHappenedBeforeTheWatchIsNotTold) {
    makeNode(path("before"));
    watch("", 1);
    EXPECT_EQ(textsOf(drain()), Texts());
}

TEST_P(WatcherTest, AnOrdinaryDescriptorServesAsWell) {
    const Descriptor directory(::open(directory_->path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_TRUE(watcher_->watch(directory.get(), FileID{1}));
    makeNode(path("new"));
    EXPECT_EQ(textsOf(drain()), Texts{"1/new *"});
}

TEST_P(WatcherTest, OnlyDirectoriesAreWatched) {
    makeNode(path("file"));
    const Descriptor file(::open(path("file").c_str(), O_PATH | O_CLOEXEC));
    auto watched = watcher_->watch(file.get(), FileID{1});
    ASSERT_FALSE(watched);
    EXPECT_TRUE(watched.error().is(ErrorDomain::posix, ENOTDIR));
    watched = watcher_->watch(-1, FileID{1});
    ASSERT_FALSE(watched);
    EXPECT_TRUE(watched.error().is(ErrorDomain::posix, EBADF));
    EXPECT_FALSE(watcher_->isWatched(FileID{1}));
}

TEST_P(WatcherTest, AgainUnderTheSameNumberIsOneWatch) {
    watch("", 1);
    makeNode(path("between"));
    watch("", 1);
    EXPECT_EQ(watcher_->watches(), 1U);
    EXPECT_EQ(textsOf(drain()), Texts{"1/between *"});
}

TEST_P(WatcherTest, AnObjectChangesToTheNumberUnderWhichItWasWatchedLast) {
    watch("", 1);
    watch("", 2);
    EXPECT_FALSE(watcher_->isWatched(FileID{1}));
    EXPECT_EQ(watcher_->watches(), 1U);
    makeNode(path("new"));
    const Drained drained = drain();
    EXPECT_EQ(textsOf(drained), Texts{"2/new *"});
    EXPECT_EQ(drained.unwatched, Numbers());
    watcher_->unwatch(FileID{1});
    EXPECT_TRUE(watcher_->isWatched(FileID{2}));
}

TEST_P(WatcherTest, ANumberChangesToTheObjectThatWasWatchedLast) {
    for (const char* folder : {"A", "B"}) makeDirectories(path(folder));
    watch("A", 1);
    makeNode(path("A/unread"));
    watch("B", 1);
    EXPECT_EQ(watcher_->watches(), 1U);
    makeNode(path("A/old"));
    makeNode(path("B/new"));
    EXPECT_EQ(textsOf(drain()), Texts{"1/new *"});
}

TEST_P(WatcherTest, TwoObjectsExchangeTheirNumbers) {
    for (const char* folder : {"A", "B"}) makeDirectories(path(folder));
    watch("A", 1);
    watch("B", 2);
    watch("A", 2);
    watch("B", 1);
    makeNode(path("A/a"));
    makeNode(path("B/b"));
    EXPECT_EQ(textsOf(drain()), (Texts{"1/b *", "2/a *"}));
    EXPECT_EQ(watcher_->watches(), 2U);
}

TEST_P(WatcherTest, UnwatchingEndsTheHintsAlsoTheUnreadOnes) {
    watch("", 1);
    makeNode(path("unread"));
    watcher_->unwatch(FileID{1});
    watcher_->unwatch(FileID{1});
    makeNode(path("after"));
    EXPECT_FALSE(watcher_->isWatched(FileID{1}));
    const Drained drained = drain();
    EXPECT_EQ(textsOf(drained), Texts());
    EXPECT_EQ(drained.unwatched, Numbers());
    makeNode(path("later"));
    EXPECT_EQ(textsOf(drain()), Texts());
}

TEST_P(WatcherTest, AnUnwatchedDirectoryIsWatchedAgain) {
    for (bool drainsBetween : {false, true}) {
        watch("", 1);
        watcher_->unwatch(FileID{1});
        if (drainsBetween) drain();
        watch("", 2);
        makeNode(path(drainsBetween ? "drained" : "at once"));
        EXPECT_TRUE(tells(drain(), 2, drainsBetween ? "drained" : "at once"));
        watcher_->unwatch(FileID{2});
        drain();
    }
}

TEST_P(WatcherTest, TheNumberOfAnUnwatchedDirectoryIsGoodForAnother) {
    for (const char* folder : {"A", "B"}) makeDirectories(path(folder));
    watch("A", 1);
    makeNode(path("A/unread"));
    watcher_->unwatch(FileID{1});
    watch("B", 1);
    makeNode(path("A/late"));
    makeNode(path("B/new"));
    EXPECT_EQ(textsOf(drain()), Texts{"1/new *"});
    EXPECT_TRUE(watcher_->isWatched(FileID{1}));
}

TEST_P(WatcherTest, ARemovedDirectoryEndsUnwatched) {
    makeDirectories(path("A"));
    watch("A", 1);
    watch("", 2);
    makeNode(path("A/f"));
    MUST(::unlink(path("A/f").c_str()));
    MUST(::rmdir(path("A").c_str()));
    const Drained drained = drain();
    EXPECT_EQ(drained.unwatched, Numbers{FileID{1}});
    EXPECT_TRUE(tells(drained, 2, "A"));
    EXPECT_FALSE(watcher_->isWatched(FileID{1}));
    EXPECT_EQ(watcher_->watches(), 1U);
    EXPECT_EQ(drain().unwatched, Numbers());
}

TEST_P(WatcherTest, ARemovedDirectoryThatWasUnwatchedIsNotTold) {
    makeDirectories(path("A"));
    watch("A", 1);
    MUST(::rmdir(path("A").c_str()));
    watcher_->unwatch(FileID{1});
    const Drained drained = drain();
    EXPECT_EQ(drained.unwatched, Numbers());
    EXPECT_EQ(textsOf(drained), Texts());
}

// The new one may well get the inode number of the old one.
TEST_P(WatcherTest, ADirectoryMadeAnewIsNotTakenForTheRemovedOne) {
    for (std::uint64_t round = 1; round <= 50; ++round) {
        makeDirectories(path("A"));
        watch("A", 2 * round);
        makeNode(path("A/old"));
        MUST(::unlink(path("A/old").c_str()));
        MUST(::rmdir(path("A").c_str()));
        makeDirectories(path("A"));
        watch("A", 2 * round + 1);
        makeNode(path("A/new"));
        const Drained drained = drain();
        EXPECT_EQ(drained.unwatched, Numbers{FileID{2 * round}});
        EXPECT_TRUE(tells(drained, 2 * round + 1, "new"));
        EXPECT_FALSE(tells(drained, 2 * round + 1, "old"));
        watcher_->unwatch(FileID{2 * round + 1});
        MUST(::unlink(path("A/new").c_str()));
        MUST(::rmdir(path("A").c_str()));
        drain();
    }
}

TEST_P(WatcherTest, ARemovedDirectoryGivesItsNumberToTheNewOneAtOnce) {
    makeDirectories(path("A"));
    watch("A", 1);
    MUST(::rmdir(path("A").c_str()));
    makeDirectories(path("A"));
    watch("A", 1);
    const Drained drained = drain();
    EXPECT_EQ(drained.unwatched, Numbers());
    EXPECT_TRUE(watcher_->isWatched(FileID{1}));
    makeNode(path("A/new"));
    EXPECT_EQ(textsOf(drain()), Texts{"1/new *"});
}

TEST_P(WatcherTest, AMovedDirectoryMovesItsWatchAlong) {
    for (const char* folder : {"A/sub", "B"}) makeDirectories(path(folder));
    watch("A/sub", 1);
    watch("B", 2);
    MUST(::rename(path("A/sub").c_str(), path("B/sub").c_str()));
    EXPECT_EQ(textsOf(drain()), Texts{"2/sub *"});
    makeNode(path("B/sub/new"));
    EXPECT_EQ(textsOf(drain()), Texts{"1/new *"});
}

TEST_P(WatcherTest, StatusesTellTheSource) {
    watch("", 1);
    const std::vector<SourceStatus> statuses = watcher_->sources();
    ASSERT_EQ(std::ranges::count(statuses, 1U, &SourceStatus::watches), 1);
    const SourceStatus& status = *std::ranges::find(statuses, 1U, &SourceStatus::watches);
    switch (GetParam().source) {
        case SourceChoice::automatic:
            break;
        case SourceChoice::directoryMarks:
            EXPECT_EQ(status.name, "fanotify");
            break;
        case SourceChoice::fileSystemMarks:
            EXPECT_EQ(status.name, "fanotify on file system");
            break;
        case SourceChoice::inotify:
            EXPECT_EQ(status.name, "inotify");
    }
    EXPECT_EQ(status.fileSystem.empty(), status.name == "inotify");
}

TEST_P(WatcherTest, ADeepTreeIsWatchedByItsLevels) {
    std::string deep;
    for (std::uint64_t level = 1; level <= 60; ++level) {
        deep += "/level";
        makeDirectories(path(deep.substr(1)));
        watch(deep.substr(1), level);
    }
    drain();
    makeNode(path(deep.substr(1) + "/leaf"));
    EXPECT_EQ(textsOf(drain()), Texts{"60/leaf *"});
}

INSTANTIATE_TEST_SUITE_P(Sources, WatcherTest, ::testing::ValuesIn(everySetting()), nameOfSetting);

}  // namespace
}  // namespace tarnwell::watch
