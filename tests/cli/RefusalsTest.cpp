#include "tests/cli/OperationsFixture.h"

namespace tarnwell::testing {
namespace {

struct Row {
    Arguments arguments;
    std::string complaint;
};

class RefusedTest : public OperationsTest {
protected:
    RefusedTest() {
        succeed({"mkdir", "Deep", device_.document("Folder/Sub")});
        make("Old/Documents/inner.txt", "x");
        files::create_hard_link(device_.document("Folder/a.txt"), device_.document("Folder/second.txt"));
        // One round, so that a document's place is its older name.
        (void)device_.idOf(device_.document("Folder/a.txt"));
    }
    /// Each says just that, with status 1, and changes nothing.
    void check(const std::vector<Row>& rows) const {
        const auto before = everything();
        for (const auto& [arguments, expected] : rows) {
            SCOPED_TRACE(::testing::PrintToString(arguments));
            EXPECT_EQ(complaint(arguments), expected);
        }
        EXPECT_EQ(changedSince(before), Arguments{});
    }
    static std::string cannot(const std::string& what, const std::string& item, const std::string& reason) {
        return "cannot " + what + " \"" + item + "\": " + reason;
    }

    const std::string unknown_ = "did=4000000";
    const std::string gone_ = "there is no such item (any more); \"tarnwell ls\" of its folder shows what is there";
    const std::string file_ = device_.document("Folder/a.txt");
    const std::string folder_ = device_.document("Folder");
};

TEST_F(RefusedTest, WhatNobodyKnows) {
    const std::string missing = device_.document("missing");
    const std::string nothing = "there is nothing at that path";
    std::vector<Row> rows = {
        {{"import", missing, library_}, cannot("import", missing, nothing)},
        {{"import", source("f"), unknown_}, cannot("import", device_.path("home/Downloads/f"), gone_)},
        {{"import", source("f"), missing}, cannot("import anything into", missing, nothing)},
        {{"mkdir", "New", unknown_}, cannot("make", "New", gone_)},
        {{"mkdir", "New", missing}, cannot("make a folder in", missing, nothing)},
        {{"move", file_, unknown_}, cannot("move", file_, gone_)},
        {{"move", file_, missing}, cannot("move anything to", missing, nothing)},
        {{"restore", unknown_, "--to", missing}, cannot("restore anything to", missing, nothing)},
        {{"move", unknown_, library_}, cannot("move", unknown_, gone_)},
        {{"rename", unknown_, "x"}, cannot("rename", unknown_, gone_)},
        {{"rename", missing, "x"}, cannot("rename", missing, nothing)},
        {{"tag", unknown_, "x"}, cannot("tag", unknown_, gone_)},
        {{"rank", unknown_, "1"}, cannot("rank", unknown_, gone_)},
        {{"used", unknown_, "now"}, cannot("date", unknown_, gone_)},
        {{"rename", "#org.example.None", "x"}, cannot("rename", "#org.example.None", gone_)},
    };
    for (const std::string verb : {"trash", "restore", "delete"}) {
        rows.push_back({{verb, unknown_}, cannot(verb, unknown_, gone_)});
        rows.push_back({{verb, missing}, cannot(verb, missing, nothing)});
    }
    check(rows);
}

TEST_F(RefusedTest, WhatKeepsItsPlace) {
    const std::string trash = device_.note(".Trash");
    const struct {
        std::string item;
        std::string reason;
    } items[] = {
        {"root", "it is the storage root, which stays as it is"},
        {device_.path("home/Documents"), "it is the storage root, which stays as it is"},
        {library_, "it is an application's library, which stays as it is"},
        {device_.note(""), "it is an application's library, which stays as it is"},
        {trash, "it is the trash, which stays as it is"},
        {"workingset", "it is a view, not an item"},
        {"alldirs", "it is a view, not an item"},
        {"TemporaryLocalFolder", "it belongs to the host"},
    };
    std::vector<Row> rows;
    for (const auto& [item, reason] : items) {
        rows.push_back({{"rename", item, "x"}, cannot("rename", item, reason)});
        rows.push_back({{"move", item, folder_}, cannot("move", item, reason)});
        rows.push_back({{"trash", item}, cannot("trash", item, reason)});
        rows.push_back({{"delete", item}, cannot("delete", item, reason)});
        rows.push_back({{"restore", item}, cannot("restore", item, reason)});
    }
    check(rows);
}

TEST_F(RefusedTest, WhereNothingMayBePut) {
    const std::string old = device_.note(".Trash/Old list.md");
    const std::string letter = device_.document("Letter.txt");
    const struct {
        std::string parent;
        std::string reason;
    } parents[] = {
        {"root", "nothing can be put into the storage root itself, only into its folders and into libraries"},
        {letter, "\"Letter.txt\" is no folder"},
        {device_.note("Harbour.sketchbundle"), "\"Harbour.sketchbundle\" is no folder"},
        {device_.note("Pipe"), "\"Pipe\" is no folder"},
        {device_.note(".Trash"), "\".Trash\" lies in the trash, which takes only what is trashed"},
        {"workingset", "\"WorkingSetContainer\" is a view, not an item"},
    };
    std::vector<Row> rows;
    for (const auto& [parent, reason] : parents) {
        rows.push_back({{"import", source("f"), parent}, cannot("import", device_.path("home/Downloads/f"), reason)});
        rows.push_back({{"mkdir", "New", parent}, cannot("make", "New", reason)});
        rows.push_back({{"move", file_, parent}, cannot("move", file_, reason)});
        rows.push_back({{"restore", old, "--to", parent}, cannot("restore", old, reason)});
    }
    check(rows);
}

TEST_F(RefusedTest, WhatIsInTheTrashOrIsNot) {
    const std::string old = device_.note(".Trash/Old list.md");
    check({{{"trash", old}, cannot("trash", old, "it is in the trash already")},
           {{"move", old, folder_}, cannot("move", old, "it is in the trash; restore it instead")},
           {{"restore", file_}, cannot("restore", file_, "it is not in the trash")},
           {{"restore", folder_}, cannot("restore", folder_, "it is not in the trash")}});
}

TEST_F(RefusedTest, AnInboxIsNoItem) {
    const std::string inbox = device_.note("Inbox");
    check({{{"rename", inbox, "x"}, cannot("rename", inbox, gone_)},
           {{"move", inbox, folder_}, cannot("move", inbox, gone_)},
           {{"trash", inbox}, cannot("trash", inbox, gone_)},
           {{"delete", inbox}, cannot("delete", inbox, gone_)},
           {{"import", source("f"), inbox}, cannot("import anything into", inbox, gone_)},
           {{"mkdir", "New", inbox}, cannot("make a folder in", inbox, gone_)}});
}

TEST_F(RefusedTest, ANameThatIsTaken) {
    const std::string b = device_.document("Folder/b.txt");
    const std::string aFile = "a file named \"b.txt\" is already in \"Folder\"";
    const std::string aFolder = "a folder named \"Sub\" is already in \"Folder\"";
    check({
        {{"import", source("b.txt"), folder_}, cannot("import", device_.path("home/Downloads/b.txt"), aFile)},
        {{"import", source("Sub"), folder_}, cannot("import", device_.path("home/Downloads/Sub"), aFolder)},
        {{"mkdir", "b.txt", folder_}, cannot("make", "b.txt", aFile)},
        {{"mkdir", "Sub", folder_}, cannot("make", "Sub", aFolder)},
        {{"rename", file_, "b.txt"}, cannot("rename", file_, aFile)},
        {{"rename", file_, "Sub"}, cannot("rename", file_, aFolder)},
        // Its own other name is a file like any other, though it is the same document.
        {{"rename", file_, "second.txt"},
         cannot("rename", file_, "a file named \"second.txt\" is already in \"Folder\"")},
        {{"move", device_.document("Letter.txt"), folder_, "--name", "b.txt"},
         cannot("move", device_.document("Letter.txt"), aFile)},
        {{"move", device_.document("Letter.txt"), folder_, "--name", "Sub"},
         cannot("move", device_.document("Letter.txt"), aFolder)},
        {{"mkdir", "Journal", library_},
         cannot("make", "Journal", "a folder named \"Journal\" is already in \"Notes\"")},
        {{"rename", device_.document("Letter.txt"), "Folder"},
         cannot("rename", device_.document("Letter.txt"), "a folder named \"Folder\" is already in the storage root")},
        // What is never shown has its name as well.
        {{"rename", device_.note("Groceries.md"), ".Trash"},
         "\".Trash\" cannot be a new name there: it is the trash's"},
    });
    EXPECT_EQ(readFile(b), "b");
}

TEST_F(RefusedTest, WhatIsNoName) {
    const struct {
        std::string name;
        std::string reason;
    } names[] = {
        {"", "a name cannot be empty"},
        {".", "\".\" cannot be a name"},
        {"..", "\"..\" cannot be a name"},
        {"x/y", "a name cannot contain a slash"},
        {"/x", "a name cannot contain a slash"},
        {std::string(256, 'n'), "a name has at most 255 bytes, this one has 256"},
    };
    for (const auto& [name, reason] : names) {
        SCOPED_TRACE(name);
        const auto before = everything();
        for (const Arguments& arguments : {Arguments{"mkdir", name, folder_}, Arguments{"rename", file_, name},
                                           Arguments{"move", file_, library_, "--name", name}}) {
            const std::string said = complaint(arguments);
            EXPECT_NE(said.find("name"), std::string::npos) << said;
        }
        EXPECT_EQ(changedSince(before), Arguments{});
    }
}

TEST_F(RefusedTest, NamesThatAreKept) {
    const std::string documents = "\"Documents\" cannot be a new name: it stands for an application's library";
    const std::string inbox = "\"Inbox\" cannot be a new name there: such a folder is never shown";
    const std::string trash = "\".Trash\" cannot be a new name there: it is the trash's";
    const std::string nested = device_.document("Old/Documents");
    source("Documents/x");
    source("Inbox/x");
    check({
        {{"mkdir", "Documents", folder_}, documents},
        {{"rename", file_, "Documents"}, documents},
        {{"move", file_, library_, "--name", "Documents"}, documents},
        {{"import", device_.path("home/Downloads/Documents"), folder_}, documents},
        {{"mkdir", "Inbox", library_}, inbox},
        {{"move", folder_, library_, "--name", "Inbox"}, inbox},
        {{"rename", folder_, "Inbox"}, inbox},
        {{"import", device_.path("home/Downloads/Inbox"), library_}, inbox},
        {{"mkdir", ".Trash", library_}, trash},
        {{"move", file_, library_, "--name", ".Trash"}, trash},
        {{"move", nested, library_}, documents},
        {{"trash", nested},
         cannot("trash", nested, "its name \"Documents\" stands for an application's library; rename it first")},
    });
    // Elsewhere they are names like any other, and so is Inbox for a file.
    succeed({"mkdir", "Inbox", folder_});
    succeed({"mkdir", ".Trash", folder_});
    succeed({"rename", device_.document("Letter.txt"), "Inbox"});
    succeed({"rename", nested, "Papers"});
}

TEST_F(RefusedTest, AFolderIntoItself) {
    const std::string deep = device_.document("Folder/Sub/Deep");
    const auto before = everything();
    for (const std::string& parent : {folder_, device_.document("Folder/Sub"), deep}) {
        const std::string said = complaint({"move", folder_, parent});
        EXPECT_NE(said.find("Folder\" cannot "), std::string::npos) << said;
    }
    EXPECT_EQ(changedSince(before), Arguments{});
}

TEST_F(RefusedTest, AnotherNameOfADocumentAndALinkFromElsewhere) {
    const std::string second = device_.document("Folder/second.txt");
    const std::string link = device_.path("home/shortcut");
    files::create_symlink(file_, link);
    const std::string another = "it is another name of \"" + file_ + "\", by which that document is known";
    const std::string elsewhere = "it is a link from elsewhere to \"" + file_ + "\"; name that instead";
    std::vector<Row> rows;
    for (const auto& [item, reason] : {std::pair{second, another}, std::pair{link, elsewhere}}) {
        for (const std::string verb : {"trash", "delete", "tag"}) {
            rows.push_back({{verb, item}, cannot(verb, item, reason)});
        }
        rows.push_back({{"rename", item, "x"}, cannot("rename", item, reason)});
        rows.push_back({{"move", item, library_}, cannot("move", item, reason)});
    }
    check(rows);
}

TEST_F(RefusedTest, MetadataOfALibraryIsItsTagsAndItsRank) {
    succeed({"tag", library_, "red"});
    succeed({"rank", library_, "1"});
    EXPECT_EQ(complaint({"used", library_, "now"}),
              cannot("date", library_, "an application's library has no such date"));
}

TEST_F(RefusedTest, ALinkAndAPipeKeepNothing) {
    const auto before = everything();
    for (const std::string& item : {device_.note("Latest.md"), device_.note("Pipe")}) {
        EXPECT_NE(complaint({"tag", item, "red"}).find("cannot "), std::string::npos);
        EXPECT_NE(complaint({"rank", item, "1"}).find("cannot "), std::string::npos);
        EXPECT_EQ(complaint({"used", item, "now"}), cannot("date", item, "it may not be written to"));
    }
    EXPECT_EQ(changedSince(before), Arguments{});
}

TEST(ReadOnly, AnItemIsNotRenamedMovedTrashedOrDeletedAndTakesNothing) {
    Device device;
    makeDirectories(device.document("Folder"));
    writeFile(device.document("Folder/fixed.txt"), "fixed");
    makeDirectories(device.document("Fixed"));
    writeFile(device.document("Fixed/inner.txt"), "inner");
    if (const auto reason = device.giveToNobody()) GTEST_SKIP() << *reason;
    files::permissions(device.document("Folder/fixed.txt"), files::perms(0444));
    files::permissions(device.document("Fixed"), files::perms(0555));
    const std::string file = device.document("Folder/fixed.txt");
    const std::string fixed = device.document("Fixed");
    const std::string inner = device.document("Fixed/inner.txt");
    const Row rows[] = {
        {{"rename", file, "x"}, "cannot rename \"" + file + "\": it is read-only"},
        {{"move", file, device.document("Many")}, "cannot move \"" + file + "\": it is read-only"},
        {{"trash", file}, "cannot trash \"" + file + "\": it is read-only"},
        {{"delete", file}, "cannot delete \"" + file + "\": it is read-only"},
        {{"mkdir", "New", fixed}, "cannot make \"New\": \"Fixed\" is read-only"},
        {{"import", device.document("Letter.txt"), fixed},
         "cannot import \"" + device.document("Letter.txt") + "\": \"Fixed\" is read-only"},
        {{"move", device.document("Letter.txt"), fixed},
         "cannot move \"" + device.document("Letter.txt") + "\": \"Fixed\" is read-only"},
        {{"used", file, "now"}, "cannot date \"" + file + "\": it may not be written to"},
    };
    for (const auto& [arguments, expected] : rows) {
        SCOPED_TRACE(::testing::PrintToString(arguments));
        const auto finished = device.runAsNobody(arguments);
        EXPECT_EQ(finished.status, 1);
        EXPECT_EQ(finished.error, "tarnwell: " + expected + "\n");
    }
    // The folder of a writable item may be fixed all the same; then the file operation says so.
    const auto renamed = device.runAsNobody({"rename", inner, "x"});
    EXPECT_EQ(renamed.status, 1);
    EXPECT_TRUE(renamed.error.starts_with("tarnwell: \"" + inner + "\" cannot be ")) << renamed.error;
    EXPECT_TRUE(renamed.error.ends_with(": you may not change the folder \"" + fixed + "\"\n")) << renamed.error;
    EXPECT_EQ(readFile(inner), "inner");
    EXPECT_EQ(readFile(file), "fixed");
    files::permissions(fixed, files::perms(0755));
}

TEST(ReadOnly, ATrashThatCannotBeCleanedIsAFailure) {
    Device device;
    const std::string trash = device.note(".Trash");
    if (const auto reason = device.giveToNobody()) GTEST_SKIP() << *reason;
    files::permissions(trash, files::perms(0555));
    ASSERT_EQ(device.runAsNobody({"clean-trash", "--older-than", "36500d"}).status, 0);
    const auto finished = device.runAsNobody({"clean-trash", "--older-than", "0s"});
    files::permissions(trash, files::perms(0755));
    EXPECT_EQ(finished.status, 1);
    EXPECT_NE(finished.error.find("can't remove item did="), std::string::npos) << finished.error;
    EXPECT_TRUE(finished.error.ends_with("\ntarnwell: cannot remove \"" + trash + "/Old list.md\"\n"))
        << finished.error;
    EXPECT_TRUE(files::exists(trash + "/Old list.md"));
}

}  // namespace
}  // namespace tarnwell::testing
