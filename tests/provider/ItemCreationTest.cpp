#include "provider/ItemCreation.h"

#include <cerrno>
#include <functional>

#include "tests/provider/OperationsFixture.h"

namespace tarnwell::provider {
namespace {

using hostframework::noSuchItem;

class ItemCreationTest : public OperationsTest {
protected:
    /// A document outside of the roots.
    URL source(const std::string& name, std::string_view content = "imported") {
        const std::string path = device_.home() + "/" + name;
        testing::writeFile(path, content);
        return URL::file(path);
    }

    ItemCreation creation_{providerContext_};
};

TEST_F(ItemCreationTest, ImportCopiesTheDocumentAndCompletesWithItsItem) {
    makeNoteFolder("Folder");
    const URL document = source("letter.txt", "dear");
    ItemAnswer answer;
    creation_.importDocument(document, noteIdentifier("Folder"), answer);
    const auto item = answer.wait();
    ASSERT_TRUE(item.has_value()) << describe(item.error());
    EXPECT_EQ((*item)->filename(), "letter.txt");
    EXPECT_EQ((*item)->parentItemIdentifier(), noteIdentifier("Folder"));
    EXPECT_EQ((*item)->itemIdentifier(), noteIdentifier("Folder/letter.txt"));
    EXPECT_EQ((*item)->fileURL(), noteURL("Folder/letter.txt"));
    EXPECT_EQ(testing::readFile(notePath("Folder/letter.txt")), "dear");
    EXPECT_EQ(testing::readFile(document.path()), "dear");
    EXPECT_EQ(calls(), Lines{"import " + document.path() + " under " + noteURL("Folder").path()});
}

TEST_F(ItemCreationTest, ANewFolderIsCreatedInALibraryAndInAFolder) {
    makeNoteFolder("Folder");
    const std::pair<std::string, std::string> rows[] = {{kLibrary, "New"}, {noteIdentifier("Folder"), "Folder/New"}};
    for (const auto& [parent, place] : rows) {
        SCOPED_TRACE(place);
        ItemAnswer answer;
        creation_.createDirectory("New", parent, answer);
        const auto item = answer.wait();
        ASSERT_TRUE(item.has_value()) << describe(item.error());
        EXPECT_TRUE((*item)->isFolder());
        EXPECT_EQ((*item)->parentItemIdentifier(), parent);
        EXPECT_EQ((*item)->fileURL(), noteURL(place));
        EXPECT_TRUE(std::filesystem::is_directory(notePath(place)));
    }
}

TEST_F(ItemCreationTest, ARenamedItemKeepsItsIdentifier) {
    makeNote("a.txt", "content");
    const std::string identifier = noteIdentifier("a.txt");
    ItemAnswer answer;
    creation_.rename(identifier, "b.txt", answer);
    const auto item = answer.wait();
    ASSERT_TRUE(item.has_value()) << describe(item.error());
    EXPECT_EQ((*item)->itemIdentifier(), identifier);
    EXPECT_EQ((*item)->filename(), "b.txt");
    EXPECT_EQ(testing::readFile(notePath("b.txt")), "content");
    EXPECT_FALSE(exists(notePath("a.txt")));
}

TEST_F(ItemCreationTest, AMoveWithoutANameKeepsTheNameAndOneWithANameTakesIt) {
    makeNote("a.txt");
    makeNoteFolder("Folder");
    const std::string identifier = noteIdentifier("a.txt");
    ItemAnswer first;
    creation_.reparent(identifier, noteIdentifier("Folder"), std::nullopt, first);
    auto item = first.wait();
    ASSERT_TRUE(item.has_value()) << describe(item.error());
    EXPECT_EQ((*item)->filename(), "a.txt");
    EXPECT_EQ((*item)->itemIdentifier(), identifier);
    EXPECT_EQ((*item)->fileURL(), noteURL("Folder/a.txt"));

    ItemAnswer second;
    creation_.reparent(identifier, kLibrary, "b.txt", second);
    item = second.wait();
    ASSERT_TRUE(item.has_value()) << describe(item.error());
    EXPECT_EQ((*item)->filename(), "b.txt");
    EXPECT_EQ((*item)->itemIdentifier(), identifier);
    EXPECT_EQ((*item)->parentItemIdentifier(), kLibrary);
    EXPECT_EQ(calls(), (Lines{"move " + noteURL("a.txt").path() + " under " + noteURL("Folder").path(),
                              "move " + noteURL("Folder/a.txt").path() + " under " + documents_.path() + " as b.txt"}));
}

TEST_F(ItemCreationTest, EachOperationRunsInASectionThatEndsWhenItIsUnderWay) {
    makeNote("a.txt");
    makeNoteFolder("Folder");
    const URL document = source("letter.txt");
    const std::string item = noteIdentifier("a.txt");
    const std::string folder = noteIdentifier("Folder");
    const auto lookup = [&](const std::string& identifier, const URL& url) {
        return Lines{kOpen + "fetching URL for \"" + identifier + "\"", "[DEBUG] found " + url.text(), kClose};
    };
    struct Row {
        std::string title;
        Lines lookups;
        std::function<void(ItemAnswer)> start;
        URL result;
    };
    const Lines ofFolder = lookup(folder, noteURL("Folder"));
    const Lines ofItem = lookup(item, noteURL("a.txt"));
    Lines ofBoth = lookup(item, noteURL("b.txt"));
    ofBoth.insert(ofBoth.end(), ofFolder.begin(), ofFolder.end());
    const Row rows[] = {
        {"import document at \"" + document.path() + "\" to parent \"" + folder + "\"", ofFolder,
         [&](ItemAnswer answer) { creation_.importDocument(document, folder, answer); }, noteURL("Folder/letter.txt")},
        {"create directory with name \"New\" in parent \"" + folder + "\"", ofFolder,
         [&](ItemAnswer answer) { creation_.createDirectory("New", folder, answer); }, noteURL("Folder/New")},
        {"rename item \"" + item + "\" to name \"b.txt\"", ofItem,
         [&](ItemAnswer answer) { creation_.rename(item, "b.txt", answer); }, noteURL("b.txt")},
        {"move item \"" + item + "\" to parent \"" + folder + "\"", ofBoth,
         [&](ItemAnswer answer) { creation_.reparent(item, folder, std::nullopt, answer); }, noteURL("Folder/b.txt")},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.title);
        device_.settle();
        newLines();
        operations().hold();
        ItemAnswer answer;
        row.start(answer);
        Lines expected{kOpen + row.title};
        expected.insert(expected.end(), row.lookups.begin(), row.lookups.end());
        expected.push_back(kClose);
        EXPECT_EQ(newLines(), expected);
        EXPECT_EQ(operations().heldAnswers(), 1u);
        EXPECT_FALSE(answer.hasCome());

        operations().release();
        const auto completed = answer.wait();
        ASSERT_TRUE(completed.has_value()) << describe(completed.error());
        EXPECT_NE(answer.thread(), std::thread::id());
        EXPECT_EQ(newLines(), (Lines{kOpen + "fetching item identifier for \"" + row.result.path() + "\"",
                                     "[DEBUG] found " + (*completed)->itemIdentifier(), kClose}));
    }
}

TEST_F(ItemCreationTest, NothingMayBeAddedToTheRootAndNoFileIsTouched) {
    const URL document = source("letter.txt");
    ItemAnswer import;
    creation_.importDocument(document, "RootContainer", import);
    EXPECT_EQ(newLines(),
              (Lines{kOpen + "import document at \"" + document.path() + "\" to parent \"RootContainer\"", kClose}));
    ItemAnswer create;
    creation_.createDirectory("New", "RootContainer", create);
    EXPECT_EQ(newLines(), (Lines{kOpen + "create directory with name \"New\" in parent \"RootContainer\"", kClose}));
    for (const ItemAnswer& answer : {import, create}) {
        ASSERT_TRUE(answer.hasCome());
        EXPECT_EQ(answer.wait().error(), kNotPermitted);
    }
    EXPECT_EQ(calls(), Lines{});
    EXPECT_TRUE(std::filesystem::is_empty(device_.path()));
}

TEST_F(ItemCreationTest, TheRootIsNotMoved) {
    makeNoteFolder("Folder");
    ItemAnswer answer;
    creation_.reparent("RootContainer", noteIdentifier("Folder"), std::nullopt, answer);
    EXPECT_EQ(answer.wait().error(), kNotPermitted);
    EXPECT_EQ(calls(), Lines{});
}

TEST_F(ItemCreationTest, AMoveLooksAtTheItemAndARenameAtNothing) {
    // What else may not be is for the host to refuse.
    makeNote("a.txt");
    ItemAnswer move;
    creation_.reparent(noteIdentifier("a.txt"), "RootContainer", std::nullopt, move);
    const auto item = move.wait();
    ASSERT_TRUE(item.has_value()) << describe(item.error());
    EXPECT_EQ((*item)->parentItemIdentifier(), "RootContainer");

    operations().failNext(posixError(EBUSY));
    ItemAnswer rename;
    creation_.rename("RootContainer", "Other", rename);
    EXPECT_EQ(rename.wait().error(), posixError(EBUSY));
    EXPECT_EQ(calls().back(), "rename " + device_.url().path() + " to Other");
}

TEST_F(ItemCreationTest, AnUnknownItemOrParentIsTheHostsNoSuchItem) {
    makeNote("a.txt");
    const std::string item = noteIdentifier("a.txt");
    const URL document = source("letter.txt");
    for (const std::string unknown : {"#org.example.none", "did=4000000", "fid=999999999999", "nonsense", ""}) {
        SCOPED_TRACE(unknown);
        ItemAnswer import, create, rename, moveIt, moveThere;
        creation_.importDocument(document, unknown, import);
        creation_.createDirectory("New", unknown, create);
        creation_.rename(unknown, "b.txt", rename);
        creation_.reparent(unknown, kLibrary, std::nullopt, moveIt);
        creation_.reparent(item, unknown, std::nullopt, moveThere);
        for (const ItemAnswer& answer : {import, create, rename, moveIt, moveThere}) {
            EXPECT_EQ(answer.wait().error(), noSuchItem(unknown));
        }
    }
    EXPECT_EQ(calls(), Lines{});
    EXPECT_TRUE(exists(notePath("a.txt")));
}

TEST_F(ItemCreationTest, AMoveOfTwoUnknownsComplainsOfTheItem) {
    ItemAnswer answer;
    creation_.reparent("did=4000000", "did=4000001", std::nullopt, answer);
    EXPECT_EQ(answer.wait().error(), noSuchItem("did=4000000"));
}

TEST_F(ItemCreationTest, ATakenNameIsACollisionThatCarriesTheExistingItem) {
    makeNote("a.txt", "moved");
    makeNote("b.txt", "there");
    makeNote("Folder/a.txt", "there too");
    makeNote("Folder/letter.txt");
    makeNoteFolder("Folder/New");
    const std::string folder = noteIdentifier("Folder");
    const std::string item = noteIdentifier("a.txt");
    struct Row {
        std::string existing;
        std::function<void(ItemAnswer)> start;
    };
    const Row rows[] = {
        {"b.txt", [&](ItemAnswer answer) { creation_.rename(item, "b.txt", answer); }},
        {"Folder", [&](ItemAnswer answer) { creation_.rename(item, "Folder", answer); }},
        {"Folder/a.txt", [&](ItemAnswer answer) { creation_.reparent(item, folder, std::nullopt, answer); }},
        {"Folder/letter.txt", [&](ItemAnswer answer) { creation_.reparent(item, folder, "letter.txt", answer); }},
        {"Folder/letter.txt",
         [&](ItemAnswer answer) { creation_.importDocument(source("letter.txt"), folder, answer); }},
        {"Folder/New", [&](ItemAnswer answer) { creation_.createDirectory("New", folder, answer); }},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.existing);
        ItemAnswer answer;
        row.start(answer);
        const auto outcome = answer.wait();
        ASSERT_FALSE(outcome.has_value());
        const std::string name(noteURL(row.existing).lastPathComponent());
        EXPECT_EQ(outcome.error(), collision(noteIdentifier(row.existing), name));
        EXPECT_EQ(testing::readFile(notePath("a.txt")), "moved");
        EXPECT_EQ(testing::readFile(notePath("b.txt")), "there");
        EXPECT_EQ(testing::readFile(notePath("Folder/a.txt")), "there too");
    }
}

