#include "provider/ItemLookup.h"

#include <unistd.h>

#include <cerrno>

#include "hostframework/HostError.h"
#include "items/TarnwellError.h"
#include "tests/provider/ProviderFixture.h"

namespace tarnwell::provider {
namespace {

using hostframework::noSuchItem;

class ItemLookupTest : public ProviderTest {
protected:
    static inline const Error kInvalidIdentifier = items::makeError(items::TarnwellError::invalidItemIdentifier);

    static Error noSuchFile() { return {ErrorDomain::generalFile, kNoSuchFileOnRead, {}}; }
    /// What `itemForURL` says of the library "notes" when its folder is gone.
    static Lines linesOfALibraryWithoutAFolder(const URL& documents) {
        const std::string identifier = "#org.example.notes";
        return {kOpen + "fetching item identifier for \"" + documents.path() + "\"",
                "[DEBUG] found " + identifier,
                kClose,
                kOpen + "fetching item's properties for \"" + identifier + "\"",
                "[ERROR] can't get resource \"typeIdentifier\" for " + documents.text() + "; " + describe(noSuchFile()),
                "[ERROR] can't create an item without a type identifier (itemIdentifier: " + identifier +
                    ", parentItemIdentifier: RootContainer, filename: notes)",
                "[ERROR] item lookup failed for identifier \"" + identifier + "\"",
                kClose};
    }

    ItemLookup lookup_{providerContext_};
};

TEST_F(ItemLookupTest, FilesFoldersAndTheRootAreFoundByTheirIdentifiers) {
    makeFile("a.txt");
    makeFolder("folder");
    struct Row {
        std::string identifier;
        std::string relative;
    };
    const std::vector<Row> rows{
        {identifierOf("a.txt"), "a.txt"}, {identifierOf("folder"), "folder"}, {"RootContainer", ""}};
    device_.settle();
    for (const Row& row : rows) {
        SCOPED_TRACE(row.identifier);
        newLines();
        const auto item = lookup_.itemForIdentifier(row.identifier);
        ASSERT_TRUE(item.has_value());
        EXPECT_EQ((*item)->itemIdentifier(), row.identifier);
        EXPECT_EQ((*item)->fileURL(), device_.url(row.relative));
        EXPECT_EQ(newLines(), (Lines{kOpen + "fetching item's properties for \"" + row.identifier + "\"",
                                     "[DEBUG] found " + (*item)->description(), kClose}));

        EXPECT_EQ(lookup_.urlForIdentifier(row.identifier), device_.url(row.relative));
        EXPECT_EQ(newLines(), (Lines{kOpen + "fetching URL for \"" + row.identifier + "\"",
                                     "[DEBUG] found " + device_.url(row.relative).text(), kClose}));
    }
}

TEST_F(ItemLookupTest, NothingIsRememberedBetweenLookups) {
    makeFile("a.txt");
    const auto identifier = identifierOf("a.txt");
    EXPECT_EQ(lookup_.urlForIdentifier(identifier), device_.url("a.txt"));
    ASSERT_EQ(std::rename(device_.path("a.txt").c_str(), device_.path("b.txt").c_str()), 0);
    device_.settle();
    EXPECT_EQ(lookup_.urlForIdentifier(identifier), device_.url("b.txt"));
    EXPECT_EQ(lookup_.identifierForURL(device_.url("b.txt")), identifier);
}

TEST_F(ItemLookupTest, AnAppLibraryIsFoundByItsIdentifier) {
    const auto notes = application("notes");
    testing::writeFile(*notes.containerPath + "/Documents/a.txt", "x");
    install({notes});
    const auto item = lookup_.itemForIdentifier("#org.example.notes");
    ASSERT_TRUE(item.has_value());
    EXPECT_TRUE((*item)->isContainer());
    EXPECT_EQ((*item)->filename(), "notes");
    EXPECT_EQ((*item)->parentItemIdentifier(), "RootContainer");
    EXPECT_EQ((*item)->childItemCount(), 1);
    EXPECT_EQ((*item)->fileURL(), documentsOf(notes));
    EXPECT_EQ(lookup_.urlForIdentifier("#org.example.notes"), documentsOf(notes));
    // Built afresh each time: the count is the one of now.
    testing::writeFile(*notes.containerPath + "/Documents/b.txt", "x");
    EXPECT_EQ((*lookup_.itemForIdentifier("#org.example.notes"))->childItemCount(), 2);
}

TEST_F(ItemLookupTest, TheTemporaryFolderIsMadeWhenItIsAskedFor) {
    EXPECT_FALSE(device_.files().isReachable(device_.url(".TemporaryLocalFolder")));
    const auto item = lookup_.itemForIdentifier("TemporaryLocalFolder");
    ASSERT_TRUE(item.has_value());
    EXPECT_EQ((*item)->fileURL(), device_.url(".TemporaryLocalFolder"));
    EXPECT_TRUE((*item)->isFolder());
    EXPECT_EQ(lookup_.urlForIdentifier("TemporaryLocalFolder"), device_.url(".TemporaryLocalFolder"));
}

TEST_F(ItemLookupTest, ATemporaryFolderThatCannotBeMadeIsNoItem) {
    makeFile(".TemporaryLocalFolder");
    const ItemLookup lookup(providerContext_);
    newLines();
    const auto item = lookup.itemForIdentifier("TemporaryLocalFolder");
    ASSERT_FALSE(item.has_value());
    EXPECT_EQ(item.error(), kInvalidIdentifier);
    const auto lines = newLines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0], kOpen + "fetching item's properties for \"TemporaryLocalFolder\"");
    EXPECT_TRUE(lines[1].starts_with("[ERROR] can't create temporary directory; ")) << lines[1];
    EXPECT_EQ(lines[2], "[ERROR] item lookup failed for identifier \"TemporaryLocalFolder\"");
    EXPECT_EQ(lines[3], kClose);
}

