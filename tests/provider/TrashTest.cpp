#include "provider/Trash.h"

#include <algorithm>
#include <cerrno>
#include <chrono>

#include "tests/provider/OperationsFixture.h"

namespace tarnwell::provider {
namespace {

using hostframework::invalidParameter;
using hostframework::noSuchItem;
using items::LocalItem;

/// Shows what is in the documents under another path as well, which holds no component "Documents".
class ElsewhereFileSystem : public testing::FaultyFileSystem {
public:
    static inline const std::string kElsewhere = "/elsewhere";
    ElsewhereFileSystem(files::FileSystem& real, std::string documents)
        : FaultyFileSystem(real), documents_(std::move(documents)) {}

    Result<URL> pathOfFileID(FileID fileID, DeviceID device) override {
        auto url = FaultyFileSystem::pathOfFileID(fileID, device);
        if (!url || !url->path().starts_with(documents_)) return url;
        return URL::file(kElsewhere + url->path().substr(documents_.size()));
    }
    Result<files::ResourceValue> resourceValue(const URL& url, files::ResourceKey key) override {
        return FaultyFileSystem::resourceValue(there(url), key);
    }
    bool isFolder(const URL& url) override { return FaultyFileSystem::isFolder(there(url)); }
    Result<Descriptor> openEventOnly(const URL& url) override { return FaultyFileSystem::openEventOnly(there(url)); }
    Result<files::FileStatus> stat(const URL& url) override { return FaultyFileSystem::stat(there(url)); }
    Result<std::size_t> getAttribute(const URL& url, const std::string& name, std::span<std::uint8_t> buffer) override {
        return FaultyFileSystem::getAttribute(there(url), name, buffer);
    }

private:
    URL there(const URL& url) const {
        if (!url.path().starts_with(kElsewhere)) return url;
        return URL::file(documents_ + url.path().substr(kElsewhere.size()));
    }
    const std::string documents_;
};

class TrashTest : public OperationsTest {
protected:
    hostframework::ProviderItemPtr itemOf(const ItemAnswer& answer) {
        auto outcome = answer.wait();
        if (!outcome) ADD_FAILURE() << describe(outcome.error());
        return outcome.value_or(nullptr);
    }
    hostframework::ProviderItemPtr trash(const std::string& identifier) {
        ItemAnswer answer;
        trash_.trashItem(identifier, answer);
        return itemOf(answer);
    }
    ItemAnswer untrash(const std::string& identifier, const std::optional<std::string>& parent = std::nullopt) {
        ItemAnswer answer;
        trash_.untrashItem(identifier, parent, answer);
        operations().drain();
        return answer;
    }

