#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "testing/TestDevice.h"

namespace tarnwell::files {
namespace {

using testing::TestDevice;
using testing::writeFile;

TEST(FileSystem, TheLinkCountOfAFolderIsItsEntriesAndTwo) {
    TestDevice device;
    testing::makeDirectories(device.path("empty"));
    testing::makeDirectories(device.path("full/.hidden"));
    for (const char* name : {"full/a", "full/.b"}) writeFile(device.path(name), "");
    EXPECT_EQ(2u, device.files().stat(device.url("empty")).value().linkCount);
    EXPECT_EQ(5u, device.files().stat(device.url("full")).value().linkCount);
    device.settle();
    EXPECT_EQ(5u, device.files().stat(device.url("full")).value().linkCount);
    writeFile(device.path("full/c"), "");
    EXPECT_EQ(6u, device.files().stat(device.url("full")).value().linkCount);
}

TEST(FileSystem, LinksAreFollowedOnlyInsideTheRoots) {
    TestDevice device;
    writeFile(device.home() + "/outside.txt", "secret");
    writeFile(device.path("inside.txt"), "text");
    ASSERT_EQ(0, symlink("inside.txt", device.path("in").c_str()));
    ASSERT_EQ(0, symlink("../outside.txt", device.path("out").c_str()));
    ASSERT_EQ(0, symlink((device.home() + "/outside.txt").c_str(), device.path("absolute").c_str()));
    ASSERT_EQ(0, symlink("loop", device.path("loop").c_str()));
    auto inside = device.files().stat(device.url("inside.txt"));
    auto through = device.files().stat(device.url("in"));
    ASSERT_TRUE(through.has_value());
    EXPECT_EQ(inside->fileID, through->fileID);
    EXPECT_TRUE(device.files().isReachable(device.url("in")));
    for (const char* name : {"out", "absolute"}) {
        EXPECT_TRUE(device.files().stat(device.url(name)).error().is(ErrorDomain::posix, ENOENT)) << name;
        EXPECT_FALSE(device.files().isReachable(device.url(name))) << name;
    }
    EXPECT_TRUE(device.files().stat(device.url("loop")).error().is(ErrorDomain::posix, ELOOP));
    // A folder outside, reached through a link as a component of the path.
    ASSERT_EQ(0, symlink("..", device.path("up").c_str()));
    EXPECT_FALSE(device.files().resourceValue(device.url("up/outside.txt"), ResourceKey::name).has_value());
    EXPECT_FALSE(device.files().getAttribute(device.url("up/outside.txt"), "x", {}).has_value());
    EXPECT_FALSE(device.files().openEventOnly(device.url("up/outside.txt")).has_value());
}

TEST(FileSystem, EveryKindOfObjectHasATypeAndNoOpenBlocks) {
    TestDevice device;
    ASSERT_EQ(0, mkfifo(device.path("fifo").c_str(), 0644));
    ASSERT_EQ(0, symlink("nowhere", device.path("link").c_str()));
    testing::makeDirectories(device.path("folder"));
    writeFile(device.path("empty"), "");
    writeFile(device.path("words"), "plain words and nothing else\n");
    int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string path = device.path("socket");
    ASSERT_LT(path.size(), sizeof address.sun_path);
    path.copy(address.sun_path, path.size());
    ASSERT_EQ(0, bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address));
    close(listener);

