#include "host/DocumentAccess.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <thread>

#include "tests/host/SessionFixture.h"

namespace tarnwell::host {
namespace {

using Access = session::Session::Access;

class DocumentAccessTest : public LocalSessionTest {
protected:
    static std::string contentOf(const Descriptor& descriptor) {
        std::string content(1 << 16, '\0');
        const ssize_t count = ::pread(descriptor.get(), content.data(), content.size(), 0);
        EXPECT_GE(count, 0);
        content.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
        return content;
    }
    static int modeOf(const Descriptor& descriptor) { return ::fcntl(descriptor.get(), F_GETFL); }
};

TEST_F(DocumentAccessTest, ADocumentIsOpenedForWhatWasAskedFor) {
    make(note("a.txt"), "hello");
    const auto reading = session().open(idOf(note("a.txt")), Access::read);
    ASSERT_TRUE(reading) << describe(reading.error());
    EXPECT_EQ(modeOf(*reading) & O_ACCMODE, O_RDONLY);
    EXPECT_EQ(modeOf(*reading) & O_NONBLOCK, O_NONBLOCK);
    EXPECT_EQ(::fcntl(reading->get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(contentOf(*reading), "hello");
    EXPECT_EQ(::pwrite(reading->get(), "x", 1, 0), -1);
    const auto writing = session().open(idOf(note("a.txt")), Access::readWrite);
    ASSERT_TRUE(writing) << describe(writing.error());
    EXPECT_EQ(modeOf(*writing) & O_ACCMODE, O_RDWR);
    EXPECT_EQ(contentOf(*writing), "hello");
    ASSERT_EQ(::pwrite(writing->get(), "J", 1, 0), 1);
    EXPECT_EQ(testing::readFile(note("a.txt")), "Jello");
}

TEST_F(DocumentAccessTest, AFolderIsOnlyRead) {
    make(note("Folder/a.txt"));
    for (const auto& identifier : {idOf(note("Folder")), notesLibrary_, session::kRootContainer}) {
        const auto reading = session().open(identifier, Access::read);
        ASSERT_TRUE(reading) << identifier << describe(reading.error());
        struct stat status{};
        ASSERT_EQ(::fstat(reading->get(), &status), 0);
        EXPECT_TRUE(S_ISDIR(status.st_mode));
        const auto writing = session().open(identifier, Access::readWrite);
        ASSERT_TRUE(failsWith(writing, ErrorDomain::posix, EISDIR)) << identifier;
        EXPECT_TRUE(sentenceOf(writing.error()).ends_with(" is a folder; only documents are written to"))
            << sentenceOf(writing.error());
    }
}

TEST_F(DocumentAccessTest, NeitherLinksNorPipesNorWhatIsGoneIsOpened) {
    make(note("target.txt"), "secret");
    std::filesystem::create_symlink(note("target.txt"), note("link"));
    const auto link = session().open(idOf(note("link")), Access::read);
    ASSERT_TRUE(failsWith(link, ErrorDomain::posix, ELOOP));
    EXPECT_EQ(sentenceOf(link.error()),
              "\"" + note("link") + "\" is a link, or lies behind one; links are not followed");
    EXPECT_TRUE(failsWith(session().open("fid=999999", Access::read), ErrorDomain::host, session::kNoSuchItem));
    EXPECT_TRUE(failsWith(session().open(session::kWorkingSetContainer, Access::read), ErrorDomain::host,
                          session::kNoSuchItem));
    make(note("gone.txt"));
    const auto gone = idOf(note("gone.txt"));
    ASSERT_EQ(std::remove(note("gone.txt").c_str()), 0);
    EXPECT_TRUE(failsWith(session().open(gone, Access::read), ErrorDomain::host, session::kNoSuchItem));

    // A pipe without a writer would block whoever opened it.
    ASSERT_EQ(::mkfifo(note("pipe").c_str(), 0600), 0);
    const URL url = context().roots().urlForRealPath(note("pipe"));
    const auto pipe = context().fileOperations().open(url, hostframework::FileCoordinator::Use::reading);
    ASSERT_TRUE(failsWith(pipe, ErrorDomain::posix, EINVAL));
    EXPECT_EQ(sentenceOf(pipe.error()), "\"" + note("pipe") + "\" is neither a document nor a folder");
}

TEST_F(DocumentAccessTest, WhatMayNotBeWrittenToIsOnlyRead) {
    make(note("a.txt"), "fixed");
    const Descriptor file(::open(note("a.txt").c_str(), O_RDONLY | O_CLOEXEC));
    int flags = 0;
    if (::geteuid() == 0) {
        // Permissions keep root from nothing; this does.
        if (::ioctl(file.get(), FS_IOC_GETFLAGS, &flags) != 0) GTEST_SKIP() << "this file system has no such flag";
        int immutable = flags | FS_IMMUTABLE_FL;
        if (::ioctl(file.get(), FS_IOC_SETFLAGS, &immutable) != 0) GTEST_SKIP() << "the flag may not be set";
    } else {
        ASSERT_EQ(::chmod(note("a.txt").c_str(), 0444), 0);
    }
    const auto identifier = idOf(note("a.txt"));
    const auto writing = session().open(identifier, Access::readWrite);
    const auto reading = session().open(identifier, Access::read);
    if (::geteuid() == 0) {
        ASSERT_EQ(::ioctl(file.get(), FS_IOC_SETFLAGS, &flags), 0);
    }
    ASSERT_TRUE(failsWith(writing, ErrorDomain::generalFile, kWriteNotPermitted));
    EXPECT_EQ(sentenceOf(writing.error()), "it is read-only");
    ASSERT_TRUE(reading) << describe(reading.error());
    EXPECT_EQ(contentOf(*reading), "fixed");
}

TEST_F(DocumentAccessTest, WhatTakesADocumentsPlaceMeanwhileIsNeverALinksTarget) {
    make(note("a.txt"), "document");
    make(home_ + "/secret.txt", "secret");
    const auto identifier = idOf(note("a.txt"));
    std::filesystem::create_symlink(home_ + "/secret.txt", note("other"));
    std::atomic<bool> isOver{false};
    // The document and the link change places all the time.
    std::thread neighbour([&] {
        while (!isOver) {
            ::renameat2(AT_FDCWD, note("a.txt").c_str(), AT_FDCWD, note("other").c_str(), RENAME_EXCHANGE);
        }
    });
    int opened = 0, refused = 0;
    for (int i = 0; i < 300; ++i) {
        const auto descriptor = session().open(identifier, i % 2 == 0 ? Access::read : Access::readWrite);
        if (!descriptor) {
            ++refused;
            continue;
        }
        ++opened;
        EXPECT_EQ(contentOf(*descriptor), "document");
    }
    isOver = true;
    neighbour.join();
    EXPECT_EQ(opened + refused, 300);
    EXPECT_EQ(testing::readFile(home_ + "/secret.txt"), "secret");
    // Whoever is left alone is served, where the document stands now: it is still the same.
    const std::string place = note(std::filesystem::is_symlink(note("a.txt")) ? "other" : "a.txt");
    EXPECT_EQ(idOf(place), identifier);
    const auto served = session().open(identifier, Access::read);
    EXPECT_TRUE(served) << describe(served.error());
}

/// It keeps its identifier.
TEST_F(DocumentAccessTest, ADocumentIsOpenedWhereverItWentTo) {
    make(note("a.txt"), "same");
    const auto identifier = idOf(note("a.txt"));
    ASSERT_TRUE(session().open(identifier, Access::read));
    ASSERT_EQ(std::rename(note("a.txt").c_str(), note("b.txt").c_str()), 0);
    const auto moved = session().open(identifier, Access::read);
    ASSERT_TRUE(moved) << describe(moved.error());
    EXPECT_EQ(contentOf(*moved), "same");
}

TEST_F(DocumentAccessTest, NoDescriptorIsLeftOver) {
    make(note("a.txt"), "a");
    make(note("Folder/b.txt"));
    std::filesystem::create_symlink("a.txt", note("link"));
    const auto countOpen = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
    const std::vector<session::ItemIdentifier> identifiers{idOf(note("a.txt")), idOf(note("Folder")),
                                                           idOf(note("link")), "fid=999999"};
    const auto openAll = [&] {
        for (const auto& identifier : identifiers) {
            (void)session().open(identifier, Access::read);
            (void)session().open(identifier, Access::readWrite);
        }
    };
    openAll();
    const auto before = countOpen();
    for (int i = 0; i < 50; ++i) openAll();
    // The host opens some for itself, now and then; what leaked would be many more.
    EXPECT_LT(countOpen(), before + 20);
}

}  // namespace
}  // namespace tarnwell::host