    Trash trash_{providerContext_};
};

TEST_F(TrashTest, ATrashedItemLiesInTheTrashOfItsLibraryAndKnowsWhenAndWhereFrom) {
    makeNote("Folder/Sub/file.txt", "content");
    const std::string identifier = noteIdentifier("Folder/Sub/file.txt");
    const Date before = std::chrono::system_clock::now();
    const auto item = trash(identifier);
    const Date after = std::chrono::system_clock::now();
    ASSERT_TRUE(item);
    EXPECT_TRUE(item->isTrashed());
    EXPECT_EQ(item->itemIdentifier(), identifier);
    EXPECT_EQ(item->fileURL(), noteURL(".Trash/file.txt"));
    EXPECT_EQ(testing::readFile(notePath(".Trash/file.txt")), "content");
    EXPECT_FALSE(exists(notePath("Folder/Sub/file.txt")));

    const auto date = trashDate(item->fileURL());
    ASSERT_TRUE(date.has_value());
    EXPECT_LE(before, *date);
    EXPECT_LE(*date, after);
    EXPECT_EQ(putBack(item->fileURL()), "Folder/Sub/file.txt");
    // The very bytes that an archiver gives.
    EXPECT_EQ(attribute(LocalItem::xattrTrashDateName, item->fileURL()), archive::archiveRoot({*date}));
}

TEST_F(TrashTest, OfAFolderOnlyTheFolderItselfIsMarked) {
    makeNote("Folder/inner.txt");
    const auto item = trash(noteIdentifier("Folder"));
    ASSERT_TRUE(item);
    EXPECT_EQ(putBack(item->fileURL()), "Folder");
    EXPECT_TRUE(trashDate(item->fileURL()).has_value());
    EXPECT_EQ(putBack(noteURL(".Trash/Folder/inner.txt")), std::nullopt);
    EXPECT_EQ(trashDate(noteURL(".Trash/Folder/inner.txt")), std::nullopt);
}

TEST_F(TrashTest, TrashingLogsEachStep) {
    makeNote("Folder/file.txt");
    const std::string identifier = noteIdentifier("Folder/file.txt");
    device_.settle();
    newLines();
    operations().hold();
    ItemAnswer answer;
    trash_.trashItem(identifier, answer);
    const URL original = noteURL("Folder/file.txt");
    const URL trashed = noteURL(".Trash/file.txt");
    EXPECT_EQ(newLines(), (Lines{kOpen + "trash item \"" + identifier + "\"",
                                 kOpen + "fetching URL for \"" + identifier + "\"", "[DEBUG] found " + original.text(),
                                 kClose, "[DEBUG] trash is located at \"" + noteURL(".Trash").path() + "\"", kClose}));
    EXPECT_FALSE(answer.hasCome());
    operations().release();
    ASSERT_TRUE(itemOf(answer));
    EXPECT_EQ(newLines(), (Lines{"[DEBUG] setting trash date on " + trashed.path(),
                                 "[DEBUG] setting putback string on " + original.text(),
                                 "[DEBUG] setting putback 'Folder/file.txt' on " + trashed.text(),
                                 kOpen + "fetching item identifier for \"" + trashed.path() + "\"",
                                 "[DEBUG] found " + identifier, kClose}));
    EXPECT_EQ(calls(), Lines{"trash " + original.path() + " under " + noteURL(".Trash").path()});
}

TEST_F(TrashTest, TheOutermostDocumentsFolderHasTheTrash) {
    makeNote("Old/Documents/Deep/file.txt");
    const auto item = trash(noteIdentifier("Old/Documents/Deep/file.txt"));
    ASSERT_TRUE(item);
    EXPECT_EQ(item->fileURL(), noteURL(".Trash/file.txt"));
    EXPECT_EQ(putBack(item->fileURL()), "Old/Documents/Deep/file.txt");
}

TEST_F(TrashTest, TrashComponentsEndAtTheFirstComponentNamedDocuments) {
    const struct {
        std::string path;
        std::optional<Lines> components;
    } rows[] = {
        {"/home/a/Documents/b.txt", Lines{"/", "home", "a", "Documents", ".Trash"}},
        {"/Documents/x/Documents/y", Lines{"/", "Documents", ".Trash"}},
        {"/home/Documents", Lines{"/", "home", "Documents", ".Trash"}},
        {"/home/documents/Documents2/My Documents/x", std::nullopt},
        {"/", std::nullopt},
    };
    for (const auto& row : rows) EXPECT_EQ(trashComponents(URL::file(row.path)), row.components) << row.path;
    EXPECT_EQ(trashComponents(URL::parse("https://example.org/Documents/x")), std::nullopt);
}

TEST_F(TrashTest, AURLIsBuiltOfPlainComponentsOnly) {
    EXPECT_EQ(fileURLOfComponents({"/", "home", "Documents", ".Trash"}), URL::file("/home/Documents/.Trash"));
    EXPECT_EQ(fileURLOfComponents({"/"}), URL::file("/"));
    const std::vector<Lines> rows = {{},           {"home"},    {"", "home"}, {"/", ""},
                                     {"/", "a/b"}, {"/", ".."}, {"/", "."},   {"/", std::string("a\0b", 3)}};
    for (const auto& row : rows) EXPECT_EQ(fileURLOfComponents(row), std::nullopt) << row.size();
}

TEST_F(TrashTest, AnItemBelowNoDocumentsFolderIsRefusedAndNothingIsTouched) {
    makeNote("Folder/file.txt");
    const std::string identifier = noteIdentifier("Folder/file.txt");
    device_.settle();
    ElsewhereFileSystem elsewhere(device_.files(), documents_.path());
    testing::RecordingProviderManager storage(device_.pool(), URL::file(ElsewhereFileSystem::kElsewhere));
    const items::Environment items{device_.programLog(), elsewhere, device_.generationStore(), storage};
    const fs::FSEnvironment environment{items, events_, device_.pool()};
    const Trash trash({environment, context_, device_.fileOperations(), device_.accessScopes(), device_.deviceInfo(),
                       device_.iconRenderer()});
    newLines();
    ItemAnswer answer;
    trash.trashItem(identifier, answer);
    const URL source = URL::file("/elsewhere/Folder/file.txt");
    EXPECT_EQ(answer.wait().error(), invalidParameter("sourceURL", source.text()));
    EXPECT_EQ(ownLines(), (Lines{kOpen + "trash item \"" + identifier + "\"",
                                 "[ERROR] no Documents directory found in path \"" + source.path() + "\"", kClose}));
    EXPECT_EQ(calls(), Lines{});
    EXPECT_EQ(elsewhere.calls(testing::FaultyFileSystem::Operation::createDirectory), 0u);
    EXPECT_TRUE(exists(notePath("Folder/file.txt")));
    EXPECT_FALSE(exists(notePath(".Trash")));
}

TEST_F(TrashTest, AnUnknownItemIsTheHostsNoSuchItem) {
    for (const std::string unknown : {"did=4000000", "#org.example.none", ""}) {
        SCOPED_TRACE(unknown);
        ItemAnswer trashed, untrashed;
        DoneAnswer deleted;
        trash_.trashItem(unknown, trashed);
        trash_.untrashItem(unknown, std::nullopt, untrashed);
        trash_.deleteItem(unknown, deleted);
        EXPECT_EQ(trashed.wait().error(), noSuchItem(unknown));
        EXPECT_EQ(untrashed.wait().error(), noSuchItem(unknown));
        EXPECT_EQ(deleted.wait(), noSuchItem(unknown));
    }
    EXPECT_EQ(calls(), Lines{});
}

TEST_F(TrashTest, ATrashFolderThatCannotBeMadeFailsTheOperation) {
    makeNote("file.txt");
    const Trash faulty(faultyContext_);
    faultyFiles_.fail(testing::FaultyFileSystem::Operation::createDirectory, EACCES, 1);
    ItemAnswer answer;
    faulty.trashItem(noteIdentifier("file.txt"), answer);
    EXPECT_EQ(answer.wait().error(), posixError(EACCES));

    makeNote(".Trash", "a file in the way");
    ItemAnswer second;
    trash_.trashItem(noteIdentifier("file.txt"), second);
    EXPECT_EQ(second.wait().error(), posixError(ENOTDIR));
    EXPECT_EQ(calls(), Lines{});
    EXPECT_TRUE(exists(notePath("file.txt")));
}

TEST_F(TrashTest, ATrashFolderThatStandsIsUsed) {
    makeNoteFolder(".Trash");
    makeNote("file.txt");
    EXPECT_TRUE(trash(noteIdentifier("file.txt")));
}

TEST_F(TrashTest, AFailedFileOperationMarksNothing) {
    makeNote("file.txt");
    makeNote(".Trash/file.txt");
    const Error errors[] = {posixError(ENOSPC), {ErrorDomain::generalFile, kFileExists, {}}};
    for (const Error& error : errors) {
        operations().failNext(error);
        ItemAnswer answer;
        trash_.trashItem(noteIdentifier("file.txt"), answer);
        EXPECT_EQ(answer.wait().error(), error);
    }
    operations().failNext(fileExists(noteURL(".Trash/file.txt")));
    ItemAnswer answer;
    trash_.trashItem(noteIdentifier("file.txt"), answer);
    EXPECT_EQ(answer.wait().error(), collision(noteIdentifier(".Trash/file.txt"), "file.txt"));
    EXPECT_EQ(trashDate(noteURL("file.txt")), std::nullopt);
    EXPECT_EQ(putBack(noteURL("file.txt")), std::nullopt);
    EXPECT_EQ(device_.accessScopes().granted(), Lines{});
}

TEST_F(TrashTest, AttributesThatCannotBeWrittenAreLoggedAndTheItemIsTrashed) {
    makeNote("file.txt");
    const URL trashed = noteURL(".Trash/file.txt");
    device_.accessScopes().failNext(posixError(EACCES));
    device_.accessScopes().failNext(posixError(ENOSPC));
    newLines();
    const auto item = trash(noteIdentifier("file.txt"));
    ASSERT_TRUE(item);
    EXPECT_TRUE(item->isTrashed());
    auto lines = newLines();
    std::erase_if(lines, [](const std::string& line) { return !line.starts_with("[ERROR] "); });
    EXPECT_EQ(lines, (Lines{"[ERROR] can't set xattr com.vellum.trash.time#PS on " + trashed.path() + "; " +
                                describe(posixError(EACCES)),
                            "[ERROR] couldn't set putback xattr (" + describe(posixError(ENOSPC)) + ") on " +
                                trashed.path()}));
}

TEST_F(TrashTest, AnOwnDocumentRemembersWhenItWasTrashedAndNoLibrary) {
    makeFile("Folder/own.txt");
    newLines();
    const auto item = trash(identifierOf("Folder/own.txt"));
    ASSERT_TRUE(item);
    EXPECT_TRUE(item->isTrashed());
    EXPECT_EQ(item->fileURL(), device_.url(".Trash/own.txt"));
    EXPECT_TRUE(trashDate(item->fileURL()).has_value());
    EXPECT_EQ(putBack(item->fileURL()), std::nullopt);
    auto lines = newLines();
    std::erase_if(lines, [](const std::string& line) { return !line.starts_with("[ERROR] "); });
    EXPECT_EQ(lines, Lines{"[ERROR] couldn't find app library for " + device_.url("Folder/own.txt").text()});
}

TEST_F(TrashTest, ThePutBackOfTheLibraryItselfCannotBeComputed) {
    const TrashAttributes attributes(providerContext_);
    makeNote("a.txt");
    newLines();
    attributes.writePutBack(documents_, noteURL("a.txt"));
    // A library's folder is not below itself, so that no record holds it.
    EXPECT_EQ(newLines(), (Lines{"[DEBUG] setting putback string on " + documents_.text(),
                                 "[ERROR] couldn't find app library for " + documents_.text()}));
    attributes.writePutBack(URL::file(documents_.path() + "/Folder/../../a"), noteURL("a.txt"));
    EXPECT_EQ(newLines().back(), "[ERROR] could't compute putback string (path: " + documents_.path() +
                                     "/Folder/../../a, basePath: " + documents_.path() + ")");
    EXPECT_EQ(putBack(noteURL("a.txt")), std::nullopt);
}

TEST_F(TrashTest, PuttingBackGivesBackFolderNameContentMetadataAndIdentifier) {
    makeNote("Folder/Sub/file.txt", "content");
    const std::string identifier = noteIdentifier("Folder/Sub/file.txt");
    setAttribute(notePath("Folder/Sub/file.txt"), LocalItem::xattrFavoriteRankName,
                 archive::archiveRoot({archive::Integer::fromUnsigned(7)}));
    ASSERT_TRUE(trash(identifier));
    device_.settle();
    newLines();
    operations().hold();
    ItemAnswer answer;
    trash_.untrashItem(identifier, std::nullopt, answer);
    EXPECT_EQ(ownLines(), (Lines{kOpen + "untrash item \"" + identifier + "\"",
                                 "[DEBUG] putback url is " + noteURL("Folder/Sub").text(), kClose}));
    operations().release();
    const auto item = itemOf(answer);
    ASSERT_TRUE(item);
    EXPECT_EQ(ownLines(), (Lines{"[DEBUG] removing trash date xattr",
                                 "[DEBUG] setting trash date on " + noteURL("Folder/Sub/file.txt").path()}));
    EXPECT_EQ(calls().back(), "move " + noteURL(".Trash/file.txt").path() + " under " + noteURL("Folder/Sub").path() +
                                  " or another name");
    EXPECT_EQ(item->itemIdentifier(), identifier);
    EXPECT_FALSE(item->isTrashed());
    EXPECT_EQ(item->favoriteRank(), 7u);
    EXPECT_EQ(item->fileURL(), noteURL("Folder/Sub/file.txt"));
    EXPECT_EQ(testing::readFile(notePath("Folder/Sub/file.txt")), "content");
    EXPECT_EQ(trashDate(item->fileURL()), std::nullopt);
    EXPECT_EQ(putBack(item->fileURL()), "Folder/Sub/file.txt");
}

TEST_F(TrashTest, WhereAnotherHasTheNameTheItemTakesAFreeOne) {
    makeNote("file.txt", "old");
    const std::string identifier = noteIdentifier("file.txt");
    ASSERT_TRUE(trash(identifier));
    makeNote("file.txt", "new");
    const auto item = itemOf(untrash(identifier));
    ASSERT_TRUE(item);
    EXPECT_NE(item->filename(), "file.txt");
    EXPECT_EQ(item->itemIdentifier(), identifier);
    EXPECT_EQ(testing::readFile(notePath("file.txt")), "new");
    EXPECT_EQ(testing::readFile(notePath(item->filename())), "old");
}

TEST_F(TrashTest, WhatIsNotInATrashIsNotPutBack) {
    makeNote("file.txt");
    makeNote("Sub/.Trash/file.txt");
    for (const std::string& identifier :
         {noteIdentifier("file.txt"), kLibrary, std::string("RootContainer"), noteIdentifier("Sub/.Trash/file.txt")}) {
        SCOPED_TRACE(identifier);
        newLines();
        ItemAnswer answer;
        trash_.untrashItem(identifier, std::nullopt, answer);
        EXPECT_EQ(answer.wait().error(), invalidParameter("itemIdentifier", identifier));
        EXPECT_EQ(ownLines(),
                  (Lines{kOpen + "untrash item \"" + identifier + "\"", "[DEBUG] item is not in trash", kClose}));
    }
    EXPECT_EQ(calls(), Lines{});
}

TEST_F(TrashTest, AnItemThatCannotBeBuiltFailsWithTheLookupsError) {
    makeNote("file.txt");
    const std::string identifier = noteIdentifier("file.txt");
    ASSERT_TRUE(trash(identifier));
    const Trash faulty(faultyContext_);
    // The lookup of the URL builds the item as well: only the one after it fails.
    faultyFiles_.fail(testing::FaultyFileSystem::Operation::pathOfFileID, ENOENT, 1, 1);
    ItemAnswer answer;
    faulty.untrashItem(identifier, std::nullopt, answer);
    EXPECT_EQ(answer.wait().error(), kInvalidIdentifier);
    EXPECT_EQ(calls().size(), 1u);
}

TEST_F(TrashTest, AGivenParentComesBeforeTheFolderThatIsRemembered) {
    makeNote("Folder/file.txt");
    makeNoteFolder("Other");
    const std::string identifier = noteIdentifier("Folder/file.txt");
    ASSERT_TRUE(trash(identifier));
    newLines();
    operations().hold();
    ItemAnswer answer;
    trash_.untrashItem(identifier, noteIdentifier("Other"), answer);
    newLines();
    operations().release();
    const auto item = itemOf(answer);
    ASSERT_TRUE(item);
    EXPECT_EQ(item->fileURL(), noteURL("Other/file.txt"));
}

TEST_F(TrashTest, AGivenParentThatIsTrashedIsIgnored) {
    makeNote("Folder/file.txt");
    makeNoteFolder("Other");
    const std::string identifier = noteIdentifier("Folder/file.txt");
    const std::string other = noteIdentifier("Other");
    ASSERT_TRUE(trash(identifier));
    ASSERT_TRUE(trash(other));
    const std::string trashFolder = noteIdentifier(".Trash");
    for (const auto& [parent, path] : {std::pair{other, ".Trash/Other"}, std::pair{trashFolder, ".Trash"}}) {
        SCOPED_TRACE(path);
        device_.settle();
        newLines();
        operations().hold();
        ItemAnswer answer;
        trash_.untrashItem(identifier, parent, answer);
        EXPECT_EQ(ownLines(), (Lines{kOpen + "untrash item \"" + identifier + "\"",
                                     "[DEBUG] can't use provided parent item " + parent + " because it's trashed; " +
                                         noteURL(path).path(),
                                     "[DEBUG] putback url is " + noteURL("Folder").text(), kClose}));
        operations().release();
        const auto item = itemOf(answer);
        ASSERT_TRUE(item);
        EXPECT_EQ(item->fileURL(), noteURL("Folder/file.txt"));
        ASSERT_TRUE(trash(identifier));
    }
}

TEST_F(TrashTest, AGivenParentThatNobodyKnowsIsIgnored) {
    makeNote("Folder/file.txt");
    const std::string identifier = noteIdentifier("Folder/file.txt");
    ASSERT_TRUE(trash(identifier));
    const auto item = itemOf(untrash(identifier, "fid=999999999999"));
    ASSERT_TRUE(item);
    EXPECT_EQ(item->fileURL(), noteURL("Folder/file.txt"));
}

TEST_F(TrashTest, WhereTheFolderIsGoneTheLibrarysRootTakesTheItem) {
    makeNote("Folder/file.txt");
    const std::string identifier = noteIdentifier("Folder/file.txt");
    ASSERT_TRUE(trash(identifier));
    std::filesystem::remove(notePath("Folder"));
    device_.settle();
    newLines();
    operations().hold();
    ItemAnswer answer;
    trash_.untrashItem(identifier, std::nullopt, answer);
    EXPECT_EQ(ownLines(), (Lines{kOpen + "untrash item \"" + identifier + "\"",
                                 "[DEBUG] putback url is not reachable; " + noteURL("Folder").text(),
                                 "[DEBUG] use " + kLibrary + "'s root as recover location", kClose}));
    operations().release();
    const auto item = itemOf(answer);
    ASSERT_TRUE(item);
    EXPECT_EQ(item->fileURL(), noteURL("file.txt"));
    EXPECT_EQ(item->parentItemIdentifier(), kLibrary);
}

TEST_F(TrashTest, WhatRemembersNoFolderGoesToTheLibrarysRoot) {
    makeNote(".Trash/Folder/inner.txt");
    device_.settle();
    for (const std::string relative : {".Trash/Folder/inner.txt", ".Trash/Folder"}) {
        SCOPED_TRACE(relative);
        const std::string identifier = noteIdentifier(relative);
        newLines();
        operations().hold();
        ItemAnswer answer;
        trash_.untrashItem(identifier, std::nullopt, answer);
        auto lines = ownLines();
        std::erase_if(lines, [](const std::string& line) { return line.starts_with("[ERROR] couldn't find putback"); });
        EXPECT_EQ(lines, (Lines{kOpen + "untrash item \"" + identifier + "\"", "[DEBUG] no putback url",
                                "[DEBUG] use " + kLibrary + "'s root as recover location", kClose}));
        operations().release();
        const auto item = itemOf(answer);
        ASSERT_TRUE(item);
        EXPECT_EQ(item->parentItemIdentifier(), kLibrary);
        EXPECT_FALSE(item->isTrashed());
    }
}

TEST_F(TrashTest, AnOwnDocumentGoesOnlyWhereItIsTold) {
    makeFile("own.txt");
    makeFolder("Folder");
    const std::string identifier = identifierOf("own.txt");
    ASSERT_TRUE(trash(identifier));
    newLines();
    ItemAnswer answer;
    trash_.untrashItem(identifier, std::nullopt, answer);
    EXPECT_EQ(answer.wait().error(), invalidParameter("itemIdentifier", identifier));
    auto lines = ownLines();
    std::erase_if(lines, [](const std::string& line) { return line.starts_with("[ERROR] couldn't find putback"); });
    EXPECT_EQ(lines, (Lines{kOpen + "untrash item \"" + identifier + "\"", "[DEBUG] no putback url",
                            "[ERROR] can't compute valid parent URL for " + identifier, kClose}));
    EXPECT_TRUE(exists(device_.path(".Trash/own.txt")));

    auto item = itemOf(untrash(identifier, identifierOf("Folder")));
    ASSERT_TRUE(item);
    EXPECT_EQ(item->fileURL(), device_.url("Folder/own.txt"));
    ASSERT_TRUE(trash(identifier));
    item = itemOf(untrash(identifier, "RootContainer"));
    ASSERT_TRUE(item);
    EXPECT_EQ(item->fileURL(), device_.url("own.txt"));
}

TEST_F(TrashTest, AFailedPutBackKeepsTheTrashDate) {
    makeNote("file.txt");
    const std::string identifier = noteIdentifier("file.txt");
    ASSERT_TRUE(trash(identifier));
    const auto date = trashDate(noteURL(".Trash/file.txt"));
    operations().failNext(posixError(ENOSPC));
    EXPECT_EQ(untrash(identifier).wait().error(), posixError(ENOSPC));
    operations().failNext(fileExists(documents_));
    EXPECT_EQ(untrash(identifier).wait().error(), collision(kLibrary, "notes"));
    EXPECT_EQ(trashDate(noteURL(".Trash/file.txt")), date);
    EXPECT_TRUE(date.has_value());
}

TEST_F(TrashTest, ATrashDateThatCannotBeRemovedIsLoggedAndTheItemIsBack) {
    makeNote("file.txt");
    const std::string identifier = noteIdentifier("file.txt");
    ASSERT_TRUE(trash(identifier));
    device_.accessScopes().failNext(posixError(EROFS));
    newLines();
    const auto item = itemOf(untrash(identifier));
    ASSERT_TRUE(item);
    EXPECT_FALSE(item->isTrashed());
    const auto lines = newLines();
    EXPECT_EQ(std::ranges::count(lines, "[ERROR] can't remove xattr com.vellum.trash.time#PS on " +
                                            noteURL("file.txt").path() + "; " + describe(posixError(EROFS))),
              1);
}

TEST_F(TrashTest, AnEntryWithoutATrashDateIsPutBackInSilence) {
    makeNote(".Trash/file.txt");
    newLines();
    const auto item = itemOf(untrash(noteIdentifier(".Trash/file.txt")));
    ASSERT_TRUE(item);
    for (const std::string& line : newLines()) EXPECT_EQ(line.find("can't remove"), std::string::npos) << line;
}

TEST_F(TrashTest, DeletingIsForGoodAndPassesNoTrash) {
    makeNote("Folder/inner.txt");
    makeNote("file.txt");
    for (const std::string relative : {"file.txt", "Folder"}) {
        SCOPED_TRACE(relative);
        const std::string identifier = noteIdentifier(relative);
        device_.settle();
        newLines();
        DoneAnswer answer;
        trash_.deleteItem(identifier, answer);
        EXPECT_EQ(answer.wait(), std::nullopt);
        EXPECT_EQ(newLines(), (Lines{kOpen + "delete item \"" + identifier + "\"",
                                     kOpen + "fetching URL for \"" + identifier + "\"",
                                     "[DEBUG] found " + noteURL(relative).text(), kClose, kClose}));
        EXPECT_EQ(calls().back(), "delete " + noteURL(relative).path());
        EXPECT_FALSE(exists(notePath(relative)));
    }
    EXPECT_FALSE(exists(notePath(".Trash")));
}

TEST_F(TrashTest, AFailedDeletionComesAsItIs) {
    makeNote("file.txt");
    for (const Error& error : {posixError(EBUSY), fileExists(noteURL("file.txt"))}) {
        operations().failNext(error);
        DoneAnswer answer;
        trash_.deleteItem(noteIdentifier("file.txt"), answer);
        EXPECT_EQ(answer.wait(), error);
    }
    EXPECT_TRUE(exists(notePath("file.txt")));
}

TEST_F(TrashTest, AnswersMayComeWhenWhoAskedIsGone) {
    makeNote("file.txt");
    const std::string identifier = noteIdentifier("file.txt");
    operations().hold();
    ItemAnswer trashed;
    {
        Trash(providerContext_).trashItem(identifier, trashed);
    }
    operations().release();
    ASSERT_TRUE(itemOf(trashed));
    operations().hold();
    ItemAnswer untrashed;
    {
        Trash(providerContext_).untrashItem(identifier, std::nullopt, untrashed);
    }
    operations().release();
    EXPECT_TRUE(itemOf(untrashed));
}

}  // namespace
}  // namespace tarnwell::provider
