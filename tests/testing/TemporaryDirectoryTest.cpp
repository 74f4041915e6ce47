#include "testing/TemporaryDirectory.h"

#include <csignal>
#include <filesystem>
#include <string>

#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace tarnwell::testing {
namespace {

namespace fs = std::filesystem;

TEST(TemporaryDirectory, IsAnEmptyPrivateFolderAtItsRealPath) {
    TemporaryDirectory directory;
    EXPECT_EQ(fs::canonical(directory.path()).string(), directory.path());
    EXPECT_TRUE(fs::is_empty(directory.path()));
    EXPECT_EQ(fs::status(directory.path()).permissions(), fs::perms::owner_all);
    EXPECT_EQ(directory.path("a/b"), directory.path() + "/a/b");
    EXPECT_NE(TemporaryDirectory().path(), directory.path());
}

TEST(TemporaryDirectory, GoesWithWhatIsInItButNotWithWhatLinksLeadTo) {
    TemporaryDirectory outside;
    writeFile(outside.path("kept"), "kept");
    std::string path;
    {
        TemporaryDirectory directory;
        path = directory.path();
        makeDirectories(directory.path("a/b/c"));
        writeFile(directory.path("a/b/c/file"), "x");
        fs::create_directory_symlink(outside.path(), directory.path("link"));
        fs::create_symlink("nowhere", directory.path("a/dangling"));
        ASSERT_EQ(::mkfifo(directory.path("a/fifo").c_str(), 0600), 0);
        ASSERT_EQ(::chmod(directory.path("a/b/c").c_str(), 0), 0);
        ASSERT_EQ(::chmod(directory.path("a/b").c_str(), 0500), 0);
    }
    EXPECT_FALSE(fs::exists(path));
    EXPECT_EQ(readFile(outside.path("kept")), "kept");
}

TEST(TemporaryDirectory, MayBeGoneAlready) {
    TemporaryDirectory directory;
    fs::remove_all(directory.path());
}

TEST(TestFiles, WriteFileReplacesTheContent) {
    TemporaryDirectory directory;
    const std::string big(1 << 20, 'x');
    writeFile(directory.path("file"), big);
    EXPECT_EQ(readFile(directory.path("file")), big);
    writeFile(directory.path("file"), std::string("a\0b", 3));
    EXPECT_EQ(readFile(directory.path("file")), std::string("a\0b", 3));
    writeFile(directory.path("file"), "");
    EXPECT_EQ(readFile(directory.path("file")), "");
}

TEST(TestFiles, SetUserAttributeAddsTheNamespace) {
    TemporaryDirectory directory;
    writeFile(directory.path("file"), "");
    if (::setxattr(directory.path("file").c_str(), "user.probe", "", 0, 0) != 0)
        GTEST_SKIP() << "no user attributes on the file system of " << directory.path();
    setUserAttribute(directory.path("file"), "some.name", "value");
    char buffer[16];
    ssize_t length = ::getxattr(directory.path("file").c_str(), "user.some.name", buffer, sizeof buffer);
    ASSERT_EQ(length, 5);
    EXPECT_EQ(std::string(buffer, 5), "value");
}

TEST(TestFilesDeathTest, AFailureNamesThePathAndStopsTheProgram) {
    TemporaryDirectory directory;
    EXPECT_EXIT(readFile(directory.path("missing")), ::testing::KilledBySignal(SIGABRT),
                "test: can't open .*/missing: POSIX ENOENT \\(No such file or directory\\)");
    EXPECT_EXIT(writeFile(directory.path("no/file"), "x"), ::testing::KilledBySignal(SIGABRT), "test: can't create");
}

}  // namespace
}  // namespace tarnwell::testing
