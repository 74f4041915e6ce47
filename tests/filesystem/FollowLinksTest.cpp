#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/filesystem/Beneath.h"
#include "tests/filesystem/Sandbox.h"

namespace tarnwell::filesystem {
namespace {

/// A storage root "home/Storage", a library "home/app/Documents", and things outside of both.
class FollowLinks : public ::testing::Test {
protected:
    FollowLinks() {
        sandbox_.file("home/Storage/folder/file");
        sandbox_.file("home/Storage/file");
        sandbox_.file("home/app/Documents/document");
        sandbox_.file("home/app/Library/secret");
        sandbox_.file("outside/secret");
        storage_ = *roots_.addStorage(sandbox_.path("home/Storage"));
        const auto container = roots_.addContainer(sandbox_.path("home/app"));
        library_ = roots_.locate(container->appending("Documents").path())->root;
    }
    void link(const std::string& name, const std::string& target) { sandbox_.link("home/Storage/" + name, target); }
    /// "storage|relative", "library|relative" or the name of the errno.
    std::string target(const std::string& relative, std::shared_ptr<const Root> root = nullptr) {
        const auto place = followLinks(roots_, Place{root ? root : storage_, relative});
        if (!place) return errnoName(static_cast<int>(place.error().code));
        return (place->root == storage_ ? "storage|" : "library|") + place->relative;
    }
    Sandbox sandbox_;
    Roots roots_;
    std::shared_ptr<const Root> storage_, library_;
};

TEST_F(FollowLinks, GivesAPlaceWithoutLinksItself) {
    EXPECT_EQ(target(""), "storage|");
    EXPECT_EQ(target("folder"), "storage|folder");
    EXPECT_EQ(target("folder/file"), "storage|folder/file");
    EXPECT_EQ(target("", library_), "library|");
    EXPECT_EQ(target("missing"), "ENOENT");
    EXPECT_EQ(target("file/x"), "ENOTDIR");
}

TEST_F(FollowLinks, FollowsWhatStaysInsideTheRoots) {
    link("file link", "folder/file");
    link("folder link", "folder");
    link("dot", ".");
    link("absolute", sandbox_.path("home/Storage/folder"));
    link("untidy", sandbox_.path("home//./Storage/../Storage/folder/../folder/file"));
    link("chain", "folder link/../chain2");
    link("chain2", "folder link/file");
    link("folder/up", "../file");
    link("folder/out and in", "../../Storage/file");
    link("root", "folder/..");
    link("slash", "folder/");
    link("to library", "../app/Documents/document");
    link("to library root", sandbox_.path("home/app/Documents"));
    sandbox_.link("home/app/Documents/back", "../../Storage/folder link/file");
    struct Row {
        std::string relative, expected;
    };
    const Row rows[] = {
        {"file link", "storage|folder/file"},
        {"folder link", "storage|folder"},
        {"folder link/file", "storage|folder/file"},
        {"folder link/missing", "ENOENT"},
        {"dot", "storage|"},
        {"dot/dot/file", "storage|file"},
        {"absolute/file", "storage|folder/file"},
        {"untidy", "storage|folder/file"},
        {"chain", "storage|folder/file"},
        {"folder/up", "storage|file"},
        {"folder link/up", "storage|file"},
        {"folder/out and in", "storage|file"},
        {"root", "storage|"},
        {"root/folder", "storage|folder"},
        {"slash", "storage|folder"},
        {"to library", "library|document"},
        {"to library root", "library|"},
        {"to library root/document", "library|document"},
        {"to library root/back", "storage|folder/file"},
        {"file link/x", "ENOTDIR"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.relative);
        EXPECT_EQ(target(row.relative), row.expected);
        // Where the kernel follows links it comes to the same place.
        struct stat followed{};
        const bool exists = ::stat(sandbox_.path("home/Storage/" + row.relative).c_str(), &followed) == 0;
        const auto place = followLinks(roots_, Place{storage_, row.relative});
        EXPECT_EQ(place.has_value(), exists);
        if (place && exists) {
            EXPECT_EQ(statusBeneath(place->root->directory.get(), place->relative)->inode, followed.st_ino);
        }
    }
}

TEST_F(FollowLinks, GoesNowhereOutsideOfTheRoots) {
    sandbox_.link("outside/way in", sandbox_.path("home/Storage"));
    sandbox_.link("home/link to storage", "Storage");
    struct Row {
        std::string name, to;
    };
    const Row rows[] = {
        {"out", "../../outside/secret"},
        {"absolute out", sandbox_.path("outside/secret")},
        {"the system", "/etc/passwd"},
        {"container", "../app"},
        {"beside Documents", "../app/Library/secret"},
        {"home", ".."},
        {"through a link outside", sandbox_.path("outside/way in/file")},
        {"through a link at home", "../link to storage/file"},
        {"back through a stranger", sandbox_.path("outside/../home/Storage/file")},
        {"a stranger's own name", sandbox_.path("home/Storage2/file")},
        {"dangling", "nowhere"},
        {"dangling folder", "nowhere/.."},
        {"above everything", "../../../../../../../../../../.."},
        {"process", "/proc/self/root"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        link(row.name, row.to);
        EXPECT_EQ(target(row.name), "ENOENT");
    }
    link("file as folder", "file/");
    link("file's parent", "file/..");
    link("file's self", "file/.");
    for (const char* name : {"file as folder", "file's parent", "file's self"}) EXPECT_EQ(target(name), "ENOTDIR");
}

TEST_F(FollowLinks, FollowsFortyLinksAndNoMore) {
    link("loop", "loop");
    EXPECT_EQ(target("loop"), "ELOOP");
    link("1", "file");
    for (int i = 2; i <= 41; ++i) link(std::to_string(i), std::to_string(i - 1));
    EXPECT_EQ(target("40"), "storage|file");
    EXPECT_EQ(target("41"), "ELOOP");
}

TEST_F(FollowLinks, NeverBlocksOnWhatALinkLeadsTo) {
    sandbox_.fifo("home/Storage/fifo");
    link("to fifo", "fifo");
    EXPECT_EQ(target("to fifo"), "storage|fifo");
}

TEST_F(FollowLinks, GoesThroughAStorageRootThatIsTheWholeFileSystem) {
    Roots roots;
    const auto root = roots.addStorage("/");
    ASSERT_TRUE(root);
    link("absolute", sandbox_.path("outside/secret"));
    const auto place = followLinks(roots, Place{*root, sandbox_.path("home/Storage/absolute").substr(1)});
    ASSERT_TRUE(place) << describe(place.error());
    EXPECT_EQ(place->relative, sandbox_.path("outside/secret").substr(1));
}

}  // namespace
}  // namespace tarnwell::filesystem
