#include <cerrno>
#include <concepts>

#include <unistd.h>

#include "ItemsFixture.h"
#include "hostframework/ItemIdentifier.h"

namespace tarnwell::items {
namespace {

using files::ResourceKey;
using log::Level;
using Line = testing::CapturingLog::Line;

template <typename T>
concept MadeFromURL = requires(const Environment& environment, const URL& url) {
    T::initWithURL(environment, url, LocalItem::Arguments{});
};
static_assert(MadeFromURL<LocalItem>);
static_assert(!MadeFromURL<LocalAppLibraryItem>, "a library is made from a record only");

class LocalAppLibraryItemTest : public ItemsTest {
protected:
    std::shared_ptr<LocalAppLibraryItem> library(const Library& from) {
        return LocalAppLibraryItem::initFrom(environment, *from.record);
    }
};

TEST_F(LocalAppLibraryItemTest, ShowsTheApplicationsDocumentsFolder) {
    auto notes = addLibrary("notes", "org.example.notes", "My Notes");
    auto made = library(notes);
    ASSERT_TRUE(made);
    EXPECT_EQ(made->itemIdentifier(), "#org.example.notes");
    EXPECT_EQ(made->parentItemIdentifier(), hostframework::kRootContainer);
    EXPECT_EQ(made->filename(), "My Notes");
    EXPECT_EQ(made->typeIdentifier(), "inode/directory");
    EXPECT_EQ(made->fileURL(), notes.record->dataContainerURL()->appending("Documents"));
    EXPECT_EQ(made->appContainerBundleIdentifier(), "org.example.notes");
    EXPECT_EQ(made->searchDomainIdentifier(), std::nullopt);
    EXPECT_EQ(made->capabilities(), 0x3u);
    EXPECT_EQ(made->childItemCount(), 0u);
    EXPECT_EQ(made->docID(), std::nullopt);
    EXPECT_EQ(made->fileID(), device.files().stat(notes.root)->fileID);
    EXPECT_TRUE(made->isFolder());
    EXPECT_TRUE(made->isContainer());
    EXPECT_FALSE(made->isTrashed());
    EXPECT_TRUE(made->description().starts_with("<LocalAppLibraryItem:0x")) << made->description();
    EXPECT_TRUE(
        made->description().ends_with(" #org.example.notes name:\"My Notes\" parent:root type:inode/directory>"))
        << made->description();
    EXPECT_EQ(logged(), Texts{});
}

TEST_F(LocalAppLibraryItemTest, HasNoNameOfItsOwnAndNoBundleWhereTheRecordHasNone) {
    auto made = library(addLibrary("nameless", std::nullopt));
    ASSERT_TRUE(made);
    EXPECT_EQ(made->itemIdentifier(), "#(null)");
    EXPECT_EQ(made->filename(), "Documents");
    EXPECT_EQ(made->appContainerBundleIdentifier(), std::nullopt);
}

TEST_F(LocalAppLibraryItemTest, MayOnlyBeReadWhereItsFolderMay) {
    auto notes = addLibrary("notes", "org.example.notes");
    files.answerResource(ResourceKey::isWritable, false);
    EXPECT_EQ(library(notes)->capabilities(), 0x1u);
}

TEST_F(LocalAppLibraryItemTest, IsNotMadeWithoutADataContainer) {
    auto record = installApplication(std::nullopt, "org.example.bare", "Bare");
    EXPECT_FALSE(LocalAppLibraryItem::initFrom(environment, *record));
    EXPECT_EQ(loggedLines(), (std::vector<Line>{{Level::error,
                                                 "[ERROR] can't create an app library item without a "
                                                 "data container URL"}}));
}

TEST_F(LocalAppLibraryItemTest, IsNotMadeOfAFolderThatCannotBeRead) {
    auto notes = addLibrary("notes", "org.example.notes", "Notes");
    files.failResource(ResourceKey::typeIdentifier, posixError(EIO));
    EXPECT_FALSE(library(notes));
    EXPECT_EQ(logged(),
              (Texts{"[ERROR] can't get resource \"typeIdentifier\" for " + notes.root.text() +
                         "; POSIX EIO (Input/output error)",
                     "[ERROR] can't create an item without a type identifier (itemIdentifier: #org.example.notes, "
                     "parentItemIdentifier: RootContainer, filename: Notes)"}));
}

TEST_F(LocalAppLibraryItemTest, NamedInboxIsNotShown) {
    EXPECT_FALSE(library(addLibrary("post", "org.example.post", "Inbox")));
    EXPECT_EQ(logged(), Texts{"[DEBUG] can't create an item for the \"Inbox\" directory"});
}

TEST_F(LocalAppLibraryItemTest, DoesNotCountItsInboxAndTrash) {
    const struct {
        Texts folders;
        std::uint16_t children;
    } rows[] = {
        {{}, 0},
        {{"Folder"}, 1},
        {{"Inbox"}, 0},
        {{".Trash"}, 0},
        {{"Inbox", ".Trash"}, 0},
        {{"Folder", "Inbox", ".Trash"}, 1},
        {{"Folder", ".Trash", ".hidden"}, 2},
        {{"inbox", "Trash"}, 2},
    };
    int number = 0;
    for (const auto& row : rows) {
        const std::string name = "app" + std::to_string(++number);
        auto made = addLibrary(name, "org.example." + name);
        for (const std::string& folder : row.folders) testing::makeDirectories(made.path + "/" + folder);
        EXPECT_EQ(library(made)->childItemCount(), row.children) << ::testing::PrintToString(row.folders);
    }
}

TEST_F(LocalAppLibraryItemTest, DoesNotCountAFileOrLinkOfThatNameEither) {
    auto notes = addLibrary("notes", "org.example.notes");
    testing::makeDirectories(notes.path + "/Folder");
    testing::writeFile(notes.path + "/Inbox", "");
    ASSERT_EQ(::symlink("Folder", (notes.path + "/.Trash").c_str()), 0);
    EXPECT_EQ(library(notes)->childItemCount(), 1u);
    ASSERT_EQ(::unlink((notes.path + "/.Trash").c_str()), 0);
    ASSERT_EQ(::symlink("/etc", (notes.path + "/.Trash").c_str()), 0);
    EXPECT_EQ(library(notes)->childItemCount(), 2u) << "a link that leads out of the library is not reachable";
}

TEST_F(LocalAppLibraryItemTest, CountsAgainWhenItsInboxAndTrashCameMeanwhile) {
    auto notes = addLibrary("notes", "org.example.notes");
    testing::makeDirectories(notes.path + "/Folder");
    files.meanwhile(Operation::isReachable, [&] {
        testing::makeDirectories(notes.path + "/Inbox");
        testing::makeDirectories(notes.path + "/.Trash");
    });
    auto made = library(notes);
    ASSERT_TRUE(made);
    EXPECT_EQ(made->childItemCount(), 1u);
    EXPECT_EQ(files.calls(Operation::stat), 2u);
}

TEST_F(LocalAppLibraryItemTest, HasNoChildCountWhenItsFolderGoesWhileItIsCountedAgain) {
    auto notes = addLibrary("notes", "org.example.notes");
    testing::makeDirectories(notes.path + "/Folder");
    files.meanwhile(Operation::isReachable, [&] {
        testing::makeDirectories(notes.path + "/Inbox");
        testing::makeDirectories(notes.path + "/.Trash");
    });
    files.fail(Operation::stat, ENOENT, testing::FaultyFileSystem::kAlways, 1);
    auto made = library(notes);
    ASSERT_TRUE(made);
    EXPECT_EQ(made->childItemCount(), std::nullopt);
}

TEST_F(LocalAppLibraryItemTest, ACountThatWouldFallBelowZeroStopsTheProcess) {
    const DyingProcesses processes;
    auto notes = addLibrary("notes", "org.example.notes");
    testing::makeDirectories(notes.path + "/Inbox");
    testing::makeDirectories(notes.path + "/.Trash");
    files.answerLinkCount(3);
    EXPECT_DEATH(library(notes), "child count of an app library would fall below 0");
}

TEST_F(LocalAppLibraryItemTest, IsFoundByWhereAURLStandsToTheRoots) {
    auto first = addLibrary("first", "org.example.first");
    auto second = addLibrary("second", "org.example.second");
    const struct {
        URL url;
        Relationship expected;
    } rows[] = {
        {first.root, Relationship::same},
        {second.root, Relationship::same},
        {second.root.appending("a"), Relationship::contains},
        {second.root.appending("a").appending("b"), Relationship::contains},
        {second.root.deletingLastPathComponent(), Relationship::other},
        {URL::file(second.root.path() + "x"), Relationship::other},
        {device.url(), Relationship::other},
    };
    for (const auto& row : rows) EXPECT_EQ(libraries.relationshipToRoots(row.url), row.expected) << row.url.path();
    EXPECT_EQ(ListedAppLibraries().relationshipToRoots(first.root), Relationship::other);
}

}  // namespace
}  // namespace tarnwell::items
