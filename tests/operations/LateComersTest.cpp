#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <functional>

#include "testing/InChild.h"
#include "testing/LongRun.h"
#include "testing/SystemCallFaults.h"
#include "tests/operations/OperationsFixture.h"

/// What somebody puts into a tree while an operation is about to remove it, at each system call in turn.
namespace tarnwell::operations {
namespace {

constexpr const char* kPrecious = "precious";

/// Waits until the file system's clock, which ticks slowly, tells later changes from earlier ones.
void nextTick(const std::string& folder) {
    const std::string probe = folder + "/probe";
    struct stat first{}, now{};
    do {
        testing::writeFile(probe, "");
        if (::stat(probe.c_str(), &now) != 0) std::abort();
        if (first.st_ctim.tv_sec == 0) first = now;
    } while (now.st_ctim.tv_sec == first.st_ctim.tv_sec && now.st_ctim.tv_nsec == first.st_ctim.tv_nsec);
    if (::unlink(probe.c_str()) != 0) std::abort();
}

std::size_t preciousIn(const std::string& path) {
    std::size_t found = 0;
    for (const auto& [name, text] : treeOf(path)) found += text.find(kPrecious) != std::string::npos ? 1 : 0;
    return found;
}

struct Late {
    std::function<std::string(Workplace&)> run;
    /// With the folder "tree" and its "inner", opened before.
    std::function<void(int tree, int inner, const std::string& base)> act;
};

/// Runs it with the act at every call. Each time the precious file is somewhere, or came before the tree lost its name.
std::string everyCall(const Late& late, bool mayGoWithTheTree) {
    const testing::TemporaryDirectory directory;
    return testing::inChild([&]() -> std::string {
        if (const auto reason = testing::becomeOwnerOfMounts()) return "skip: " + *reason;
        std::size_t runs = 0, cameLate = 0;
        for (std::size_t at = 0;; at += testing::isLongRun() ? 1 : 2) {
            const std::string base = directory.path(std::to_string(at));
            testing::makeDirectories(base);
            if (::mount("tarnwell", base.c_str(), "tmpfs", 0, nullptr) != 0) return "skip: no tmpfs";
            testing::makeDirectories(base + "/Documents/other");
            if (::mount("tarnwell", (base + "/Documents/other").c_str(), "tmpfs", 0, nullptr) != 0) return "no tmpfs";
            testing::makeDirectories(base + "/Documents/tree/inner/deeper");
            testing::makeDirectories(base + "/Documents/kept");
            testing::writeFile(base + "/Documents/kept/file", kPrecious);
            testing::writeFile(base + "/Documents/tree/inner/deeper/file", "plain");
            testing::writeFile(base + "/Documents/tree/file", "plain");
            const Descriptor tree(::open((base + "/Documents/tree").c_str(), O_RDONLY | O_CLOEXEC));
            const Descriptor inner(::openat(tree.get(), "inner", O_RDONLY | O_CLOEXEC));
            bool hadName = false;
            testing::SystemCallFault fault{testing::SystemCallFault::Kind::act, at};
            fault.act = [&] {
                struct stat status{};
                hadName = ::lstat((base + "/Documents/tree").c_str(), &status) == 0;
                nextTick(base);
                late.act(tree.get(), inner.get(), base);
            };
            const auto run = testing::runWithFault(fault, [&](const std::function<void()>& begin) {
                Workplace place(base);
                begin();
                std::string text = late.run(place);
                (void)place.store.release();
                return text;
            });
            if (!run) return "skip: no seccomp listener";
            const std::size_t found = preciousIn(base + "/Documents");
            const bool isLost = found == 0 && !(mayGoWithTheTree && hadName);
            ::umount2((base + "/Documents/other").c_str(), MNT_DETACH);
            ::umount2(base.c_str(), MNT_DETACH);
            if (isLost)
                return "lost at call " + std::to_string(at) + " (number " + std::to_string(run->call) +
                       "): " + run->text;
            if (!run->befell) break;
            ++runs;
            if (!hadName && found > 0) ++cameLate;
        }
        if (runs < 10) return "only " + std::to_string(runs) + " runs";
        return cameLate > 0 ? "" : "nothing came late";
    });
}

void check(const Late& late, bool mayGoWithTheTree) {
    const std::string found = everyCall(late, mayGoWithTheTree);
    if (found.starts_with("skip: ")) GTEST_SKIP() << found.substr(6);
    EXPECT_EQ(found, "");
}

std::string deletion(Workplace& at) { return sentence(removeItem(*at.context, at.place("tree"))); }
std::string moving(Workplace& at) {
    return sentence(moveItem(*at.context, at.place("tree"), at.place("other"), "tree"));
}

TEST(LateComers, AFolderThatIsMovedIntoADeletedTreeIsNotDeletedWithIt) {
    check({deletion,
           [](int, int inner, const std::string& base) {
               (void)::renameat(AT_FDCWD, (base + "/Documents/kept").c_str(), inner, "kept");
           }},
          true);
}

TEST(LateComers, AFileThatIsWrittenInADeletedTreeIsNotDeletedWithIt) {
    check({deletion,
           [](int tree, int, const std::string& base) {
               (void)::renameat(AT_FDCWD, (base + "/Documents/kept/file").c_str(), tree, "late");
           }},
          true);
}

TEST(LateComers, WhatComesIntoATreeThatMovesToAnotherFileSystemIsNeverLost) {
    check({moving,
           [](int, int inner, const std::string& base) {
               if (::renameat(AT_FDCWD, (base + "/Documents/kept").c_str(), inner, "kept") == 0) return;
               // The folder is gone already; then so is the move.
               EXPECT_EQ(errno, ENOENT);
           }},
          false);
}

class LateComersTest : public OperationsTest {};

TEST_F(LateComersTest, HardLinksOfADeletedTreeAreNotTakenForNews) {
    at_.folder("tree/a");
    at_.folder("tree/b");
    at_.file("tree/file", "x");
    for (const char* name : {"tree/second", "tree/a/third", "tree/b/fourth"}) {
        ASSERT_EQ(::link(at_.path("tree/file").c_str(), at_.path(name).c_str()), 0);
    }
    nextTick(at_.base);
    const auto removed = removeItem(context(), at_.place("tree"));
    EXPECT_TRUE(removed) << describe(removed.error());
    EXPECT_FALSE(at_.exists("tree"));
}

TEST(LateComers, ACopyThatSomebodyWroteToIsNotTakenBack) {
    const testing::TemporaryDirectory directory;
    const std::string found = testing::inChild([&]() -> std::string {
        if (const auto reason = testing::becomeOwnerOfMounts()) return "skip: " + *reason;
        Workplace at(directory.path());
        at.folder("other");
        if (::mount("tarnwell", at.path("other").c_str(), "tmpfs", 0, nullptr) != 0) return "skip: no tmpfs";
        at.file("a.txt", "source");
        MoveOptions options;
        options.copied = [&](const CopiedObject&) {
            testing::writeFile(at.path("other/a.txt"), "precious, written into the copy");
            testing::writeFile(at.path("a.txt"), "source, written, too");
        };
        const auto moved = moveItem(*at.context, at.place("a.txt"), at.place("other"), "a.txt", options);
        if (moved) return "moved";
        if (at.read("a.txt") != "source, written, too") return "the source is gone";
        if (!at.exists("other/a.txt")) return "the copy is gone with what was written into it";
        if (sentence(moved).find("a copy of it is left") == std::string::npos) return sentence(moved);
        return at.records() == 0 ? "" : "a record is left";
    });
    if (found.starts_with("skip: ")) GTEST_SKIP() << found.substr(6);
    EXPECT_EQ(found, "");
}

TEST_F(LateComersTest, ADocumentBelowARootIsNotReadThroughALinkThatLeadsOut) {
    testing::makeDirectories(at_.outside("folder"));
    testing::writeFile(at_.outside("folder/secret.txt"), "secret");
    at_.folder("to");
    at_.file("inside.txt", "inside");
    ASSERT_EQ(::symlink(at_.outside("folder").c_str(), at_.path("link").c_str()), 0);
    ASSERT_EQ(::symlink(at_.outside("folder/secret.txt").c_str(), at_.path("secret.txt").c_str()), 0);
    ASSERT_EQ(::symlink("inside.txt", at_.path("alias.txt").c_str()), 0);
    for (const char* document : {"link/secret.txt", "secret.txt", "link"}) {
        const auto imported = importItem(context(), at_.path(document), at_.place("to"));
        EXPECT_FALSE(imported) << document;
    }
    EXPECT_TRUE(treeOf(at_.path("to")).empty());
    ASSERT_TRUE(importItem(context(), at_.path("alias.txt"), at_.place("to")));
    EXPECT_EQ(at_.read("to/alias.txt"), "inside");
}

}  // namespace
}  // namespace tarnwell::operations