TEST_F(ItemLookupTest, TheErrorOfTheTemporaryFolderIsLogged) {
    faultyFiles_.fail(testing::FaultyFileSystem::Operation::createDirectory, ENOSPC);
    const ItemLookup lookup(faultyContext_);
    newLines();
    EXPECT_EQ(lookup.urlForIdentifier("TemporaryLocalFolder").error(), noSuchItem("TemporaryLocalFolder"));
    EXPECT_EQ(newLines(), (Lines{kOpen + "fetching URL for \"TemporaryLocalFolder\"",
                                 "[ERROR] can't create temporary directory; " + describe(posixError(ENOSPC)), kClose}));
}

TEST_F(ItemLookupTest, IdentifiersThatLeadNowhereFailInEachLookupsOwnWay) {
    for (const std::string identifier : {"fid=999999999", "did=4000000000", "#org.example.none", "#", "xid=5", "",
                                         "WorkingSetContainer", "AllDirectoriesContainer", "fid=1=2"}) {
        SCOPED_TRACE(identifier);
        newLines();
        const auto item = lookup_.itemForIdentifier(identifier);
        ASSERT_FALSE(item.has_value());
        EXPECT_EQ(item.error(), kInvalidIdentifier);
        auto lines = newLines();
        ASSERT_GE(lines.size(), 3u);
        EXPECT_EQ(lines.front(), kOpen + "fetching item's properties for \"" + identifier + "\"");
        EXPECT_EQ(Lines(lines.end() - 2, lines.end()),
                  (Lines{"[ERROR] item lookup failed for identifier \"" + identifier + "\"", kClose}));

        const auto url = lookup_.urlForIdentifier(identifier);
        ASSERT_FALSE(url.has_value());
        EXPECT_EQ(url.error(), noSuchItem(identifier));
    }
}

TEST_F(ItemLookupTest, AFailedURLLookupIsSilent) {
    newLines();
    EXPECT_FALSE(lookup_.urlForIdentifier("#org.example.none").has_value());
    EXPECT_EQ(newLines(), (Lines{kOpen + "fetching URL for \"#org.example.none\"", kClose}));
}

TEST_F(ItemLookupTest, URLsGiveTheirIdentifiers) {
    makeFile("a.txt");
    makeFolder("folder");
    for (const std::string relative : {"a.txt", "folder"}) {
        const auto expected = identifierOf(relative);
        newLines();
        EXPECT_EQ(lookup_.identifierForURL(device_.url(relative)), expected);
        EXPECT_EQ(newLines(), (Lines{kOpen + "fetching item identifier for \"" + pathOf(relative) + "\"",
                                     "[DEBUG] found " + expected, kClose}));
    }
}

TEST_F(ItemLookupTest, AURLNamedDocumentsIsAnAppLibrarysOrNone) {
    const auto notes = application("notes");
    install({notes});
    EXPECT_EQ(lookup_.identifierForURL(documentsOf(notes)), "#org.example.notes");

    testing::makeDirectories(*notes.containerPath + "/Documents/sub/Documents");
    const URL deeper = documentsOf(notes).appending("sub").appending("Documents");
    for (const URL& url : {deeper, device_.url()}) {
        newLines();
        EXPECT_EQ(lookup_.identifierForURL(url), std::nullopt);
        EXPECT_EQ(newLines(), (Lines{kOpen + "fetching item identifier for \"" + url.path() + "\"",
                                     "can't find bundle proxy at " + url.text(), kClose}));
    }
}

