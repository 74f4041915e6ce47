// Limits, missing privileges and unusual file systems, each in a child process that may be given them.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include <sys/mount.h>
#include <sys/stat.h>

#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <unistd.h>

#include "tests/watch/WatchTesting.h"

namespace tarnwell::watch {
namespace {

using testing::makeDirectories;
using Texts = std::vector<std::string>;

std::string skip(const std::string& what) { return "skip: " + what + ": " + std::strerror(errno); }

/// Lowers a limit for this process and its children only: in a user namespace of its own.
bool lowerOwnLimit(const std::string& name, unsigned value) {
    const Descriptor file(::open(("/proc/sys/user/" + name).c_str(), O_WRONLY | O_CLOEXEC));
    const std::string text = std::to_string(value);
    return file.valid() && ::write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

std::size_t watchesOf(const Watcher& watcher, const std::string& source) {
    std::size_t watches = 0;
    for (const SourceStatus& status : watcher.sources())
        if (status.name == source) watches += status.watches;
    return watches;
}

/// A mount namespace whose mounts nobody else sees.
bool enterOwnMounts() {
    return ::unshare(CLONE_NEWNS) == 0 && ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

TEST(WatcherLimitsTest, PastTheLimitOfMarksInotifyTakesOverAndPastBothIsNoSpace) {
    testing::TemporaryDirectory directory;
    for (int number = 1; number <= 10; ++number) makeDirectories(directory.path(std::to_string(number)));
    EXPECT_IN_CHILD([&]() -> std::string {
        if (::unshare(CLONE_NEWUSER) != 0) return skip("no user namespace");
        // One of the inotify watches waits for the end of the file system.
        if (!lowerOwnLimit("max_fanotify_marks", 3) || !lowerOwnLimit("max_inotify_watches", 6))
            return skip("the limits cannot be lowered");
        auto watcher = watcherWith(SourceChoice::automatic);
        const auto watch = [&](int folder, std::uint64_t number) {
            return watchPath(*watcher, directory.path(std::to_string(folder)), number);
        };
        const auto toldOf = [&](int folder, const std::string& name) {
            makeNode(directory.path(std::to_string(folder) + "/" + name));
            return textsOf(*watcher->drain());
        };
        for (int folder = 1; folder <= 5; ++folder) EXPECT_TRUE(watch(folder, static_cast<std::uint64_t>(folder)));
        if (watchesOf(*watcher, "fanotify on file system") > 0) return "skip: one mark for all, which no limit counts";
        if (watchesOf(*watcher, "fanotify") == 0) return "skip: no fanotify in a user namespace";
        EXPECT_EQ(watchesOf(*watcher, "fanotify"), 3U);
        EXPECT_EQ(watchesOf(*watcher, "inotify"), 2U);
        for (int folder = 1; folder <= 5; ++folder)
            EXPECT_EQ(toldOf(folder, "a"), Texts{std::to_string(folder) + "/a *"});

        // A directory that has its mark keeps it, and one number.
        EXPECT_TRUE(watch(2, 22));
        EXPECT_EQ(watchesOf(*watcher, "inotify"), 2U);
        EXPECT_EQ(toldOf(2, "b"), Texts{"22/b *"});
        // A number that goes to a directory of another source leaves its own.
        EXPECT_TRUE(watch(6, 3));
        EXPECT_EQ(watchesOf(*watcher, "fanotify"), 2U);
        EXPECT_EQ(toldOf(3, "c"), Texts());
        EXPECT_EQ(toldOf(6, "c"), Texts{"3/c *"});

        EXPECT_TRUE(watch(7, 7));
        EXPECT_TRUE(watch(8, 8));
        auto refused = watch(9, 9);
        EXPECT_FALSE(refused);
        EXPECT_TRUE(!refused && refused.error().is(ErrorDomain::posix, ENOSPC));
        EXPECT_FALSE(watcher->isWatched(FileID{9}));
        EXPECT_EQ(toldOf(9, "d"), Texts());
        // A watch that was given back is there again, before a drain as well.
        watcher->unwatch(FileID{8});
        EXPECT_TRUE(watch(9, 9));
        EXPECT_EQ(toldOf(9, "e"), Texts{"9/e *"});

        // A mark comes back when its directory is removed. It does not go to a directory that has an inotify watch, but
        // to one for which there is no other.
        ::unlink(directory.path("1/a").c_str());
        ::rmdir(directory.path("1").c_str());
        EXPECT_EQ(watcher->drain()->unwatched, std::vector<FileID>{FileID{1}});
        EXPECT_TRUE(watch(5, 55));
        EXPECT_EQ(toldOf(5, "f"), Texts{"55/f *"});
        EXPECT_TRUE(watch(10, 10));
        EXPECT_EQ(toldOf(10, "f"), Texts{"10/f *"});
        EXPECT_EQ(watchesOf(*watcher, "fanotify"), 2U);
        EXPECT_EQ(watchesOf(*watcher, "inotify"), 5U);
        return "";
    });
}

TEST(WatcherLimitsTest, WithoutAnInotifyInstanceMarksStillWork) {
    testing::TemporaryDirectory directory;
    EXPECT_IN_CHILD([&]() -> std::string {
        if (::unshare(CLONE_NEWUSER) != 0) return skip("no user namespace");
        if (!lowerOwnLimit("max_inotify_instances", 0)) return skip("the limit cannot be lowered");
        auto inotify = watcherWith(SourceChoice::inotify);
        auto refused = watchPath(*inotify, directory.path(), 1);
        EXPECT_FALSE(refused);
        EXPECT_TRUE(!refused && refused.error().is(ErrorDomain::posix, ENOSPC));
        auto watcher = watcherWith(SourceChoice::automatic);
        if (!watchPath(*watcher, directory.path(), 1)) return "skip: no fanotify in a user namespace";
        makeNode(directory.path("new"));
        EXPECT_EQ(textsOf(*watcher->drain()), Texts{"1/new *"});
        return "";
    });
}

TEST(WatcherLimitsTest, WithoutAGroupInotifyWorks) {
    testing::TemporaryDirectory directory;
    EXPECT_IN_CHILD([&]() -> std::string {
        if (::unshare(CLONE_NEWUSER) != 0) return skip("no user namespace");
        if (!lowerOwnLimit("max_fanotify_groups", 0)) return skip("the limit cannot be lowered");
        auto watcher = watcherWith(SourceChoice::automatic);
        EXPECT_TRUE(watchPath(*watcher, directory.path(), 1));
        EXPECT_EQ(watchesOf(*watcher, "inotify"), 1U);
        makeNode(directory.path("new"));
        EXPECT_EQ(textsOf(*watcher->drain()), Texts{"1/new *"});
        return "";
    });
}

/// Gives a folder away and becomes its new owner.
std::string becomeNobody(const std::string& folder) {
    constexpr uid_t kNobody = 65534;
    if (::geteuid() != 0) return "";
    if (::chown(folder.c_str(), kNobody, kNobody) != 0) return skip("no folder of another owner");
    if (::setgroups(0, nullptr) != 0 || ::setresgid(kNobody, kNobody, kNobody) != 0 ||
        ::setresuid(kNobody, kNobody, kNobody) != 0)
        return skip("no other user");
    return "";
}

TEST(WatcherPrivilegesTest, NoneAreNeeded) {
    testing::TemporaryDirectory directory;
    EXPECT_IN_CHILD([&]() -> std::string {
        if (auto answer = becomeNobody(directory.path()); !answer.empty()) return answer;
        for (SourceChoice source : {SourceChoice::automatic, SourceChoice::directoryMarks, SourceChoice::inotify}) {
            auto watcher = watcherWith(source);
            auto watched = watchPath(*watcher, directory.path(), 1);
            if (!watched && source == SourceChoice::directoryMarks) return "skip: " + describe(watched.error());
            EXPECT_TRUE(watched) << describe(watched.error());
            const std::string name = "new" + std::to_string(static_cast<int>(source));
            makeNode(directory.path(name));
            EXPECT_EQ(textsOf(*watcher->drain()), Texts{"1/" + name + " *"});
        }
        auto refused = watchPath(*watcherWith(SourceChoice::fileSystemMarks), directory.path(), 1);
        EXPECT_FALSE(refused) << "a file system was marked without privilege";
        EXPECT_TRUE(!refused && refused.error().is(ErrorDomain::posix, EOPNOTSUPP));
        return "";
    });
}

TEST(WatcherPrivilegesTest, ADirectoryThatMayNotBeReadIsRefusedAndItsOpeningIsTold) {
    testing::TemporaryDirectory directory;
    EXPECT_IN_CHILD([&]() -> std::string {
        if (auto answer = becomeNobody(directory.path()); !answer.empty()) return answer;
        ::mkdir(directory.path("closed").c_str(), 0);
        for (SourceChoice source : {SourceChoice::automatic, SourceChoice::inotify}) {
            auto watcher = watcherWith(source);
            EXPECT_TRUE(watchPath(*watcher, directory.path(), 1));
            auto refused = watchPath(*watcher, directory.path("closed"), 2);
            EXPECT_FALSE(refused);
            EXPECT_TRUE(!refused && refused.error().is(ErrorDomain::posix, EACCES));
            EXPECT_FALSE(watcher->isWatched(FileID{2}));
            EXPECT_EQ(watcher->watches(), 1U);
            watcher->drain();
            ::chmod(directory.path("closed").c_str(), 0700);
            const Drained drained = *watcher->drain();
            EXPECT_TRUE(tells(drained, 2, "") || tells(drained, 1, "closed"));
            EXPECT_TRUE(watchPath(*watcher, directory.path("closed"), 2));
            makeNode(directory.path("closed/new"));
            EXPECT_EQ(textsOf(*watcher->drain()), Texts{"2/new *"});
            ::unlink(directory.path("closed/new").c_str());
            // Readable, but not searchable: what happens to it still matters.
            ::chmod(directory.path("closed").c_str(), 0400);
            EXPECT_TRUE(watchPath(*watcher, directory.path("closed"), 3));
            ::chmod(directory.path("closed").c_str(), 0);
            EXPECT_TRUE(tells(*watcher->drain(), 3, ""));
        }
        return "";
    });
}

TEST(WatcherPlacesTest, AnOverlayIsWatchedByInotifyThroughItsCopyingUp) {
    testing::TemporaryDirectory directory;
    EXPECT_IN_CHILD([&]() -> std::string {
        if (!enterOwnMounts()) return skip("no mounts of our own");
        const std::string base = directory.path("base");
        makeDirectories(base);
        if (::mount("none", base.c_str(), "tmpfs", 0, nullptr) != 0) return skip("no tmpfs");
        for (const char* folder : {"/lower/sub", "/upper", "/work", "/merged"}) makeDirectories(base + folder);
        testing::writeFile(base + "/lower/sub/old", "text");
        const std::string options = "lowerdir=" + base + "/lower,upperdir=" + base + "/upper,workdir=" + base + "/work";
        if (::mount("overlay", (base + "/merged").c_str(), "overlay", 0, options.c_str()) != 0)
            return skip("no overlay");
        for (SourceChoice source : {SourceChoice::automatic, SourceChoice::inotify}) {
            auto watcher = watcherWith(source);
            EXPECT_TRUE(watchPath(*watcher, base + "/merged", 1));
            EXPECT_TRUE(watchPath(*watcher, base + "/merged/sub", 2));
            watcher->drain();
            append(base + "/merged/sub/old", "more");
            EXPECT_TRUE(tells(*watcher->drain(), 2, "old"));
            makeNode(base + "/merged/sub/new");
            EXPECT_TRUE(tells(*watcher->drain(), 2, "new"));
            ::unlink((base + "/merged/sub/new").c_str());
            EXPECT_TRUE(tells(*watcher->drain(), 2, "new"));
        }
        auto refused = watchPath(*watcherWith(SourceChoice::directoryMarks), base + "/merged", 1);
        EXPECT_TRUE(!refused && refused.error().is(ErrorDomain::posix, EOPNOTSUPP));
        return "";
    });
}

TEST(WatcherPlacesTest, AnUnmountedFileSystemEndsUnwatched) {
    testing::TemporaryDirectory directory;
    EXPECT_IN_CHILD([&]() -> std::string {
        if (!enterOwnMounts()) return skip("no mounts of our own");
        const std::string base = directory.path("base");
        makeDirectories(base);
        for (SourceChoice source : {SourceChoice::automatic, SourceChoice::directoryMarks,
                                    SourceChoice::fileSystemMarks, SourceChoice::inotify}) {
            if (::mount("none", base.c_str(), "tmpfs", 0, nullptr) != 0) return skip("no tmpfs");
            makeDirectories(base + "/A/sub");
            auto watcher = watcherWith(source);
            auto watched = watchPath(*watcher, base + "/A/sub", 2);
            if (!watched) {
                ::umount2(base.c_str(), MNT_DETACH);
                continue;
            }
            EXPECT_TRUE(watchPath(*watcher, directory.path(), 1));
            EXPECT_TRUE(watchPath(*watcher, base + "/A", 3));
            // The highest directory of which the watcher knows goes first.
            EXPECT_EQ(watcher->drain()->unwatched, std::vector<FileID>());
            EXPECT_EQ(::umount(base.c_str()), 0) << "held by the watcher: " << std::strerror(errno);
            EXPECT_TRUE(isReadable(*watcher));
            Drained drained = *watcher->drain();
            std::ranges::sort(drained.unwatched);
            EXPECT_EQ(drained.unwatched, (std::vector<FileID>{FileID{2}, FileID{3}}));
            EXPECT_FALSE(watcher->isWatched(FileID{2}));
            EXPECT_EQ(watcher->watches(), 1U);
            // Another file system may get the same device number.
            if (::mount("none", base.c_str(), "tmpfs", 0, nullptr) != 0) return skip("no tmpfs");
            EXPECT_TRUE(watchPath(*watcher, base, 4));
            makeNode(base + "/new");
            EXPECT_TRUE(tells(*watcher->drain(), 4, "new"));
            EXPECT_EQ(::umount(base.c_str()), 0);
            EXPECT_EQ(watcher->drain()->unwatched, std::vector<FileID>{FileID{4}});
        }
        return "";
    });
}

TEST(WatcherPlacesTest, ABindMountTellsOfTheDirectoryItShows) {
    testing::TemporaryDirectory directory;
    EXPECT_IN_CHILD([&]() -> std::string {
        if (!enterOwnMounts()) return skip("no mounts of our own");
        for (const char* folder : {"real", "shown"}) makeDirectories(directory.path(folder));
        if (::mount(directory.path("real").c_str(), directory.path("shown").c_str(), nullptr, MS_BIND, nullptr) != 0)
            return skip("no bind mount");
        auto watcher = watcherWith(SourceChoice::automatic);
        EXPECT_TRUE(watchPath(*watcher, directory.path("shown"), 1));
        makeNode(directory.path("real/below"));
        makeNode(directory.path("shown/through"));
        EXPECT_EQ(textsOf(*watcher->drain()), (Texts{"1/below *", "1/through *"}));
        return "";
    });
}

TEST(WatcherPlacesTest, AFileSystemWithoutHandlesIsWatchedByInotify) {
    if (::access("/proc/self", R_OK) != 0) GTEST_SKIP() << "no such file system here";
    auto watcher = watcherWith(SourceChoice::automatic);
    auto watched = watchPath(*watcher, "/proc/self", 1);
    ASSERT_TRUE(watched) << describe(watched.error());
    EXPECT_EQ(watchesOf(*watcher, "inotify"), 1U);
    EXPECT_EQ(watchesOf(*watcher, "fanotify"), 0U);
}

}  // namespace
}  // namespace tarnwell::watch
