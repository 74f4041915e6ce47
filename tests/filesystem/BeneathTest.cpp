#include "platform/filesystem/Beneath.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <limits>
#include <set>
#include <thread>

#include "tests/filesystem/Sandbox.h"

namespace tarnwell::filesystem {
namespace {

/// "opened" or the name of the errno.
std::string outcome(const Result<Descriptor>& result) {
    return result ? "opened" : errnoName(static_cast<int>(result.error().code));
}

TEST(OpenBeneath, StaysBelowTheFolderAndFollowsNoLink) {
    const Sandbox sandbox;
    sandbox.file("outside", "outside");
    sandbox.file("root/folder/file", "inside");
    sandbox.link("root/toFile", "folder/file");
    sandbox.link("root/toFolder", "folder");
    sandbox.link("root/toOutside", "../outside");
    sandbox.link("root/toParent", "..");
    sandbox.link("root/absolute", sandbox.path("root/folder"));
    const Descriptor root = sandbox.open("root");
    struct Row {
        std::string relative;
        int flags;
        std::string expected;
    };
    const Row rows[] = {
        {"", O_RDONLY | O_DIRECTORY, "opened"},
        {"folder", O_RDONLY, "opened"},
        {"folder/file", O_RDONLY, "opened"},
        {"folder/../folder/file", O_RDONLY, "opened"},
        {"folder/file", O_RDONLY | O_DIRECTORY, "ENOTDIR"},
        {"folder/file/x", O_RDONLY, "ENOTDIR"},
        {"missing", O_RDONLY, "ENOENT"},
        {"toFile", O_RDONLY, "ELOOP"},
        {"toFile", O_RDONLY | O_NOFOLLOW, "ELOOP"},
        {"toFile", O_PATH, "ELOOP"},
        {"toFile", O_PATH | O_NOFOLLOW, "opened"},
        {"toFolder/file", O_RDONLY, "ELOOP"},
        {"toFolder/file", O_PATH | O_NOFOLLOW, "ELOOP"},
        {"toOutside", O_RDONLY, "ELOOP"},
        {"toParent/outside", O_RDONLY, "ELOOP"},
        {"absolute/file", O_RDONLY, "ELOOP"},
        {"..", O_RDONLY, "EXDEV"},
        {"../outside", O_RDONLY, "EXDEV"},
        {"folder/../../outside", O_RDONLY, "EXDEV"},
        {sandbox.path("outside"), O_RDONLY, "EXDEV"},
        {"/", O_RDONLY, "EXDEV"},
        {std::string("folder\0x", 8), O_RDONLY, "EINVAL"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.relative + " with flags " + std::to_string(row.flags));
        EXPECT_EQ(outcome(openBeneath(root.get(), row.relative, row.flags)), row.expected);
    }
    EXPECT_EQ(contentOf(openBeneath(root.get(), "folder/file", O_RDONLY)->get()), "inside");
}

TEST(OpenBeneath, ClosesOnExecAndNeverBlocks) {
    const Sandbox sandbox;
    sandbox.fifo("fifo");
    const Descriptor root = sandbox.open();
    EXPECT_EQ(outcome(openBeneath(root.get(), "fifo", O_WRONLY)), "ENXIO");
    const auto reader = openBeneath(root.get(), "fifo", O_RDONLY);
    ASSERT_TRUE(reader);
    EXPECT_NE(::fcntl(reader->get(), F_GETFL) & O_NONBLOCK, 0);
    EXPECT_NE(::fcntl(reader->get(), F_GETFD) & FD_CLOEXEC, 0);
    const auto place = openBeneath(root.get(), "fifo", O_PATH);
    ASSERT_TRUE(place);
    EXPECT_NE(::fcntl(place->get(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST(OpenBeneath, CreatesFiles) {
    const Sandbox sandbox;
    sandbox.link("link", "target");
    const Descriptor root = sandbox.open();
    EXPECT_EQ(outcome(openBeneath(root.get(), "new", O_WRONLY | O_CREAT | O_EXCL, 0600)), "opened");
    EXPECT_EQ(statusAt(root.get(), "new")->mode, S_IFREG | 0600U);
    EXPECT_EQ(outcome(openBeneath(root.get(), "new", O_WRONLY | O_CREAT | O_EXCL, 0600)), "EEXIST");
    EXPECT_EQ(outcome(openBeneath(root.get(), "link", O_WRONLY | O_CREAT, 0600)), "ELOOP");
    EXPECT_EQ(::access(sandbox.path("target").c_str(), F_OK), -1);
}

TEST(OpenBeneath, TakesNamesOf255Bytes) {
    const Sandbox sandbox;
    const std::string longest(255, 'n');
    sandbox.file(longest + "/" + longest, "deep");
    const Descriptor root = sandbox.open();
    const auto file = openBeneath(root.get(), longest + "/" + longest, O_RDONLY);
    ASSERT_TRUE(file);
    EXPECT_EQ(contentOf(file->get()), "deep");
    EXPECT_EQ(statusAt(root.get(), longest.c_str())->mode & S_IFMT, static_cast<unsigned>(S_IFDIR));
    EXPECT_EQ(outcome(openBeneath(root.get(), longest + "n", O_RDONLY)), "ENAMETOOLONG");
    EXPECT_EQ(outcome(openBeneath(root.get(), std::string(5000, 'n'), O_RDONLY)), "ENAMETOOLONG");
}

/// A chain of 5,000 folders, taken away again from its bottom.
class DeepFolders : public ::testing::Test {
protected:
    static constexpr int kDepth = 5000;
    DeepFolders() {
        top_ = Descriptor(::open(sandbox_.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        Descriptor at(::dup(top_.get()));
        for (int i = 0; i < kDepth; ++i) {
            EXPECT_EQ(::mkdirat(at.get(), "d", 0755), 0);
            at = Descriptor(::openat(at.get(), "d", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        }
        bottom_ = std::move(at);
    }
    ~DeepFolders() override {
        ::unlinkat(bottom_.get(), "file", 0);
        ::unlinkat(bottom_.get(), "link", 0);
        for (int i = 0; i < kDepth; ++i) {
            bottom_ = Descriptor(::openat(bottom_.get(), "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
            ::unlinkat(bottom_.get(), "d", AT_REMOVEDIR);
        }
    }
    static std::string pathOfDepth(int depth, const std::string& last) {
        std::string path;
        for (int i = 0; i < depth; ++i) path += "d/";
        return path + last;
    }
    Sandbox sandbox_;
    Descriptor top_, bottom_;
};

TEST_F(DeepFolders, AreReachedByPathsLongerThanTheKernelTakesAndHideNoLink) {
    const Descriptor made(::openat(bottom_.get(), "file", O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
    ASSERT_EQ(::write(made.get(), "bottom", 6), 6);
    const auto file = openBeneath(top_.get(), pathOfDepth(kDepth, "file"), O_RDONLY);
    ASSERT_TRUE(file) << describe(file.error());
    EXPECT_EQ(contentOf(file->get()), "bottom");
    EXPECT_EQ(statusBeneath(top_.get(), pathOfDepth(kDepth, "file"))->size, 6U);
    EXPECT_EQ(outcome(openBeneath(top_.get(), pathOfDepth(kDepth, "missing"), O_RDONLY)), "ENOENT");
    EXPECT_EQ(outcome(openBeneath(top_.get(), pathOfDepth(kDepth, "file/x/y"), O_RDONLY)), "ENOTDIR");
    EXPECT_TRUE(openBeneath(top_.get(), pathOfDepth(kDepth, "new"), O_CREAT | O_EXCL | O_WRONLY, 0600));
    EXPECT_EQ(::unlinkat(bottom_.get(), "new", 0), 0);
    // Every length around the kernel's limit, so that the cut falls on each kind of byte.
    for (int depth = 2040; depth <= 2052; ++depth) {
        SCOPED_TRACE(depth);
        EXPECT_EQ(outcome(openBeneath(top_.get(), pathOfDepth(depth, "d"), O_PATH)), "opened");
    }
    ASSERT_EQ(::symlinkat("/", bottom_.get(), "link"), 0);
    EXPECT_EQ(outcome(openBeneath(top_.get(), pathOfDepth(kDepth, "link"), O_RDONLY)), "ELOOP");
    EXPECT_EQ(outcome(openBeneath(top_.get(), pathOfDepth(kDepth, "link/etc"), O_RDONLY)), "ELOOP");
    EXPECT_EQ(statusBeneath(top_.get(), pathOfDepth(kDepth, "link"))->mode & S_IFMT, static_cast<unsigned>(S_IFLNK));
}

TEST(OpenBeneath, NeverLeavesTheFolderWhileLinksAreSwappedIn) {
    const Sandbox sandbox;
    sandbox.file("outside/file", "outside");
    sandbox.file("root/folder/file", "inside");
    sandbox.link("root/link", "../outside");
    const Descriptor root = sandbox.open("root");
    std::atomic<bool> stop{false};
    std::thread swapper([&] {
        while (!stop) ::renameat2(root.get(), "folder", root.get(), "link", RENAME_EXCHANGE);
    });
    int escapes = 0, controlEscapes = 0, readings = 0;
    const std::string path = sandbox.path("root/folder/file");
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    while (std::chrono::steady_clock::now() < end) {
        const auto file = openBeneath(root.get(), "folder/file", O_RDONLY);
        if (file) {
            ++readings;
            escapes += contentOf(file->get()) != "inside";
        }
        const Descriptor control(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
        if (control.valid()) controlEscapes += contentOf(control.get()) == "outside";
    }
    stop = true;
    swapper.join();
    EXPECT_EQ(escapes, 0);
    if (controlEscapes == 0 || readings == 0) {
        GTEST_SKIP() << "inconclusive: " << controlEscapes << " escapes of plain opens, " << readings << " readings";
    }
}

TEST(Status, TellsOfTheObjectItself) {
    const Sandbox sandbox;
    sandbox.file("file", "12345");
    sandbox.folder("folder");
    sandbox.link("link", "file");
    sandbox.fifo("fifo");
    ASSERT_EQ(::chmod(sandbox.path("file").c_str(), 0640), 0);
    const Descriptor root = sandbox.open();
    const Descriptor above = sandbox.open("..");
    const std::string own = std::filesystem::path(sandbox.path()).filename();
    for (const char* name : {"file", "folder", "link", "fifo"}) {
        SCOPED_TRACE(name);
        struct stat expected{};
        ASSERT_EQ(::lstat(sandbox.path(name).c_str(), &expected), 0);
        const auto object = openBeneath(root.get(), name, O_PATH | O_NOFOLLOW);
        ASSERT_TRUE(object);
        for (const auto& status : {statusAt(root.get(), name), statusBeneath(root.get(), name),
                                   statusBeneath(above.get(), own + "/" + name), statusOf(object->get())}) {
            ASSERT_TRUE(status) << describe(status.error());
            EXPECT_EQ(status->device, expected.st_dev);
            EXPECT_EQ(status->inode, expected.st_ino);
            EXPECT_EQ(status->mode, expected.st_mode);
            EXPECT_EQ(status->links, expected.st_nlink);
            EXPECT_EQ(status->user, expected.st_uid);
            EXPECT_EQ(status->group, expected.st_gid);
            EXPECT_EQ(status->size, static_cast<std::uint64_t>(expected.st_size));
            EXPECT_EQ(status->modified, expected.st_mtim.tv_sec * 1'000'000'000 + expected.st_mtim.tv_nsec);
            EXPECT_EQ(status->changed, expected.st_ctim.tv_sec * 1'000'000'000 + expected.st_ctim.tv_nsec);
            EXPECT_LE(status->birth, status->changed);
            EXPECT_FALSE(status->immutable);
        }
    }
    EXPECT_EQ(statusBeneath(root.get(), "")->inode, statusAt(above.get(), own.c_str())->inode);
}

TEST(Status, WantsDirectEntries) {
    const Sandbox sandbox;
    sandbox.file("folder/file");
    const Descriptor root = sandbox.open();
    for (const char* name : {"", ".", "..", "folder/file", "/", "folder/"}) {
        SCOPED_TRACE(name);
        const auto status = statusAt(root.get(), name);
        ASSERT_FALSE(status);
        EXPECT_TRUE(status.error().is(ErrorDomain::posix, EINVAL));
    }
    EXPECT_EQ(statusAt(root.get(), "missing").error(), posixError(ENOENT));
    EXPECT_EQ(statusBeneath(root.get(), "..").error(), posixError(EXDEV));
    EXPECT_EQ(statusBeneath(root.get(), std::string("folder\0", 7)).error(), posixError(EINVAL));
}

TEST(Status, BringsTimesThatAreTooFarToTheNearestOne) {
    const Sandbox sandbox;
    sandbox.file("file");
    const Descriptor root = sandbox.open();
    const timespec far[2] = {{10'000'000'000, 0}, {10'000'000'000, 5}};
    ASSERT_EQ(::utimensat(root.get(), "file", far, 0), 0);
    struct stat kept{};
    ASSERT_EQ(::fstatat(root.get(), "file", &kept, 0), 0);
    if (kept.st_mtim.tv_sec != far[1].tv_sec) GTEST_SKIP() << "this file system keeps no time past 2262";
    EXPECT_EQ(statusAt(root.get(), "file")->modified, std::numeric_limits<std::int64_t>::max());
    const timespec early[2] = {{-2, 500'000'000}, {-2, 500'000'000}};
    ASSERT_EQ(::utimensat(root.get(), "file", early, 0), 0);
    EXPECT_EQ(statusAt(root.get(), "file")->modified, -1'500'000'000);
}

TEST(Status, KnowsTheBirthTime) {
    const Sandbox sandbox;
    sandbox.file("file");
    const Descriptor root = sandbox.open();
    const auto status = statusAt(root.get(), "file");
    ASSERT_TRUE(status);
    if (!isBirthTime(status->birth)) GTEST_SKIP() << "this file system keeps no birth time";
    const timespec earlier[2] = {{1000, 0}, {1000, 0}};
    ASSERT_EQ(::utimensat(root.get(), "file", earlier, 0), 0);
    const auto later = statusAt(root.get(), "file");
    EXPECT_EQ(later->birth, status->birth);
    EXPECT_EQ(later->modified, 1'000'000'000'000);
}

TEST(Status, TellsWhatNobodyMayChange) {
    const Sandbox sandbox;
    const Descriptor file(::open(sandbox.file("file").c_str(), O_RDONLY | O_CLOEXEC));
    int flags = 0;
    if (::ioctl(file.get(), FS_IOC_GETFLAGS, &flags) != 0) GTEST_SKIP() << "this file system has no flags";
    int immutable = flags | FS_IMMUTABLE_FL;
    if (::ioctl(file.get(), FS_IOC_SETFLAGS, &immutable) != 0) GTEST_SKIP() << "only root may set the flag";
    const Descriptor root = sandbox.open();
    const auto status = statusAt(root.get(), "file");
    const Access access = accessOf(*status, MountState::writable, root.get(), "file", AccessList::absent);
    const bool kernelSays = ::faccessat(root.get(), "file", W_OK, AT_EACCESS) == 0;
    ASSERT_EQ(::ioctl(file.get(), FS_IOC_SETFLAGS, &flags), 0);
    EXPECT_TRUE(status->immutable);
    EXPECT_TRUE(access.readable);
    EXPECT_FALSE(access.writable);
    EXPECT_FALSE(kernelSays);
}

std::multiset<std::string> namesIn(DirectoryReader& reader) {
    std::multiset<std::string> names;
    DirectoryEntry entry;
    for (;;) {
        const auto more = reader.next(entry);
        EXPECT_TRUE(more);
        if (!more || !*more) return names;
        EXPECT_EQ(entry.name.data()[entry.name.size()], '\0');
        names.emplace(entry.name);
    }
}

TEST(DirectoryReader, GivesEveryEntryOnce) {
    for (const int count : {0, 1, 2000}) {
        SCOPED_TRACE(count);
        const Sandbox sandbox;
        sandbox.folder("folder");
        std::multiset<std::string> expected;
        for (int i = 0; i < count; ++i) {
            const std::string name = (i % 2 == 0 ? "." : "") + std::to_string(i) + std::string(100, 'x');
            expected.insert(name);
            sandbox.file("folder/" + name);
        }
        const Descriptor folder(::open(sandbox.path("folder").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        DirectoryReader reader(folder.get());
        EXPECT_EQ(namesIn(reader), expected);
        EXPECT_TRUE(namesIn(reader).empty());
        ASSERT_TRUE(reader.rewind());
        EXPECT_EQ(namesIn(reader), expected);
        // A second reader starts at the beginning wherever the first one stopped.
        DirectoryReader second(folder.get());
        EXPECT_EQ(namesIn(second), expected);
    }
}

TEST(DirectoryReader, GivesNumbersAndTypes) {
    const Sandbox sandbox;
    sandbox.file("file");
    sandbox.folder("folder");
    sandbox.link("link", "file");
    sandbox.fifo("fifo");
    sandbox.file("\xff...");
    const Descriptor folder(::open(sandbox.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    DirectoryReader reader(folder.get());
    DirectoryEntry entry;
    int seen = 0;
    for (auto more = reader.next(entry); more && *more; more = reader.next(entry)) {
        SCOPED_TRACE(std::string(entry.name));
        const auto status = statusAt(folder.get(), entry.name.data());
        ASSERT_TRUE(status);
        EXPECT_EQ(entry.inode, status->inode);
        EXPECT_EQ(entry.type, (status->mode & S_IFMT) >> 12);
        ++seen;
    }
    EXPECT_EQ(seen, 5);
}

TEST(DirectoryReader, ReportsWhatCannotBeRead) {
    const Sandbox sandbox;
    const Descriptor file(::open(sandbox.file("file").c_str(), O_RDONLY | O_CLOEXEC));
    const Descriptor gone(::open(sandbox.folder("gone").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_EQ(::rmdir(sandbox.path("gone").c_str()), 0);
    const Descriptor place = sandbox.open();
    for (const auto& [descriptor, code] :
         {std::pair{file.get(), ENOTDIR}, {gone.get(), ENOENT}, {place.get(), EBADF}}) {
        DirectoryReader reader(descriptor);
        DirectoryEntry entry;
        const auto more = reader.next(entry);
        ASSERT_FALSE(more);
        EXPECT_EQ(more.error(), posixError(code)) << describe(more.error());
    }
}

TEST(CountEntries, CountsUpToTheLimit) {
    const Sandbox sandbox;
    for (int i = 0; i < 10; ++i) sandbox.file("." + std::to_string(i));
    sandbox.folder("folder");
    const Descriptor folder(::open(sandbox.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    EXPECT_EQ(countEntries(folder.get(), 100), 11U);
    EXPECT_EQ(countEntries(folder.get(), 12), 11U);
    EXPECT_EQ(countEntries(folder.get(), 11), 11U);
    EXPECT_EQ(countEntries(folder.get(), 10), 10U);
    EXPECT_EQ(countEntries(folder.get(), 0), 0U);
    const Descriptor empty(::open(sandbox.path("folder").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    EXPECT_EQ(countEntries(empty.get(), 5), 0U);
}

TEST(OpenParent, GivesTheFolderAndTheLastComponent) {
    const Sandbox sandbox;
    sandbox.file("Documents/a/b", "content");
    sandbox.link("Documents/link", "a");
    Roots roots;
    const auto root = roots.addStorage(sandbox.path("Documents"));
    ASSERT_TRUE(root);
    struct Row {
        std::string relative, folder, name;
    };
    for (const Row& row : {Row{"", "Documents", ""}, Row{"a", "Documents", "a"}, Row{"a/b", "Documents/a", "b"},
                           Row{"a/missing", "Documents/a", "missing"}}) {
        SCOPED_TRACE(row.relative);
        const auto parent = openParent(Place{*root, row.relative});
        ASSERT_TRUE(parent);
        EXPECT_EQ(parent->name, row.name);
        EXPECT_EQ(statusOf(parent->folder.get())->inode, statusOf(sandbox.open(row.folder).get())->inode);
    }
    EXPECT_EQ(openParent(Place{*root, "missing/x"}).error(), posixError(ENOENT));
    EXPECT_EQ(openParent(Place{*root, "a/b/x"}).error(), posixError(ENOTDIR));
    EXPECT_EQ(openParent(Place{*root, "link/b"}).error(), posixError(ELOOP));
}

}  // namespace
}  // namespace tarnwell::filesystem