    const std::vector<std::pair<const char*, const char*>> kTypes = {
        {"fifo", "inode/fifo"},     {"link", "inode/symlink"},           {"folder", "inode/directory"},
        {"socket", "inode/socket"}, {"empty", "application/x-zerosize"}, {"words", "text/plain"}};
    for (const auto& [name, type] : kTypes) {
        auto value = device.files().resourceValue(device.url(name), ResourceKey::typeIdentifier);
        ASSERT_TRUE(value.has_value()) << name;
        EXPECT_EQ(ResourceValue(std::string(type)), *value) << name;
        bool regular = std::string(name) == "empty" || std::string(name) == "words";
        EXPECT_EQ(!regular, device.files().isFolder(device.url(name))) << name;
        auto id = device.files().resourceValue(device.url(name), ResourceKey::fileID);
        ASSERT_TRUE(id.has_value()) << name;
        auto found = device.files().pathOfFileID(FileID{std::get<std::uint64_t>(*id)}, device.device());
        ASSERT_TRUE(found.has_value()) << name;
        EXPECT_EQ(device.url(name), *found);
    }
}

TEST(FileSystem, AMissingObjectIsAReadError) {
    TestDevice device;
    writeFile(device.path("file"), "");
    for (const char* path : {"none", "none/deeper", "file/below"}) {
        for (auto key :
             {ResourceKey::name, ResourceKey::fileID, ResourceKey::documentID, ResourceKey::typeIdentifier}) {
            auto value = device.files().resourceValue(device.url(path), key);
            ASSERT_FALSE(value.has_value()) << path;
            EXPECT_TRUE(value.error().is(ErrorDomain::generalFile, kNoSuchFileOnRead)) << describe(value.error());
        }
    }
    EXPECT_FALSE(device.files().resourceValue(URL::file("/etc/passwd"), ResourceKey::name).has_value());
}

TEST(FileSystem, AFileIDThatWasNeverGivenLeadsNowhere) {
    TestDevice device;
    for (std::uint64_t id : {std::uint64_t{0}, std::uint64_t{1}, std::uint64_t{1} << 62, ~std::uint64_t{0}}) {
        EXPECT_TRUE(device.files().pathOfFileID(FileID{id}, device.device()).error().is(ErrorDomain::posix, ENOENT));
    }
    EXPECT_TRUE(device.files().pathOfFileID(FileID{2}, DeviceID{99}).error().is(ErrorDomain::posix, ENODEV));
}

TEST(FileSystem, CreatingAFolderMakesThoseAboveItAndStaysInside) {
    TestDevice device;
    ASSERT_TRUE(device.files().createDirectory(device.url("a/b/c")).has_value());
    ASSERT_TRUE(device.files().createDirectory(device.url("a/b/c")).has_value());
    EXPECT_EQ(2u, device.files().stat(device.url("a/b/c")).value().linkCount);
    ASSERT_EQ(0, symlink(device.home().c_str(), device.path("out").c_str()));
    EXPECT_FALSE(device.files().createDirectory(device.url("out/made")).has_value());
    struct stat status{};
    EXPECT_NE(0, ::stat((device.home() + "/made").c_str(), &status));
}

TEST(GenerationStore, ADocumentIDIsAllocatedOnceAndResolves) {
    TestDevice device;
    writeFile(device.path(".hidden.txt"), "a hidden file gets none by itself");
    auto object = device.files().openEventOnly(device.url(".hidden.txt"));
    ASSERT_TRUE(object.has_value());
    EXPECT_FALSE(device.files().attributeList(*object).value().documentID.has_value());
    auto first = device.generationStore().getOrAllocateDocumentID(*object);
    ASSERT_TRUE(first.has_value());
    EXPECT_EQ(*first, device.generationStore().getOrAllocateDocumentID(*object).value());
    EXPECT_EQ(*first, device.files().attributeList(*object).value().documentID.value());
    auto fileID = device.generationStore().fileIDForDocumentID(*first, device.device());
    EXPECT_EQ(device.files().attributeList(*object).value().fileID, fileID.value());
    device.restart();
    EXPECT_EQ(fileID.value(), device.generationStore().fileIDForDocumentID(*first, device.device()).value());
}

TEST(GenerationStore, PermanentStorageIsLookedUpAndNeverAllocated) {
    TestDevice device;
    writeFile(device.path("document"), "");
    writeFile(device.path(".hidden"), "");
    device.settle();
    auto& store = device.generationStore();
    const auto known = store.permanentStorage(device.url("document"));
    ASSERT_TRUE(known.has_value() && known->has_value());
    EXPECT_EQ(device.files().resourceValue(device.url("document"), ResourceKey::documentID),
              ResourceValue(std::uint64_t{raw(**known)}));
    // Clients are not told of hidden files, so they have no number until somebody asks for one.
    for (int times = 0; times < 2; ++times) {
        const auto hidden = store.permanentStorage(device.url(".hidden"));
        ASSERT_TRUE(hidden.has_value());
        EXPECT_FALSE(hidden->has_value());
    }
    EXPECT_TRUE(store.permanentStorage(device.url("nothing")).error().is(ErrorDomain::posix, ENOENT));
    EXPECT_TRUE(store.permanentStorage(URL::file("/elsewhere")).error().is(ErrorDomain::posix, ENOENT));
    EXPECT_TRUE(
        store.permanentStorage(URL::parse("http://example.org/document")).error().is(ErrorDomain::posix, ENOENT));
}

TEST(GenerationStore, PermanentStorageFindsADocumentThatWasMoved) {
    TestDevice device;
    testing::makeDirectories(device.path("sub"));
    writeFile(device.path("document"), "");
    device.settle();
    const auto before = device.generationStore().permanentStorage(device.url("document"));
    ASSERT_EQ(0, rename(device.path("document").c_str(), device.path("sub/moved").c_str()));
    const auto after = device.generationStore().permanentStorage(device.url("sub/moved"));
    ASSERT_TRUE(before.has_value() && before->has_value() && after.has_value());
    EXPECT_EQ(*after, *before);
}

TEST(GenerationStore, AnIDThatNamesNothingIsNoEntry) {
    TestDevice device;
    EXPECT_TRUE(device.generationStore()
                    .fileIDForDocumentID(DocumentID{7}, device.device())
                    .error()
                    .is(ErrorDomain::posix, ENOENT));
    writeFile(device.path("a"), "");
    auto object = device.files().openEventOnly(device.url("a"));
    auto id = device.generationStore().getOrAllocateDocumentID(*object).value();
    ASSERT_EQ(0, unlink(device.path("a").c_str()));
    EXPECT_TRUE(
        device.generationStore().fileIDForDocumentID(id, device.device()).error().is(ErrorDomain::posix, ENOENT));
}

/// Mounts an image with a fresh file system of its own for the life of a test.
class MountedImage {
public:
    MountedImage(const std::string& type, const std::string& makeCommand) {
        if (geteuid() != 0) {
            problem_ = "mounting needs root";
            return;
        }
        target_ = directory_.path("mounted");
        testing::makeDirectories(target_);
        if (type == "tmpfs") {
            if (mount("none", target_.c_str(), "tmpfs", 0, "size=64m") != 0) problem_ = "mount: " + errnoName(errno);
        } else {
            std::string image = directory_.path("image");
            std::string command = "truncate -s 512M " + image + " && " + makeCommand + " " + image +
                                  " >/dev/null 2>&1 && mount -o loop " + image + " " + target_ + " 2>/dev/null";
            if (std::system(command.c_str()) != 0) problem_ = "cannot make or mount an image of " + type;
        }
        mounted_ = problem_.empty();
        if (mounted_) setenv("TARNWELL_TEST_DIR", target_.c_str(), 1);
    }
    ~MountedImage() {
        unsetenv("TARNWELL_TEST_DIR");
        if (mounted_) umount2(target_.c_str(), MNT_DETACH);
    }
    const std::string& problem() const { return problem_; }

private:
    testing::TemporaryDirectory directory_;
    std::string target_, problem_;
    bool mounted_ = false;
};

struct ImageRow {
    const char* type;
    const char* makeCommand;
};
std::ostream& operator<<(std::ostream& out, const ImageRow& row) { return out << row.type; }

class OnEachFileSystem : public ::testing::TestWithParam<ImageRow> {};

TEST_P(OnEachFileSystem, ChildCountsIdentifiersAndAttributesAreRight) {
    MountedImage image(GetParam().type, GetParam().makeCommand);
    if (!image.problem().empty()) GTEST_SKIP() << GetParam().type << ": " << image.problem();
    TestDevice device;
    testing::makeDirectories(device.path("empty"));
    testing::makeDirectories(device.path("full/one"));
    testing::makeDirectories(device.path("full/two"));
    for (const char* name : {"full/a", "full/.b"}) writeFile(device.path(name), "");
    EXPECT_EQ(2u, device.files().stat(device.url("empty")).value().linkCount);
    EXPECT_EQ(6u, device.files().stat(device.url("full")).value().linkCount);
    EXPECT_EQ(ResourceValue(true), device.files().resourceValue(device.url("full"), ResourceKey::isWritable).value());

    auto before = device.files().resourceValue(device.url("full/one"), ResourceKey::fileID).value();
    auto document = device.files().resourceValue(device.url("full/a"), ResourceKey::documentID).value();
    ASSERT_TRUE(std::holds_alternative<std::uint64_t>(document));
    ASSERT_EQ(0, rename(device.path("full/one").c_str(), device.path("moved").c_str()));
    ASSERT_EQ(0, rename(device.path("full/a").c_str(), device.path("moved/b").c_str()));
    device.restart();
    EXPECT_EQ(before, device.files().resourceValue(device.url("moved"), ResourceKey::fileID).value());
    EXPECT_EQ(document, device.files().resourceValue(device.url("moved/b"), ResourceKey::documentID).value());
    EXPECT_EQ(4u, device.files().stat(device.url("full")).value().linkCount);
}

INSTANTIATE_TEST_SUITE_P(Images, OnEachFileSystem,
                         ::testing::Values(ImageRow{"ext4", "mkfs.ext4 -q"}, ImageRow{"xfs", "mkfs.xfs -q"},
                                           ImageRow{"btrfs", "mkfs.btrfs -q"}, ImageRow{"tmpfs", ""}),
                         [](const auto& row) { return std::string(row.param.type); });

}  // namespace
}  // namespace tarnwell::files
