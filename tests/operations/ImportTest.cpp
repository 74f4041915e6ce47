#include <fcntl.h>
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <thread>

#include "tests/operations/OperationsFixture.h"

namespace tarnwell::operations {
namespace {

class ImportTest : public OperationsTest {
protected:
    std::string source(const std::string& name, std::string_view content = "content") {
        testing::writeFile(at_.outside(name), content);
        return at_.outside(name);
    }
    Result<Place> import(const std::string& path, const std::string& folder = "") {
        return importItem(context(), path, at_.place(folder));
    }
};

struct stat statusOf(const std::string& path) {
    struct stat status{};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    return status;
}

TEST_F(ImportTest, AFileComesWithContentAttributesPermissionsAndTimes) {
    const std::string path = source("a.txt", std::string(3'000'000, 'x'));
    testing::setUserAttribute(path, "tag", "value");
    testing::setUserAttribute(path, "empty", "");
    ASSERT_EQ(::chmod(path.c_str(), 0640), 0);
    const std::array<struct timespec, 2> times{timespec{1000, 1}, timespec{2000, 123456789}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times.data(), 0), 0);
    const auto imported = import(path);
    ASSERT_TRUE(imported) << describe(imported.error());
    EXPECT_EQ(imported->relative, "a.txt");
    EXPECT_EQ(at_.read("a.txt"), std::string(3'000'000, 'x'));
    const auto status = statusOf(at_.path("a.txt"));
    EXPECT_EQ(status.st_mode & 07777, 0640u);
    EXPECT_EQ(status.st_mtim.tv_sec, 2000);
    EXPECT_EQ(status.st_mtim.tv_nsec, 123456789);
    std::array<char, 16> value;
    EXPECT_EQ(::getxattr(at_.path("a.txt").c_str(), "user.tag", value.data(), value.size()), 5);
    EXPECT_EQ(::getxattr(at_.path("a.txt").c_str(), "user.empty", value.data(), value.size()), 0);
    EXPECT_EQ(testing::readFile(path).size(), 3'000'000u);
}

TEST_F(ImportTest, AnAccessListComesAlong) {
    const std::string path = source("a.txt");
    if (std::system(("setfacl -m u:65534:r '" + path + "'").c_str()) != 0) GTEST_SKIP() << "no access lists here";
    ASSERT_TRUE(import(path));
    std::array<char, 256> before, after;
    const ssize_t size = ::getxattr(path.c_str(), "system.posix_acl_access", before.data(), before.size());
    ASSERT_GT(size, 0);
    ASSERT_EQ(::getxattr(at_.path("a.txt").c_str(), "system.posix_acl_access", after.data(), after.size()), size);
    EXPECT_TRUE(std::equal(before.begin(), before.begin() + size, after.begin()));
    EXPECT_EQ(statusOf(at_.path("a.txt")).st_mode, statusOf(path).st_mode);
}

TEST_F(ImportTest, TheRightsOfAProgramAreNotTakenOver) {
    const std::string path = source("a.sh");
    ASSERT_EQ(::chmod(path.c_str(), 06755), 0);
    ASSERT_TRUE(import(path));
    EXPECT_EQ(statusOf(at_.path("a.sh")).st_mode & 07777, 0755u);
}

TEST_F(ImportTest, HolesStayHoles) {
    const std::string path = source("sparse", "begin");
    const off_t size = off_t{200} << 20;
    {
        const Descriptor file(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
        ASSERT_EQ(::pwrite(file.get(), "middle", 6, off_t{100} << 20), 6);
        ASSERT_EQ(::ftruncate(file.get(), size), 0);
    }
    ASSERT_TRUE(import(path));
    const auto status = statusOf(at_.path("sparse"));
    EXPECT_EQ(status.st_size, size);
    EXPECT_LT(status.st_blocks * 512, off_t{1} << 20);
    const Descriptor copy(::open(at_.path("sparse").c_str(), O_RDONLY | O_CLOEXEC));
    std::array<char, 6> middle;
    ASSERT_EQ(::pread(copy.get(), middle.data(), middle.size(), off_t{100} << 20), 6);
    EXPECT_EQ(std::string(middle.data(), 6), "middle");
    ASSERT_EQ(::pread(copy.get(), middle.data(), 5, 0), 5);
    EXPECT_EQ(std::string(middle.data(), 5), "begin");
}

TEST_F(ImportTest, FourGiBAreSharedWhereTheFileSystemCan) {
    const std::string path = source("big", std::string(8 << 20, 'x'));
    const off_t size = off_t{4} << 30;
    const Descriptor file(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    if (::ftruncate(file.get(), size) != 0 || ::pwrite(file.get(), "end", 3, size - 3) != 3) {
        GTEST_SKIP() << "this file system has no such files";
    }
    {
        const Descriptor probe(::open(at_.outside("probe").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
        if (::ioctl(probe.get(), FICLONE, file.get()) != 0) GTEST_SKIP() << "this file system shares no blocks";
    }
    const auto imported = import(path);
    ASSERT_TRUE(imported) << describe(imported.error());
    EXPECT_EQ(statusOf(at_.path("big")).st_size, size);
    const Descriptor copy(::open(at_.path("big").c_str(), O_RDONLY | O_CLOEXEC));
    std::array<char, 3> end;
    ASSERT_EQ(::pread(copy.get(), end.data(), end.size(), size - 3), 3);
    EXPECT_EQ(std::string(end.data(), 3), "end");
    // The kernel says of the first extent that others use it, too.
    alignas(fiemap) std::array<std::byte, sizeof(fiemap) + sizeof(fiemap_extent)> buffer{};
    auto* asked = reinterpret_cast<fiemap*>(buffer.data());
    asked->fm_length = std::uint64_t(size);
    asked->fm_flags = FIEMAP_FLAG_SYNC;
    asked->fm_extent_count = 1;
    ASSERT_EQ(::ioctl(copy.get(), FS_IOC_FIEMAP, asked), 0);
    ASSERT_EQ(asked->fm_mapped_extents, 1u);
    EXPECT_NE(asked->fm_extents[0].fe_flags & FIEMAP_EXTENT_SHARED, 0u);
}

TEST_F(ImportTest, SizesAroundTheStepsAreCopiedWhole) {
    for (const std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{4095}, std::size_t{4097},
                                   std::size_t{1} << 20, (std::size_t{8} << 20) - 1, (std::size_t{8} << 20) + 1}) {
        std::string content(size, '\0');
        for (std::size_t i = 0; i < size; ++i) content[i] = static_cast<char>(i * 7 + i / 251);
        const std::string name = "size " + std::to_string(size);
        ASSERT_TRUE(import(source(name, content)));
        EXPECT_TRUE(at_.read(name) == content) << size;
    }
}

TEST_F(ImportTest, ATakenNameIsACollision) {
    at_.file("a.txt", "mine");
    const auto imported = import(source("a.txt", "theirs"));
    ASSERT_FALSE(imported);
    EXPECT_TRUE(imported.error().is(ErrorDomain::generalFile, kFileExists));
    EXPECT_EQ(imported.error().userInfo.at(kErrorPath), at_.path("a.txt"));
    EXPECT_EQ(at_.read("a.txt"), "mine");
    // Also into its own folder.
    EXPECT_TRUE(import(at_.path("a.txt")).error().is(ErrorDomain::generalFile, kFileExists));
    testing::makeDirectories(at_.outside("folder/inner"));
    at_.folder("folder");
    EXPECT_TRUE(import(at_.outside("folder")).error().is(ErrorDomain::generalFile, kFileExists));
    EXPECT_EQ(at_.tree().size(), 2u);
}

TEST_F(ImportTest, WhatIsNoFileIsRefusedInWords) {
    ASSERT_EQ(::mkfifo(at_.outside("pipe").c_str(), 0644), 0);
    const Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string socketPath = at_.outside("s");
    if (socketPath.size() < sizeof address.sun_path) {
        socketPath.copy(address.sun_path, socketPath.size());
        ASSERT_EQ(::bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    for (const std::string& path : {at_.outside("pipe"), at_.outside("s"), std::string("/dev/null")}) {
        const auto imported = import(path);
        ASSERT_FALSE(imported) << path;
        EXPECT_TRUE(imported.error().is(ErrorDomain::posix, EINVAL)) << describe(imported.error());
        EXPECT_NE(sentence(imported).find("a pipe, a socket or a device"), std::string::npos) << sentence(imported);
    }
    // Somewhere in a folder, too, and nothing of the folder stays.
    testing::makeDirectories(at_.outside("folder/inner"));
    testing::writeFile(at_.outside("folder/a"), "a");
    ASSERT_EQ(::mkfifo(at_.outside("folder/inner/pipe").c_str(), 0644), 0);
    const auto folder = import(at_.outside("folder"));
    ASSERT_FALSE(folder);
    EXPECT_NE(sentence(folder).find("folder/inner/pipe"), std::string::npos) << sentence(folder);
    EXPECT_TRUE(at_.tree().empty());
    EXPECT_TRUE(import("").error().is(ErrorDomain::posix, EINVAL));
    EXPECT_TRUE(import("/").error().is(ErrorDomain::posix, EINVAL));
    EXPECT_TRUE(import(at_.outside("none")).error().is(ErrorDomain::posix, ENOENT));
}

TEST_F(ImportTest, FilesOfTheKernelsAreNotTakenAsEmpty) {
    const auto imported = import("/proc/self/status");
    ASSERT_FALSE(imported);
    EXPECT_NE(sentence(imported).find("nothing was imported"), std::string::npos) << sentence(imported);
    EXPECT_TRUE(at_.tree().empty());
}

TEST_F(ImportTest, ALinkThatIsTheDocumentIsFollowed) {
    source("target", "text");
    ASSERT_EQ(::symlink("target", at_.outside("link").c_str()), 0);
    const auto imported = import(at_.outside("link"));
    ASSERT_TRUE(imported) << describe(imported.error());
    EXPECT_EQ(imported->relative, "link");
    EXPECT_EQ(at_.tree().at("link").substr(4), "text");
}

TEST_F(ImportTest, AFolderComesWithAllThatItHolds) {
    testing::makeDirectories(at_.outside("folder/inner/empty"));
    testing::writeFile(at_.outside("folder/a.txt"), "a");
    testing::writeFile(at_.outside("folder/inner/\xff.txt"), "b");
    testing::setUserAttribute(at_.outside("folder/inner"), "tag", "value");
    ASSERT_EQ(::symlink("/nowhere", at_.outside("folder/link").c_str()), 0);
    ASSERT_EQ(::chmod(at_.outside("folder/a.txt").c_str(), 0400), 0);
    ASSERT_EQ(::chmod(at_.outside("folder/inner").c_str(), 0555), 0);
    const std::array<struct timespec, 2> times{timespec{1000, 1}, timespec{2000, 5}};
    for (const char* name : {"folder/inner", "folder"}) {
        ASSERT_EQ(::utimensat(AT_FDCWD, at_.outside(name).c_str(), times.data(), 0), 0);
    }
    const auto imported = import(at_.outside("folder"));
    ASSERT_TRUE(imported) << describe(imported.error());
    EXPECT_EQ(treeOf(at_.path("folder")), treeOf(at_.outside("folder")));
    for (const char* name : {"folder/inner", "folder"}) {
        EXPECT_EQ(statusOf(at_.path(name)).st_mode, statusOf(at_.outside(name)).st_mode);
        EXPECT_EQ(statusOf(at_.path(name)).st_mtim.tv_sec, 2000);
    }
    std::array<char, 16> value;
    EXPECT_EQ(::getxattr(at_.path("folder/inner").c_str(), "user.tag", value.data(), value.size()), 5);
}

TEST_F(ImportTest, AFolderDoesNotGoIntoItself) {
    at_.file("folder/inner/a.txt");
    const auto before = at_.tree();
    for (const char* target : {"folder", "folder/inner"}) {
        const auto imported = import(at_.path("folder"), target);
        ASSERT_FALSE(imported);
        EXPECT_NE(sentence(imported).find("into itself"), std::string::npos) << sentence(imported);
    }
    const auto above = import(at_.base);
    ASSERT_FALSE(above);
    EXPECT_EQ(at_.tree(), before);
}

TEST_F(ImportTest, AFolderNestedTooDeepIsRefused) {
    Descriptor folder(::open(at_.outside().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (int i = 0; i < 2100; ++i) {
        ASSERT_EQ(::mkdirat(folder.get(), "d", 0755), 0);
        folder = Descriptor(::openat(folder.get(), "d", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        ASSERT_TRUE(folder.valid());
    }
    const auto imported = import(at_.outside("d"));
    ASSERT_FALSE(imported);
    EXPECT_NE(sentence(imported).find("too deep"), std::string::npos) << sentence(imported);
    EXPECT_TRUE(at_.tree().empty());
    ASSERT_EQ(std::system(("rm -rf '" + at_.outside("d") + "'").c_str()), 0);
}

TEST_F(ImportTest, ProgressIsToldAndACancelledImportLeavesNothing) {
    testing::makeDirectories(at_.outside("folder"));
    for (int i = 0; i < 5; ++i) {
        testing::writeFile(at_.outside("folder/" + std::to_string(i)), std::string(std::size_t{4} << 20, 'x'));
    }
    TransferProgress last;
    std::uint64_t largestStep = 0;
    TransferMonitor monitor([&](const TransferProgress& progress) {
        EXPECT_GE(progress.bytesDone, last.bytesDone);
        largestStep = std::max(largestStep, progress.bytesDone - last.bytesDone);
        last = progress;
    });
    ASSERT_TRUE(importItem(context(), at_.outside("folder"), at_.place(""), &monitor));
    EXPECT_EQ(last.bytesDone, std::uint64_t{20} << 20);
    EXPECT_EQ(last.bytesTotal, last.bytesDone);
    EXPECT_EQ(last.itemsDone, 6u);
    EXPECT_EQ(last.itemsTotal, 6u);
    EXPECT_LE(largestStep, std::uint64_t{8} << 20);

    at_.folder("other");
    for (const std::uint64_t when : {std::uint64_t{0}, std::uint64_t{1}, std::uint64_t{10} << 20}) {
        TransferMonitor* self = nullptr;
        TransferMonitor cancelling([&](const TransferProgress& progress) {
            if (progress.bytesDone >= when) self->cancel();
        });
        self = &cancelling;
        if (when == 0) cancelling.cancel();
        const auto imported = importItem(context(), at_.outside("folder"), at_.place("other"), &cancelling);
        ASSERT_FALSE(imported);
        EXPECT_TRUE(imported.error().is(ErrorDomain::posix, ECANCELED)) << describe(imported.error());
        EXPECT_TRUE(treeOf(at_.path("other")).empty());
    }
}

/// Changes the source once in the midst of the copy, so many times as told.
TEST_F(ImportTest, ASourceThatIsWrittenMeanwhileIsNotImported) {
    const std::string path = source("a.txt", std::string(std::size_t{20} << 20, 'x'));
    bool isInSteps = false;
    const auto importWithChanges = [&](int changes) {
        // Each attempt passes this point once.
        TransferMonitor monitor([&](const TransferProgress& progress) {
            if (progress.bytesDone != std::uint64_t{8} << 20 || changes == 0) return;
            isInSteps = true;
            --changes;
            const Descriptor file(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
            EXPECT_EQ(::pwrite(file.get(), "changed", 7, 0), 7);
        });
        return importItem(context(), path, at_.place(""), &monitor);
    };
    const auto twice = importWithChanges(2);
    if (!isInSteps) GTEST_SKIP() << "this file system shares the blocks of one moment";
    ASSERT_FALSE(twice);
    EXPECT_TRUE(twice.error().is(ErrorDomain::posix, EBUSY)) << describe(twice.error());
    EXPECT_EQ(sentence(twice), "\"" + path + "\" is being changed; nothing was imported");
    EXPECT_TRUE(at_.tree().empty());
    const auto once = importWithChanges(1);
    ASSERT_TRUE(once) << describe(once.error());
    EXPECT_TRUE(at_.read("a.txt") == testing::readFile(path));
}

TEST_F(ImportTest, AFolderThatIsChangedMeanwhileIsNotImported) {
    testing::makeDirectories(at_.outside("folder"));
    for (const char* name : {"a", "b", "c"}) testing::writeFile(at_.outside("folder/") + name, "x");
    bool done = false;
    TransferMonitor monitor([&](const TransferProgress& progress) {
        if (done || progress.itemsDone < 2) return;
        done = true;
        testing::writeFile(at_.outside("folder/later"), "x");
    });
    const auto imported = importItem(context(), at_.outside("folder"), at_.place(""), &monitor);
    ASSERT_FALSE(imported);
    EXPECT_NE(sentence(imported).find("being changed; nothing was imported"), std::string::npos);
    EXPECT_TRUE(at_.tree().empty());
}

/// True for what the file was at some moment: a version, or one that is being written, from the front, over the one
/// before.
bool isOneMoment(const std::string& content) {
    const std::size_t end = content.find_first_not_of(content[0]);
    if (end == std::string::npos) return true;
    const char before = content[end], after = before == 'z' ? 'a' : static_cast<char>(before + 1);
    return content[0] == after && content.find_first_not_of(before, end) == std::string::npos;
}

/// A file whose every block tells the version.
TEST_F(ImportTest, AnImportBesideAWriterIsTheFileOfOneMomentOrNone) {
    const std::string path = source("a", std::string(std::size_t{2} << 20, 'a'));
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        const Descriptor file(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
        for (char version = 'b'; !stop.load(); version = version == 'z' ? 'a' : static_cast<char>(version + 1)) {
            const std::string block(std::size_t{64} << 10, version);
            for (off_t at = 0; at < off_t{2} << 20; at += off_t{64} << 10) {
                EXPECT_EQ(::pwrite(file.get(), block.data(), block.size(), at), static_cast<ssize_t>(block.size()));
            }
            for (int pause = 0; pause < 500; ++pause) std::this_thread::yield();
        }
    });
    int imported = 0;
    for (int i = 0; i < 60; ++i) {
        if (!import(path)) continue;
        ++imported;
        const std::string content = at_.read("a");
        EXPECT_TRUE(isOneMoment(content)) << "a mixture of several moments at try " << i;
        ASSERT_TRUE(removeItem(context(), at_.place("a")));
    }
    stop = true;
    writer.join();
    EXPECT_TRUE(import(path)) << "and once nobody writes it comes (" << imported << " before)";
}

}  // namespace
}  // namespace tarnwell::operations