TEST_F(ItemLookupTest, URLsWithoutAnItemHaveNoIdentifier) {
    makeFolder("Inbox");
    device_.settle();
    struct Row {
        URL url;
        Lines reasons;
    };
    const std::string noIdentifier = "[DEBUG] can't create an item without an ID";
    const Row rows[] = {
        {device_.url("gone"),
         {"can't get doc ID for \"" + pathOf("gone") + "\"; " + describe(noSuchFile()), noIdentifier}},
        {device_.url("Inbox"), {"[DEBUG] can't create an item for the \"Inbox\" directory"}},
        {URL::file("/elsewhere"),
         {"can't compute file object identifier because \"/elsewhere\" is not part of Tarnwell Storage", noIdentifier}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.url.path());
        newLines();
        EXPECT_EQ(lookup_.identifierForURL(row.url), std::nullopt);
        // The reasons are those of the item that could not be built; the lookup itself adds none.
        Lines expected{kOpen + "fetching item identifier for \"" + row.url.path() + "\""};
        expected.insert(expected.end(), row.reasons.begin(), row.reasons.end());
        expected.push_back(kClose);
        EXPECT_EQ(newLines(), expected);
    }
}

TEST_F(ItemLookupTest, URLsGiveTheirItems) {
    makeFile("a.txt");
    const auto notes = application("notes");
    install({notes});
    const auto file = lookup_.itemForURL(device_.url("a.txt"));
    ASSERT_TRUE(file.has_value());
    EXPECT_EQ((*file)->itemIdentifier(), identifierOf("a.txt"));
    const auto library = lookup_.itemForURL(documentsOf(notes));
    ASSERT_TRUE(library.has_value());
    EXPECT_TRUE((*library)->isContainer());
}

TEST_F(ItemLookupTest, AnAppLibraryWhoseFolderWasDeletedIsAnInvalidIdentifier) {
    const auto notes = application("notes");
    install({notes});
    const URL documents = documentsOf(notes);
    const Lines expected = linesOfALibraryWithoutAFolder(documents);
    ASSERT_EQ(::rmdir((*notes.containerPath + "/Documents").c_str()), 0);
    device_.settle();
    newLines();
    const auto item = lookup_.itemForURL(documents);
    ASSERT_FALSE(item.has_value());
    EXPECT_EQ(item.error(), kInvalidIdentifier);
    EXPECT_EQ(newLines(), expected);
}

TEST_F(ItemLookupTest, AnAppLibraryWhoseFolderCannotBeReadIsAnInvalidIdentifier) {
    const auto notes = application("notes");
    install({notes});
    const URL documents = documentsOf(notes);
    faultyItems_.appLibraries = &context_.directory();
    faultyFiles_.fail(testing::FaultyFileSystem::Operation::resourceValue, noSuchFile());
    const ItemLookup lookup(faultyContext_);
    newLines();
    const auto item = lookup.itemForURL(documents);
    ASSERT_FALSE(item.has_value());
    EXPECT_EQ(item.error(), kInvalidIdentifier);
    EXPECT_EQ(newLines(), linesOfALibraryWithoutAFolder(documents));
}

TEST_F(ItemLookupTest, AURLWithoutAnIdentifierIsAnInvalidIdentifier) {
    newLines();
    const auto item = lookup_.itemForURL(device_.url("gone"));
    ASSERT_FALSE(item.has_value());
    EXPECT_EQ(item.error(), kInvalidIdentifier);
    EXPECT_EQ(newLines().back(), "[ERROR] identifier lookup failed for URL \"" + pathOf("gone") + "\"");
}

TEST_F(ItemLookupTest, AnItemThatGoesBetweenTheTwoLooksIsAnInvalidIdentifier) {
    makeFile("a.txt");
    identifierOf("a.txt");
    // The type is read once for the identifier, whose item is thrown away, and once more for the item.
    const ItemLookup lookup(faultyContext_);
    faultyFiles_.clear();
    ASSERT_TRUE(lookup.identifierForURL(device_.url("a.txt")).has_value());
    const auto reads = faultyFiles_.calls(testing::FaultyFileSystem::Operation::resourceValue);
    faultyFiles_.clear();
    faultyFiles_.fail(testing::FaultyFileSystem::Operation::resourceValue, noSuchFile(),
                      testing::FaultyFileSystem::kAlways, static_cast<unsigned>(reads));
    newLines();
    const auto item = lookup.itemForURL(device_.url("a.txt"));
    ASSERT_FALSE(item.has_value());
    EXPECT_EQ(item.error(), kInvalidIdentifier);
    EXPECT_EQ(newLines().back(), "[ERROR] can't create item for URL \"" + pathOf("a.txt") + "\"");
}

}  // namespace
}  // namespace tarnwell::provider
