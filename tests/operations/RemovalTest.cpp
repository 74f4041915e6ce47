#include <fcntl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "testing/InChild.h"
#include "tests/operations/OperationsFixture.h"

namespace tarnwell::operations {
namespace {

class RemovalTest : public OperationsTest {};

TEST_F(RemovalTest, FilesLinksAndFoldersGoAndNothingElse) {
    testing::writeFile(at_.outside("secret"), "x");
    at_.file("a.txt");
    at_.file("folder/inner/b.txt");
    at_.folder("empty");
    ASSERT_EQ(::symlink(at_.outside().c_str(), at_.path("link").c_str()), 0);
    ASSERT_EQ(::symlink(at_.outside().c_str(), at_.path("folder/link").c_str()), 0);
    ASSERT_EQ(::mkfifo(at_.path("folder/pipe").c_str(), 0644), 0);
    for (const char* name : {"a.txt", "folder", "empty", "link"}) {
        const auto removed = removeItem(context(), at_.place(name));
        EXPECT_TRUE(removed) << describe(removed.error());
    }
    EXPECT_TRUE(at_.tree().empty());
    EXPECT_EQ(testing::readFile(at_.outside("secret")), "x");
    EXPECT_TRUE(removeItem(context(), at_.place("a.txt")).error().is(ErrorDomain::posix, ENOENT));
    EXPECT_TRUE(removeItem(context(), at_.place("")).error().is(ErrorDomain::posix, EBUSY));
}

TEST_F(RemovalTest, ADeepAndWideTreeGoesWithFewDescriptors) {
    {
        Descriptor folder(::open(at_.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        for (int i = 0; i < 6000; ++i) {
            ASSERT_EQ(::mkdirat(folder.get(), "d", 0755), 0);
            folder = Descriptor(::openat(folder.get(), "d", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
            ASSERT_TRUE(folder.valid());
        }
        for (int i = 0; i < 2000; ++i) {
            const std::string name = "file " + std::to_string(i);
            const Descriptor file(::openat(folder.get(), name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
        }
    }
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    rlimit few = before;
    few.rlim_cur = 40;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
    const auto removed = removeItem(context(), at_.place("d"));
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_TRUE(removed) << describe(removed.error());
    EXPECT_TRUE(at_.tree().empty());
}

std::string asNobody(const std::string& base, const std::function<std::string(Workplace&)>& body) {
    return testing::inChild([&]() -> std::string {
        if (::geteuid() == 0) {
            if (::chown(base.c_str(), 65534, 65534) != 0 || ::setgid(65534) != 0 || ::setuid(65534) != 0) return "skip";
        }
        Workplace at(base);
        return body(at);
    });
}

TEST(RemovalByOthers, AFolderThatMayNotBeChangedIsFoundBeforeAnythingIsGone) {
    const testing::TemporaryDirectory directory;
    const std::string found = asNobody(directory.path(), [](Workplace& at) -> std::string {
        at.file("folder/a/file");
        at.file("folder/closed/file");
        at.file("folder/z/file");
        if (::chmod(at.path("folder/closed").c_str(), 0555) != 0) return "no chmod";
        const auto before = at.tree();
        const auto removed = removeItem(*at.context, at.place("folder"));
        if (removed) return "removed";
        if (!removed.error().is(ErrorDomain::generalFile, kWriteNotPermitted)) return describe(removed.error());
        if (sentence(removed).find("folder/closed\" cannot be removed, and nothing was") == std::string::npos) {
            return sentence(removed);
        }
        if (at.tree() != before) return "something is gone";
        return at.records() == 0 ? "" : "a record is left";
    });
    if (found == "skip") GTEST_SKIP() << "cannot become another user";
    EXPECT_EQ(found, "");
}

TEST(RemovalByOthers, MissingPermissionNamesTheFolder) {
    const testing::TemporaryDirectory directory;
    const std::string found = asNobody(directory.path(), [](Workplace& at) -> std::string {
        at.file("closed/a.txt");
        at.file("b.txt");
        testing::writeFile(at.outside("unreadable"), "x");
        if (::chmod(at.outside("unreadable").c_str(), 0) != 0) return "no chmod";
        if (::chmod(at.path("closed").c_str(), 0555) != 0) return "no chmod";
        const auto check = [&](const auto& result, const std::string& says) -> std::string {
            if (result) return "done; ";
            if (!result.error().is(ErrorDomain::generalFile, kWriteNotPermitted)) return describe(result.error());
            return sentence(result).find(says) != std::string::npos ? "" : sentence(result) + "; ";
        };
        const std::string folder = "you may not change the folder \"" + at.path("closed") + "\"";
        return check(renameItem(*at.context, at.place("closed/a.txt"), "c"), folder) +
               check(moveItem(*at.context, at.place("b.txt"), at.place("closed"), "b.txt"), folder) +
               check(moveItem(*at.context, at.place("closed/a.txt"), at.place(""), "a.txt"), folder) +
               check(makeFolder(*at.context, at.place("closed"), "new"), folder) +
               check(removeItem(*at.context, at.place("closed/a.txt")), folder) +
               check(importItem(*at.context, at.path("b.txt"), at.place("closed")), folder) +
               check(importItem(*at.context, at.outside("unreadable"), at.place("")), "no permission");
    });
    if (found == "skip") GTEST_SKIP() << "cannot become another user";
    EXPECT_EQ(found, "");
}

TEST(RemovalByOthers, ATreeWithAMountPointStaysWhole) {
    const testing::TemporaryDirectory directory;
    const std::string found = testing::inChild([&]() -> std::string {
        if (const auto reason = testing::becomeOwnerOfMounts()) return "skip: " + *reason;
        Workplace at(directory.path());
        at.file("folder/a/file");
        at.folder("folder/mounted");
        if (::mount("tarnwell", at.path("folder/mounted").c_str(), "tmpfs", 0, nullptr) != 0) return "skip: no tmpfs";
        at.file("folder/mounted/file");
        const auto before = at.tree();
        for (const char* name : {"folder", "folder/mounted"}) {
            const auto removed = removeItem(*at.context, at.place(name));
            if (removed) return "removed";
            if (!removed.error().is(ErrorDomain::posix, EBUSY)) return describe(removed.error());
            if (sentence(removed).find("another file system is mounted there") == std::string::npos) {
                return sentence(removed);
            }
            if (at.tree() != before) return "something is gone";
        }
        return at.records() == 0 ? "" : "a record is left";
    });
    if (found.starts_with("skip: ")) GTEST_SKIP() << found.substr(6);
    EXPECT_EQ(found, "");
}

}  // namespace
}  // namespace tarnwell::operations