TEST_F(ItemCreationTest, ACollisionWithALibraryCarriesTheLibrary) {
    makeNote("a.txt");
    operations().failNext(fileExists(documents_));
    ItemAnswer answer;
    creation_.rename(noteIdentifier("a.txt"), "b.txt", answer);
    EXPECT_EQ(answer.wait().error(), collision(kLibrary, "notes"));
}

TEST_F(ItemCreationTest, EveryOtherErrorComesAsItIs) {
    makeNote("a.txt");
    makeNoteFolder("Inbox");
    const Error errors[] = {
        {ErrorDomain::generalFile, kFileExists, {}},
        {ErrorDomain::generalFile, kFileExists, {{kErrorMessage, "there is one"}}},
        // What is there has no item to carry.
        fileExists(noteURL("gone.txt")),
        fileExists(noteURL("Inbox")),
        fileExists(URL::file("/elsewhere")),
        // The URL counts only beside that code, and the code only in that domain.
        {ErrorDomain::generalFile, kWriteNotPermitted, {{hostframework::kErrorCollidingURL, noteURL("a.txt").path()}}},
        {ErrorDomain::posix, kFileExists, {{hostframework::kErrorCollidingURL, noteURL("a.txt").path()}}},
        posixError(ENOSPC, "the disk is full"),
        posixError(EXDEV),
        {ErrorDomain::generalFile, kNoSuchFileOnRead, {}},
    };
    for (const Error& error : errors) {
        SCOPED_TRACE(describe(error));
        operations().failNext(error);
        ItemAnswer answer;
        creation_.rename(noteIdentifier("a.txt"), "b.txt", answer);
        EXPECT_EQ(answer.wait().error(), error);
    }
    EXPECT_TRUE(exists(notePath("a.txt")));
}

