// The kernel gives the number of a watch again.
#include <cstring>
#include <string>
#include <vector>

#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <unistd.h>

#include "platform/watch/InotifySource.h"
#include "platform/watch/KernelLimits.h"
#include "tests/watch/WatchTesting.h"

namespace tarnwell::watch {
namespace {

using testing::makeDirectories;
using Texts = std::vector<std::string>;
using Numbers = std::vector<FileID>;

class InotifySourceTest : public ::testing::Test {
protected:
    void SetUp() override {
        source_ = std::move(*InotifySource::create());
        if (!nextWatchIs(1)) GTEST_SKIP() << "this kernel does not let us choose: " << std::strerror(errno);
        for (const char* folder : {"A", "B"}) makeDirectories(directory_.path(folder));
        watch("A", 1);
    }
    /// Lets the kernel begin at that number when it looks for a free one.
    bool nextWatchIs(int watch) {
        constexpr unsigned long kSetNextWatch = _IOW('I', 0, std::int32_t);  // of linux/inotify.h, which clashes
        return ::ioctl(source_->descriptor(), kSetNextWatch, watch) == 0;
    }
    void watch(const std::string& folder, std::uint64_t number) {
        const Descriptor opened = openDirectory(directory_.path(folder));
        struct stat status{};
        MUST(::fstat(opened.get(), &status));
        ASSERT_TRUE(source_->watch({opened.get(), status.st_dev, status.st_ino, {}}, FileID{number}));
    }
    void removeA() {
        makeNode(directory_.path("A/old"));
        MUST(::unlink(directory_.path("A/old").c_str()));
        MUST(::rmdir(directory_.path("A").c_str()));
        ASSERT_TRUE(nextWatchIs(1));
    }
    Drained drain() {
        HintCollector collector;
        EXPECT_TRUE(source_->drain(collector));
        return collector.take();
    }

    testing::TemporaryDirectory directory_;
    std::unique_ptr<InotifySource> source_;
};

TEST_F(InotifySourceTest, EventsOfARemovedDirectoryAreNotThoseOfTheNext) {
    removeA();
    watch("B", 2);
    makeNode(directory_.path("B/new"));
    const Drained drained = drain();
    EXPECT_EQ(textsOf(drained), Texts{"2/new *"});
    EXPECT_EQ(drained.unwatched, Numbers{FileID{1}});
    EXPECT_TRUE(source_->isWatched(FileID{2}));
    makeNode(directory_.path("B/more"));
    EXPECT_EQ(textsOf(drain()), Texts{"2/more *"});
}

TEST_F(InotifySourceTest, TheSameNumberOfOursMayBeForTheNext) {
    removeA();
    watch("B", 1);
    makeNode(directory_.path("B/new"));
    const Drained drained = drain();
    EXPECT_EQ(textsOf(drained), Texts{"1/new *"});
    EXPECT_EQ(drained.unwatched, Numbers());
    EXPECT_TRUE(source_->isWatched(FileID{1}));
}

TEST_F(InotifySourceTest, AnUnwatchedOneIsNotToldWhenItsWatchComesBack) {
    source_->unwatch(FileID{1});
    removeA();
    watch("B", 2);
    makeNode(directory_.path("B/new"));
    const Drained drained = drain();
    EXPECT_EQ(textsOf(drained), Texts{"2/new *"});
    EXPECT_EQ(drained.unwatched, Numbers());
    EXPECT_EQ(source_->watches(), 1U);
}

TEST_F(InotifySourceTest, AWatchThatWeEndedComesBack) {
    makeNode(directory_.path("A/unread"));
    source_->unwatch(FileID{1});
    drain();
    ASSERT_TRUE(nextWatchIs(1));
    watch("B", 2);
    makeNode(directory_.path("A/late"));
    makeNode(directory_.path("B/new"));
    EXPECT_EQ(textsOf(drain()), Texts{"2/new *"});
}

// The end of the old watch is among what was lost: the new one must not wait for it for ever.
TEST_F(InotifySourceTest, AWatchThatCameBackIsNotDeafAfterAFullQueue) {
    const std::uint64_t limit = limits().inotifyQueuedEvents;
    if (limit == 0 || limit > 100'000) GTEST_SKIP() << "the queue holds " << limit << " events";
    makeDirectories(directory_.path("C"));
    watch("C", 3);
    makeNode(directory_.path("C/0"));
    // Two events each, and never the same twice in a row, which would be one.
    for (std::uint64_t index = 0; index < limit; ++index)
        MUST(::rename(directory_.path("C/" + std::to_string(index % 2)).c_str(),
                      directory_.path("C/" + std::to_string((index + 1) % 2)).c_str()));
    removeA();
    watch("B", 2);
    EXPECT_TRUE(drain().overflowed);
    makeNode(directory_.path("B/new"));
    EXPECT_EQ(textsOf(drain()), Texts{"2/new *"});
}

}  // namespace
}  // namespace tarnwell::watch
