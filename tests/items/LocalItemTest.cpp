#include "items/LocalItem.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <limits>
#include <type_traits>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ItemsFixture.h"
#include "hostframework/ItemIdentifier.h"

namespace tarnwell::items {
namespace {

using archive::Integer;
using files::ResourceKey;
using files::ResourceValue;
using hostframework::kRootContainer;
using log::Level;
using Line = testing::CapturingLog::Line;

static_assert(!std::is_default_constructible_v<LocalItem>);
static_assert(!std::is_constructible_v<LocalItem, const Environment&, const URL&>, "only the factories make items");

class LocalItemTest : public ItemsTest {
protected:
    std::shared_ptr<LocalItem> file(const std::string& relative, const LocalItem::Arguments& arguments = {}) {
        if (::access(device.path(relative).c_str(), F_OK) != 0) testing::writeFile(device.path(relative), "12345");
        return item(device.url(relative), arguments);
    }
    std::shared_ptr<LocalItem> folder(const std::string& relative, const LocalItem::Arguments& arguments = {}) {
        testing::makeDirectories(device.path(relative));
        return item(device.url(relative), arguments);
    }
};

TEST(LocalItemKeys, AreThoseThatAListingPrefetches) {
    std::vector<std::string> names;
    for (ResourceKey key : LocalItem::urlKeys) names.emplace_back(files::nameOf(key));
    EXPECT_EQ(names, (Texts{"parentDirectoryURL", "name", "localizedName", "typeIdentifier", "fileSize", "creationDate",
                            "contentModificationDate", "isReadable", "isWritable"}));
}

TEST_F(LocalItemTest, OfAFileTellsWhatTheDiskTells) {
    const auto before = std::chrono::system_clock::now() - std::chrono::seconds(5);
    auto made = file("a.txt");
    ASSERT_TRUE(made);
    EXPECT_EQ(made->itemIdentifier(), identifierOf(device.url("a.txt")));
    EXPECT_EQ(made->itemIdentifierAsString(), made->itemIdentifier());
    EXPECT_EQ(made->parentItemIdentifier(), kRootContainer);
    EXPECT_EQ(made->parentItemIdentifierAsString(), kRootContainer);
    EXPECT_EQ(made->filename(), "a.txt");
    EXPECT_EQ(made->typeIdentifier(), "text/plain");
    EXPECT_EQ(made->documentSize(), 5u);
    ASSERT_TRUE(made->contentModificationDate());
    EXPECT_GT(*made->contentModificationDate(), before);
    EXPECT_EQ(made->childItemCount(), std::nullopt);
    EXPECT_EQ(made->capabilities(), 0x3Fu);
    EXPECT_EQ(made->versionIdentifier(), std::nullopt);
    EXPECT_FALSE(made->isTrashed());
    EXPECT_EQ(made->lastUsedDate(), std::nullopt);
    EXPECT_EQ(made->tagData(), std::nullopt);
    EXPECT_EQ(made->favoriteRank(), std::nullopt);
    EXPECT_EQ(made->fileID(), device.files().stat(device.url("a.txt"))->fileID);
    EXPECT_EQ(made->docID(), static_cast<std::int64_t>(numberIn(made->itemIdentifier())));
    EXPECT_EQ(made->fileURL(), device.url("a.txt"));
    EXPECT_EQ(made->searchDomainIdentifier(), std::nullopt);
    EXPECT_EQ(made->appContainerBundleIdentifier(), std::nullopt);
    EXPECT_FALSE(made->isUbiquitous());
    EXPECT_FALSE(made->isFolder());
    EXPECT_FALSE(made->isContainer());
    EXPECT_EQ(logged(), Texts{});
}

TEST_F(LocalItemTest, OfAFolderCountsAllItsChildren) {
    auto empty = folder("Empty");
    ASSERT_TRUE(empty);
    EXPECT_EQ(empty->childItemCount(), 0u);
    EXPECT_EQ(empty->typeIdentifier(), "inode/directory");
    EXPECT_TRUE(empty->isFolder());
    EXPECT_EQ(empty->documentSize(), std::nullopt);
    EXPECT_EQ(empty->docID(), std::nullopt);
    EXPECT_EQ(empty->fileID(), FileID{numberIn(empty->itemIdentifier())});
    EXPECT_EQ(empty->capabilities(), 0x3Fu);

    testing::makeDirectories(device.path("Full/Sub/Deep"));
    testing::writeFile(device.path("Full/a"), "");
    testing::writeFile(device.path("Full/.hidden"), "");
    EXPECT_EQ(folder("Full")->childItemCount(), 3u);
    EXPECT_EQ(logged(), Texts{});
}

TEST_F(LocalItemTest, OfAPackageIsNoFolderAndHasNoChildCount) {
    if (!packagesAreKnown()) GTEST_SKIP() << "update-mime-database does not work here, so no folder is a package";
    testing::makeDirectories(device.path("Notes.docbundle/Parts"));
    auto made = item(device.url("Notes.docbundle"));
    ASSERT_TRUE(made);
    EXPECT_TRUE(made->itemIdentifier().starts_with("did=")) << made->itemIdentifier();
    EXPECT_FALSE(made->isFolder());
    EXPECT_EQ(made->childItemCount(), std::nullopt);
    EXPECT_NE(made->docID(), std::nullopt);
}

TEST_F(LocalItemTest, OfTheStorageRootIsItsOwnParentAndMayOnlyBeRead) {
    auto root = item(device.url());
    ASSERT_TRUE(root);
    EXPECT_EQ(root->itemIdentifier(), kRootContainer);
    EXPECT_EQ(root->parentItemIdentifier(), kRootContainer);
    EXPECT_EQ(root->filename(), "Documents");
    EXPECT_EQ(root->capabilities(), 0x1u);
    EXPECT_FALSE(root->isTrashed());
    EXPECT_TRUE(root->isFolder());
    LocalItem::Arguments elsewhere;
    elsewhere.customParentItemID = "fid=7";
    EXPECT_EQ(item(device.url(), elsewhere)->parentItemIdentifier(), kRootContainer);
    LocalItem::Arguments inbox;
    inbox.customFilename = "Inbox";
    EXPECT_TRUE(item(device.url(), inbox)) << "a storage root may have any name";
    EXPECT_EQ(logged(), Texts{});
}

TEST_F(LocalItemTest, TakesFromItsCallerWhatTheCallerKnowsBetter) {
    LocalItem::Arguments arguments;
    arguments.customItemID = "fid=9";
    arguments.customParentItemID = "#org.example.notes";
    arguments.customFilename = "Another name";
    arguments.bundleIdentifier = "org.example.bundle";
    auto made = file("a.txt", arguments);
    ASSERT_TRUE(made);
    EXPECT_EQ(made->itemIdentifier(), "fid=9");
    EXPECT_EQ(made->parentItemIdentifier(), "#org.example.notes");
    EXPECT_EQ(made->filename(), "Another name");
    EXPECT_EQ(made->appContainerBundleIdentifier(), "org.example.bundle");
    EXPECT_EQ(made->searchDomainIdentifier(), std::nullopt);
    EXPECT_EQ(made->docID(), std::nullopt);
    EXPECT_EQ(store.allocations(), 0u);
}

TEST_F(LocalItemTest, IsRefusedWithoutWhatNoItemGoesWithout) {
    testing::writeFile(device.path("a.txt"), "");
    const std::string id = identifierOf(device.url("a.txt"));
    const std::string url = device.url("a.txt").text();
    const std::string eio = "; POSIX EIO (Input/output error)";

    files.failResource(ResourceKey::documentID, posixError(EIO));
    EXPECT_FALSE(item(device.url("a.txt")));
    EXPECT_EQ(loggedLines(),
              (std::vector<Line>{{Level::error, "can't get doc ID for " + quoted(device.url("a.txt").path()) + eio},
                                 {Level::debug, "[DEBUG] can't create an item without an ID"}}));

    files.clear();
    LocalItem::Arguments outside;
    outside.customItemID = "fid=9";
    EXPECT_FALSE(item(URL::file("/elsewhere/a.txt"), outside));
    EXPECT_EQ(loggedLines(),
              (std::vector<Line>{{Level::debug,
                                  "can't compute file object identifier because \"/elsewhere\" is not part of "
                                  "Tarnwell Storage"},
                                 {Level::error,
                                  "[ERROR] can't create an item without a parent ID "
                                  "(itemIdentifier: fid=9)"}}));

    files.failResource(ResourceKey::name, posixError(EIO));
    EXPECT_FALSE(item(device.url("a.txt")));
    EXPECT_EQ(loggedLines(),
              (std::vector<Line>{{Level::error, "[ERROR] can't get resource \"name\" for " + url + eio},
                                 {Level::error, "[ERROR] can't create an item without a filename (itemIdentifier: " +
                                                    id + ", parentItemIdentifier: RootContainer)"}}));

    files.clear();
    files.answerResource(ResourceKey::typeIdentifier, ResourceValue{});
    EXPECT_FALSE(item(device.url("a.txt")));
    EXPECT_EQ(loggedLines(), (std::vector<Line>{{Level::error,
                                                 "[ERROR] can't create an item without a type identifier "
                                                 "(itemIdentifier: " +
                                                     id + ", parentItemIdentifier: RootContainer, filename: a.txt)"}}));
}

TEST_F(LocalItemTest, OfAnInboxAtTheTopIsNotMade) {
    auto notes = addLibrary("notes", "org.example.notes");
    testing::makeDirectories(notes.path + "/Inbox/Inbox");
    testing::makeDirectories(device.path("Inbox/Inbox"));
    testing::makeDirectories(device.path("inbox"));
    testing::makeDirectories(device.path("Folder"));
    testing::makeDirectories(device.path("Sub"));
    testing::writeFile(device.path("Sub/Inbox"), "");
    auto named = [](std::optional<std::string> name, std::optional<std::string> parent = std::nullopt) {
        LocalItem::Arguments arguments;
        arguments.customFilename = std::move(name);
        arguments.customParentItemID = std::move(parent);
        return arguments;
    };
    const struct {
        const char* what;
        URL url;
        LocalItem::Arguments arguments;
        bool made;
    } rows[] = {
        {"below the root", device.url("Inbox"), {}, false},
        {"below a library", notes.root.appending("Inbox"), {}, false},
        {"one level deeper", device.url("Inbox/Inbox"), {}, true},
        {"one level deeper in a library", notes.root.appending("Inbox").appending("Inbox"), {}, true},
        {"in other letters", device.url("inbox"), {}, true},
        {"a folder shown so", device.url("Folder"), named("Inbox"), false},
        {"a folder shown so deeper", device.url("Inbox/Inbox"), named("Inbox", "fid=3"), true},
        {"an Inbox shown otherwise", device.url("Inbox"), named("Post"), true},
        {"an Inbox said to be in a library", device.url("Inbox/Inbox"), named({}, "#x"), false},
        {"a file", device.url("Sub/Inbox"), named({}, "RootContainer"), true},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(item(row.url, row.arguments) != nullptr, row.made) << row.what;
        EXPECT_EQ(loggedLines(),
                  row.made
                      ? std::vector<Line>{}
                      : (std::vector<Line>{{Level::debug, "[DEBUG] can't create an item for the \"Inbox\" directory"}}))
            << row.what;
    }
}

TEST_F(LocalItemTest, IsTrashedBelowATrashThatLiesDirectlyInDocuments) {
    auto notes = addLibrary("notes", "org.example.notes");
    const struct {
        std::string relative;
        bool trashed;
    } rows[] = {
        {"a", false},
        {".Trash", false},
        {".Trash/a", true},
        {".Trash/Folder/a", true},
        {".Trashes/a", false},
        {".Trash2/.Trash/a", false},
        {"Folder/.Trash/a", false},
        {"Folder/Documents/.Trash/a", true},
        {"Documents/a/.Trash/a", false},
        {"MyDocuments/.Trash/a", false},
        {"Documents/.Trashed/Documents/.Trash/Sub/a", true},
    };
    for (const auto& row : rows) {
        testing::makeDirectories(device.path(row.relative));
        testing::makeDirectories(notes.path + "/" + row.relative);
        auto stored = item(device.url(row.relative));
        auto inLibrary = item(URL::file(notes.root.path() + "/" + row.relative));
        ASSERT_TRUE(stored && inLibrary) << row.relative;
        EXPECT_EQ(stored->isTrashed(), row.trashed) << row.relative;
        EXPECT_EQ(inLibrary->isTrashed(), row.trashed) << row.relative;
    }
}

TEST_F(LocalItemTest, MayBeChangedOnlyWhereTheDiskSaysSo) {
    auto withIdentifier = [](const char* identifier) {
        LocalItem::Arguments arguments;
        arguments.customItemID = identifier;
        return arguments;
    };
    testing::makeDirectories(device.path("Folder"));
    const struct {
        ResourceValue writable;
        std::uint64_t file, folder, library, root;
    } rows[] = {
        {true, 0x3F, 0x3F, 0x3, 0x1},
        {false, 0x1, 0x1, 0x1, 0x1},
        {ResourceValue{}, 0x1, 0x1, 0x1, 0x1},
        {std::uint64_t{1}, 0x1, 0x1, 0x1, 0x1},
    };
    for (const auto& row : rows) {
        files.answerResource(ResourceKey::isWritable, row.writable);
        EXPECT_EQ(file("a.txt")->capabilities(), row.file) << row.writable.index();
        EXPECT_EQ(item(device.url("Folder"))->capabilities(), row.folder) << row.writable.index();
        EXPECT_EQ(item(device.url("Folder"), withIdentifier("#x"))->capabilities(), row.library)
            << row.writable.index();
        EXPECT_EQ(item(device.url())->capabilities(), row.root) << row.writable.index();
    }
    files.failResource(ResourceKey::isWritable, posixError(EACCES));
    EXPECT_EQ(file("a.txt")->capabilities(), 0x1u);
    EXPECT_EQ(logged(), Texts{"[ERROR] can't get resource \"isWritable\" for " + device.url("a.txt").text() +
                              "; POSIX EACCES (Permission denied)"});
}

TEST_F(LocalItemTest, LeavesOutOptionalValuesThatCannotBeReadAndLogsEachRead) {
    testing::writeFile(device.path("a.txt"), "");
    const std::string where = device.url("a.txt").text() + "; POSIX EIO (Input/output error)";
    files.failResource(ResourceKey::fileSize, posixError(EIO));
    files.failResource(ResourceKey::creationDate, posixError(EIO));
    files.failResource(ResourceKey::contentModificationDate, posixError(EIO));
    auto made = item(device.url("a.txt"));
    ASSERT_TRUE(made);
    EXPECT_EQ(made->documentSize(), std::nullopt);
    EXPECT_EQ(made->creationDate(), std::nullopt);
    EXPECT_EQ(made->contentModificationDate(), std::nullopt);
    EXPECT_EQ(made->versionIdentifier(), std::nullopt);
    EXPECT_EQ(logged(), (Texts{"[ERROR] can't get resource \"fileSize\" for " + where,
                               "[ERROR] can't get resource \"creationDate\" for " + where,
                               "[ERROR] can't get resource \"contentModificationDate\" for " + where,
                               "[ERROR] can't get resource \"contentModificationDate\" for " + where}));
}

TEST_F(LocalItemTest, IsMadeWithoutAFileIDWhereTheFileCannotBeAsked) {
    testing::makeDirectories(device.path("Folder"));
    const std::string path = quoted(device.url("Folder").path());
    const struct {
        int code;
        Line line;
    } rows[] = {
        {ENOENT,
         {Level::debug, "[DEBUG] can't find fileID for item " + path + "; POSIX ENOENT (No such file or directory)"}},
        {EACCES, {Level::error, "[ERROR] can't find fileID for item " + path + "; POSIX EACCES (Permission denied)"}},
    };
    for (const auto& row : rows) {
        files.clear();
        files.fail(Operation::stat, row.code);
        auto made = item(device.url("Folder"));
        ASSERT_TRUE(made);
        EXPECT_EQ(made->fileID(), std::nullopt);
        EXPECT_EQ(made->childItemCount(), std::nullopt);
        EXPECT_EQ(loggedLines(), std::vector<Line>{row.line});
    }
}

TEST_F(LocalItemTest, CountsChildrenInSixteenBits) {
    testing::makeDirectories(device.path("Folder"));
    const struct {
        std::uint32_t links;
        std::uint16_t children;
    } rows[] = {{2, 0}, {3, 1}, {65'536, 65'534}, {65'537, 65'535}, {65'538, 0}, {65'539, 1}};
    for (const auto& row : rows) {
        files.answerLinkCount(row.links);
        EXPECT_EQ(item(device.url("Folder"))->childItemCount(), row.children) << row.links;
    }
    files.answerLinkCount(1);
    EXPECT_TRUE(file("a.txt")) << "only folders are counted";
}

TEST_F(LocalItemTest, ALinkCountBelowTwoOfAFolderStopsTheProcess) {
    const DyingProcesses processes;
    testing::makeDirectories(device.path("Folder"));
    files.answerLinkCount(1);
    EXPECT_DEATH(item(device.url("Folder")), "link count of a folder is below 2");
}

TEST_F(LocalItemTest, OfAFolderThatBecomesAFileMeanwhileHasNoChildCount) {
    testing::makeDirectories(device.path("Folder"));
    files.meanwhile(Operation::stat, [&] {
        ASSERT_EQ(::rmdir(device.path("Folder").c_str()), 0);
        testing::writeFile(device.path("Folder"), "");
    });
    LocalItem::Arguments arguments;
    arguments.customItemID = "fid=9";
    auto made = item(device.url("Folder"), arguments);
    ASSERT_TRUE(made);
    EXPECT_TRUE(made->isFolder());
    EXPECT_EQ(made->childItemCount(), std::nullopt);
}

TEST_F(LocalItemTest, HasADocumentIDOnlyFromAnIdentifierOfThatForm) {
    const struct {
        const char* identifier;
        std::optional<std::int64_t> docID;
    } rows[] = {
        {"did=5", 5},
        {"did=+5", 5},
        {"did=-5", -5},
        {"did=", std::nullopt},
        {"did= 5", std::nullopt},
        {"did=5x", std::nullopt},
        {"did=+-5", std::nullopt},
        {"did=9223372036854775807", std::numeric_limits<std::int64_t>::max()},
        {"did=9223372036854775808", std::nullopt},
        {"fid=5", std::nullopt},
        {"#did=5", std::nullopt},
    };
    for (const auto& row : rows) {
        LocalItem::Arguments arguments;
        arguments.customItemID = row.identifier;
        EXPECT_EQ(file("a.txt", arguments)->docID(), row.docID) << row.identifier;
    }
}

TEST_F(LocalItemTest, InALibraryBelongsToItsSearchDomain) {
    auto notes = addLibrary("notes", "org.example.notes");
    auto nameless = addLibrary("nameless", std::nullopt);
    testing::makeDirectories(notes.path + "/Folder");
    testing::writeFile(notes.path + "/Folder/a.txt", "");
    testing::writeFile(nameless.path + "/a.txt", "");
    const URL url = notes.root.appending("Folder").appending("a.txt");
    LocalItem::Arguments arguments;
    arguments.bundleIdentifier = "org.example.other";

    auto made = item(url, arguments);
    EXPECT_EQ(made->searchDomainIdentifier(), "org.example.notes");
    EXPECT_EQ(made->appContainerBundleIdentifier(), "org.example.notes");
    EXPECT_EQ(made->parentItemIdentifier(), identifierOf(notes.root.appending("Folder")));

    arguments.hasSearchDomainIdentifier = false;
    made = item(url, arguments);
    EXPECT_EQ(made->searchDomainIdentifier(), std::nullopt);
    EXPECT_EQ(made->appContainerBundleIdentifier(), "org.example.other");

    arguments.hasSearchDomainIdentifier = true;
    made = item(nameless.root.appending("a.txt"), arguments);
    EXPECT_EQ(made->searchDomainIdentifier(), std::nullopt);
    EXPECT_EQ(made->appContainerBundleIdentifier(), std::nullopt);
    EXPECT_EQ(made->parentItemIdentifier(), "#(null)");

    made = file("b.txt", arguments);
    EXPECT_EQ(made->searchDomainIdentifier(), std::nullopt);
    EXPECT_EQ(made->appContainerBundleIdentifier(), "org.example.other");

    environment.appLibraries = nullptr;
    made = file("b.txt", arguments);
    EXPECT_EQ(made->searchDomainIdentifier(), std::nullopt);
    EXPECT_EQ(made->appContainerBundleIdentifier(), "org.example.other");
}

TEST_F(LocalItemTest, IsDescribedInOneLine) {
    auto description = [](const LocalItem& made, const std::string& rest) {
        char address[32];
        std::snprintf(address, sizeof address, "%p", static_cast<const void*>(&made));
        return "<LocalItem:" + std::string(address) + " " + made.itemIdentifier() + " " + rest + ">";
    };
    auto plain = file("a.txt");
    EXPECT_EQ(plain->description(), description(*plain, "name:\"a.txt\" parent:root type:text/plain"));
    auto root = item(device.url());
    EXPECT_EQ(root->description(), description(*root, "name:\"Documents\" parent:root type:inode/directory"));

    testing::makeDirectories(device.path(".Trash"));
    testing::writeFile(device.path(".Trash/\"b\".txt"), "");
    setArchivedAttribute(device.path(".Trash/\"b\".txt"), LocalItem::xattrFavoriteRankName,
                         {Integer::fromUnsigned(std::numeric_limits<std::uint64_t>::max())});
    auto trashed = item(device.url(".Trash/\"b\".txt"));
    EXPECT_EQ(trashed->description(),
              description(*trashed, "name:\"\"b\".txt\" parent:" + identifierOf(device.url(".Trash")) +
                                        " type:text/plain trashed favorite:18446744073709551615"));
    files.answerResource(ResourceKey::typeIdentifier, std::string("x/y"));
    auto ranked = file("c.txt");
    setArchivedAttribute(device.path("c.txt"), LocalItem::xattrFavoriteRankName, {Integer::fromUnsigned(0)});
    ranked = item(device.url("c.txt"));
    EXPECT_EQ(ranked->description(), description(*ranked, "name:\"c.txt\" parent:root type:x/y favorite:0"));
}

TEST_F(LocalItemTest, KeepsEveryNameAsItsBytes) {
    for (const std::string& name :
         {std::string(255, 'n'), std::string("new\nline"), std::string("not \xFF\xC3 text"), std::string("\x01"),
          std::string("caf\xC3\xA9"), std::string("cafe\xCC\x81"), std::string("%2F"), std::string("a=b"),
          std::string("#a"), std::string(" "), std::string("..."), std::string("~")}) {
        auto made = file(name);
        ASSERT_TRUE(made) << name;
        EXPECT_EQ(made->filename(), name);
        EXPECT_EQ(identifiers.fileURLWithItemIdentifier(made->itemIdentifier()), device.url(name)) << name;
    }
    EXPECT_EQ(logged(), Texts{});
}

TEST_F(LocalItemTest, OfALinkFollowsItOnlyForItsFileIDAndNeverOutOfTheRoots) {
    testing::writeFile(device.path("a.txt"), "12345");
    testing::makeDirectories(device.path("Folder"));
    ASSERT_EQ(::symlink("a.txt", device.path("in").c_str()), 0);
    ASSERT_EQ(::symlink("Folder", device.path("to folder").c_str()), 0);
    ASSERT_EQ(::symlink("/etc/passwd", device.path("out").c_str()), 0);
    ASSERT_EQ(::symlink("nowhere", device.path("dangling").c_str()), 0);

    auto in = item(device.url("in"));
    ASSERT_TRUE(in);
    EXPECT_TRUE(in->itemIdentifier().starts_with("fid="));
    EXPECT_EQ(in->fileID(), item(device.url("a.txt"))->fileID());
    auto toFolder = item(device.url("to folder"));
    ASSERT_TRUE(toFolder);
    EXPECT_FALSE(toFolder->isFolder());
    EXPECT_EQ(toFolder->childItemCount(), std::nullopt);
    EXPECT_EQ(toFolder->fileID(), item(device.url("Folder"))->fileID());
    EXPECT_EQ(logged(), Texts{});
    for (const char* name : {"out", "dangling"}) {
        auto made = item(device.url(name));
        ASSERT_TRUE(made) << name;
        EXPECT_EQ(made->fileID(), std::nullopt) << name;
        EXPECT_FALSE(made->isFolder()) << name;
        EXPECT_EQ(
            loggedLines(),
            (std::vector<Line>{{Level::debug, "[DEBUG] can't find fileID for item " + quoted(device.url(name).path()) +
                                                  "; POSIX ENOENT (No such file or directory)"}}));
    }
}

TEST_F(LocalItemTest, OfAPipeIsMadeWithoutOpeningItForReading) {
    ASSERT_EQ(::mkfifo(device.path("pipe").c_str(), 0600), 0);
    auto made = item(device.url("pipe"));
    ASSERT_TRUE(made);
    EXPECT_TRUE(made->itemIdentifier().starts_with("fid="));
    EXPECT_FALSE(made->isFolder());
    EXPECT_EQ(made->childItemCount(), std::nullopt);
    EXPECT_EQ(made->fileID(), FileID{numberIn(made->itemIdentifier())});
    EXPECT_EQ(logged(), Texts{});
}

TEST_F(LocalItemTest, IsASnapshot) {
    auto made = file("a.txt");
    testing::writeFile(device.path("a.txt"), "much longer now");
    EXPECT_EQ(made->documentSize(), 5u);
    EXPECT_EQ(item(device.url("a.txt"))->documentSize(), 15u);
    made->setChildItemCount(std::uint16_t{4});
    EXPECT_EQ(made->childItemCount(), 4u);
    made->setChildItemCount(std::nullopt);
    EXPECT_EQ(made->childItemCount(), std::nullopt);
}

TEST_F(LocalItemTest, IsMadeFromAFileID) {
    auto made = folder("Folder");
    auto again = LocalItem::initWithFileIdentifier(environment, raw(*made->fileID()));
    ASSERT_TRUE(again);
    EXPECT_EQ(again->itemIdentifier(), made->itemIdentifier());
    EXPECT_EQ(again->fileURL(), device.url("Folder"));
    ASSERT_EQ(::rmdir(device.path("Folder").c_str()), 0);
    logged();
    EXPECT_FALSE(LocalItem::initWithFileIdentifier(environment, raw(*made->fileID())));
    EXPECT_EQ(logged(),
              Texts{"can't resolve path matching file ID \"" + std::to_string(raw(*made->fileID())) + "\"; 2"});
}

TEST_F(LocalItemTest, MadeFromAFileIDBelongsToItsLibrarysSearchDomain) {
    auto notes = addLibrary("notes", "org.example.notes");
    testing::makeDirectories(notes.path + "/Folder");
    auto made = item(notes.root.appending("Folder"));
    ASSERT_TRUE(made && made->fileID());
    auto again = LocalItem::initWithFileIdentifier(environment, raw(*made->fileID()));
    ASSERT_TRUE(again);
    EXPECT_EQ(again->searchDomainIdentifier(), "org.example.notes");
    EXPECT_EQ(again->appContainerBundleIdentifier(), "org.example.notes");
}

TEST_F(LocalItemTest, TellsTheTwoDatesApart) {
    const auto before = std::chrono::system_clock::now() - std::chrono::seconds(5);
    makeFile("a.txt");
    const timespec modified{978'307'200, 0};  // 2001-01-01
    const timespec times[] = {modified, modified};
    ASSERT_EQ(::utimensat(AT_FDCWD, device.path("a.txt").c_str(), times, 0), 0);
    auto made = item(device.url("a.txt"));
    ASSERT_TRUE(made);
    EXPECT_EQ(made->contentModificationDate(), Date(std::chrono::seconds(modified.tv_sec)));
    if (!made->creationDate()) GTEST_SKIP() << "this file system keeps no creation times";
    EXPECT_GT(*made->creationDate(), before);
}

TEST_F(LocalItemTest, OfSomethingThatIsGoneIsNotMade) {
    EXPECT_FALSE(item(device.url("gone")));
    auto lines = loggedLines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].level, Level::debug);
    EXPECT_EQ(lines[1], (Line{Level::debug, "[DEBUG] can't create an item without an ID"}));
    EXPECT_FALSE(item(URL::parse("https://example.org/a")));
    EXPECT_EQ(logged(), (Texts{"can't compute file object identifier if not a file URL",
                               "[DEBUG] can't create an item without an ID"}));
}

}  // namespace
}  // namespace tarnwell::items