TEST_F(ItemCreationTest, AResultThatIsNeverShownIsReportedAsNoItem) {
    // Such a folder is there, but no item: the host refuses the name before it asks.
    ItemAnswer answer;
    creation_.createDirectory("Inbox", kLibrary, answer);
    EXPECT_EQ(answer.wait().error(), kInvalidIdentifier);
}

TEST_F(ItemCreationTest, AnItemThatWentBeforeTheAnswerCameIsReportedAsNoItem) {
    makeNote("a.txt");
    operations().hold();
    ItemAnswer answer;
    creation_.rename(noteIdentifier("a.txt"), "b.txt", answer);
    EXPECT_EQ(operations().heldAnswers(), 1u);
    std::filesystem::remove(notePath("b.txt"));
    operations().release();
    EXPECT_EQ(answer.wait().error(), kInvalidIdentifier);
}

TEST_F(ItemCreationTest, NamesAreBytes) {
    makeNote("a.txt");
    const std::string identifier = noteIdentifier("a.txt");
    for (const std::string name : {"caf\xE9.txt", "two\nlines", "caf\xC3\xA9", "cafe\xCC\x81", ".hidden"}) {
        SCOPED_TRACE(name);
        ItemAnswer answer;
        creation_.rename(identifier, name, answer);
        const auto item = answer.wait();
        ASSERT_TRUE(item.has_value()) << describe(item.error());
        EXPECT_EQ((*item)->filename(), name);
        EXPECT_TRUE(exists(notePath(name)));
    }
}

TEST_F(ItemCreationTest, AnAnswerMayComeWhenWhoAskedIsGone) {
    makeNote("a.txt");
    operations().hold();
    ItemAnswer answer;
    {
        const ItemCreation brief(providerContext_);
        brief.rename(noteIdentifier("a.txt"), "b.txt", answer);
    }
    operations().release();
    EXPECT_TRUE(answer.wait().has_value());
}

TEST_F(ItemCreationTest, TheCompletionRunsWhereTheFileOperationCompletes) {
    makeNote("a.txt");
    bool onQueue = false;
    ItemAnswer answer;
    creation_.rename(noteIdentifier("a.txt"), "b.txt",
                     [&, answer](const Result<hostframework::ProviderItemPtr>& outcome) {
                         onQueue = operations().queue().isCurrent();
                         answer(outcome);
                     });
    EXPECT_TRUE(answer.wait().has_value());
    EXPECT_TRUE(onQueue);
}

}  // namespace
}  // namespace tarnwell::provider
