#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <map>

#include "tests/cli/Program.h"

namespace tarnwell::testing {
namespace {

namespace files = std::filesystem;
using Arguments = std::vector<std::string>;

/// A device with some files of its own beside the sample's.
class OperationsTest : public ::testing::Test {
protected:
    OperationsTest() {
        make("Folder/a.txt", "a");
        make("Folder/b.txt", "b");
        makeDirectories(device_.document("Folder/Sub"));
    }
    void make(const std::string& relative, std::string_view content) const {
        const std::string path = device_.document(relative);
        makeDirectories(path.substr(0, path.rfind('/')));
        writeFile(path, content);
    }
    std::string source(const std::string& name, std::string_view content = "new") const {
        const std::string path = device_.path("home/Downloads/" + name);
        makeDirectories(path.substr(0, path.rfind('/')));
        writeFile(path, content);
        return path;
    }
    /// Runs it and expects it to succeed; the lines of its output.
    std::vector<std::string> succeed(const Arguments& arguments) const {
        const auto finished = device_.run(arguments);
        EXPECT_EQ(finished.status, 0) << finished.error;
        EXPECT_EQ(finished.error, "");
        return finished.lines();
    }
    /// What it says, without "tarnwell: " and the line end.
    std::string complaint(const Arguments& arguments, int status = 1) const {
        const auto finished = device_.run(arguments);
        EXPECT_EQ(finished.status, status);
        EXPECT_EQ(finished.output, "");
        EXPECT_TRUE(finished.error.starts_with("tarnwell: ") && finished.error.ends_with('\n')) << finished.error;
        EXPECT_EQ(std::ranges::count(finished.error, '\n'), 1) << finished.error;
        if (finished.error.size() < 11) return finished.error;
        return finished.error.substr(10, finished.error.size() - 11);
    }
    std::string trashed(const std::string& name) const { return device_.document(".Trash/" + name); }
    bool exists(const std::string& path) const { return files::exists(files::symlink_status(path)); }

    /// Everything that a person has on the device, with its content.
    using Everything = std::map<std::string, std::string>;
    Everything everything() const {
        Everything found;
        for (files::recursive_directory_iterator entry(device_.path("home")), end; entry != end; ++entry) {
            const std::string path = entry->path().string();
            if (path.ends_with("/.local")) {
                entry.disable_recursion_pending();
                continue;
            }
            found[path] = entry->is_symlink()        ? "-> " + files::read_symlink(path).string()
                          : entry->is_regular_file() ? readFile(path)
                                                     : "";
        }
        return found;
    }
    /// The paths that came, went or differ since then.
    std::vector<std::string> changedSince(const Everything& before) const {
        Everything now = everything();
        std::vector<std::string> changed;
        for (const auto& [path, content] : before) {
            const auto found = now.find(path);
            if (found == now.end() || found->second != content) changed.push_back(path);
            now.erase(path);
        }
        for (const auto& [path, content] : now) changed.push_back(path);
        return changed;
    }

    Device device_;
    const std::string library_ = "#org.example.Notes";
};

// What the verbs do.

TEST_F(OperationsTest, ImportCopiesFilesAndFoldersInOrder) {
    const std::string file = source("letter.txt", "dear");
    source("album/inner.txt", "inner");
    const auto lines = succeed({"import", file, device_.path("home/Downloads/album"), library_});
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_TRUE(lines[0].starts_with("imported  did=")) << lines[0];
    EXPECT_TRUE(lines[0].ends_with("  " + device_.note("letter.txt"))) << lines[0];
    EXPECT_TRUE(lines[1].starts_with("imported  fid=")) << lines[1];
    EXPECT_EQ(readFile(device_.note("letter.txt")), "dear");
    EXPECT_EQ(readFile(device_.note("album/inner.txt")), "inner");
    EXPECT_EQ(readFile(file), "dear");
}

TEST_F(OperationsTest, ImportTakesAPathAsTheWorkingDirectoryHasIt) {
    source("letter.txt");
    source("album/inner.txt");
    files::current_path(device_.path("home/Downloads"));
    succeed({"import", "letter.txt", "./album/", device_.document("Folder")});
    files::current_path("/");
    EXPECT_TRUE(exists(device_.document("Folder/letter.txt")));
    EXPECT_TRUE(exists(device_.document("Folder/album/inner.txt")));
}

TEST_F(OperationsTest, MkdirMakesAFolder) {
    const auto json = device_.run({"--json", "mkdir", "New", device_.document("Folder")}).json();
    ASSERT_EQ(json.size(), 1u);
    EXPECT_EQ(json[0]["filename"], "New");
    EXPECT_EQ(json[0]["isFolder"], true);
    EXPECT_EQ(json[0]["parentItemIdentifier"], device_.idOf(device_.document("Folder")));
    EXPECT_TRUE(files::is_directory(device_.document("Folder/New")));
}

TEST_F(OperationsTest, RenameAndMoveKeepTheIdentifier) {
    const std::string identifier = device_.idOf(device_.document("Folder/a.txt"));
    EXPECT_EQ(succeed({"rename", device_.document("Folder/a.txt"), "c.txt"}).front(),
              "renamed  " + identifier + "  " + device_.document("Folder/c.txt"));
    EXPECT_EQ(succeed({"move", identifier, library_}).front(), "moved  " + identifier + "  " + device_.note("c.txt"));
    EXPECT_EQ(succeed({"move", identifier, device_.document("Folder/Sub"), "--name", "d.txt"}).front(),
              "moved  " + identifier + "  " + device_.document("Folder/Sub/d.txt"));
    EXPECT_EQ(readFile(device_.document("Folder/Sub/d.txt")), "a");
}

TEST_F(OperationsTest, MoveTakesSeveralItems) {
    const auto lines =
        succeed({"move", device_.document("Folder/a.txt"), device_.document("Folder/Sub"), device_.document("Many")});
    EXPECT_EQ(lines.size(), 2u);
    EXPECT_EQ(readFile(device_.document("Many/a.txt")), "a");
    EXPECT_TRUE(files::is_directory(device_.document("Many/Sub")));
}

TEST_F(OperationsTest, AnOwnDocumentIsTrashedAndRestoredToItsFolder) {
    const std::string identifier = device_.idOf(device_.document("Folder/a.txt"));
    EXPECT_EQ(succeed({"trash", identifier}).front(), "trashed  " + identifier + "  " + trashed("a.txt"));
    EXPECT_EQ(device_.info(identifier)["isTrashed"], true);
    EXPECT_EQ(succeed({"restore", identifier}).front(),
              "restored  " + identifier + "  " + device_.document("Folder/a.txt"));
    // Also what stood at the very top.
    const std::string letter = device_.idOf(device_.document("Letter.txt"));
    succeed({"trash", letter});
    EXPECT_EQ(succeed({"restore", letter}).front(), "restored  " + letter + "  " + device_.document("Letter.txt"));
}

TEST_F(OperationsTest, RestoreFollowsAFolderThatWasRenamedMeanwhileWhereTheStoreRemembersIt) {
    const std::string identifier = device_.idOf(device_.document("Folder/a.txt"));
    succeed({"trash", identifier});
    succeed({"rename", device_.document("Folder"), "Renamed"});
    EXPECT_EQ(succeed({"restore", identifier}).front(),
              "restored  " + identifier + "  " + device_.document("Renamed/a.txt"));
}

TEST_F(OperationsTest, TrashAndRestoreInALibraryGiveEverythingBack) {
    const std::string path = device_.note("Groceries.md");
    const auto before = device_.info(path);
    const std::string content = readFile(path);
    const std::string identifier = before["itemIdentifier"];
    succeed({"trash", path});
    EXPECT_FALSE(exists(path));
    succeed({"restore", identifier});
    EXPECT_EQ(readFile(path), content);
    auto after = device_.info(path);
    EXPECT_EQ(after, before);
}

TEST_F(OperationsTest, NamesThatTheTrashReplacedComeBack) {
    make("Other/a.txt", "other");
    const std::string first = device_.idOf(device_.document("Folder/a.txt"));
    const std::string second = device_.idOf(device_.document("Other/a.txt"));
    EXPECT_EQ(succeed({"trash", first, second}).size(), 2u);
    EXPECT_EQ(succeed({"restore", first, second}).size(), 2u);
    EXPECT_EQ(readFile(device_.document("Folder/a.txt")), "a");
    EXPECT_EQ(readFile(device_.document("Other/a.txt")), "other");
}

TEST_F(OperationsTest, RestoreGoesWhereItIsTold) {
    const std::string identifier = device_.idOf(device_.document("Folder/a.txt"));
    succeed({"trash", identifier});
    EXPECT_EQ(succeed({"restore", identifier, "--to", library_}).front(),
              "restored  " + identifier + "  " + device_.note("a.txt"));
}

TEST_F(OperationsTest, RestorePutsAnOwnDocumentAtTheTopWhereItsFolderIsGone) {
    for (const std::string verb : {"delete", "trash"}) {
        SCOPED_TRACE(verb);
        make(verb + "/a.txt", "a");
        const std::string identifier = device_.idOf(device_.document(verb + "/a.txt"));
        succeed({"trash", identifier});
        succeed({verb, device_.document(verb)});
        EXPECT_EQ(succeed({"restore", identifier}).front(),
                  "restored  " + identifier + "  " + device_.document("a.txt"));
        succeed({"delete", identifier});
    }
    // Whatever else lies in the trash, and nobody remembers where it came from.
    make(".Trash/found.txt", "found");
    succeed({"restore", trashed("found.txt")});
    EXPECT_EQ(readFile(device_.document("found.txt")), "found");
}

TEST_F(OperationsTest, RestorePutsALibrarysItemIntoTheLibraryWhereTheFolderIsGone) {
    const std::string identifier = device_.idOf(device_.note("Journal/2024/March/Trip.md"));
    succeed({"trash", identifier});
    succeed({"delete", device_.note("Journal")});
    EXPECT_EQ(succeed({"restore", identifier}).front(), "restored  " + identifier + "  " + device_.note("Trip.md"));
}

TEST_F(OperationsTest, DeleteIsForGood) {
    const std::string file = device_.idOf(device_.document("Letter.txt"));
    const std::string folder = device_.idOf(device_.document("Folder"));
    EXPECT_EQ(succeed({"delete", device_.document("Letter.txt"), folder}),
              (std::vector<std::string>{"deleted  " + file + "  " + device_.document("Letter.txt"),
                                        "deleted  " + folder + "  " + device_.document("Folder")}));
    EXPECT_FALSE(exists(device_.document("Folder")));
    EXPECT_FALSE(exists(device_.document(".Trash")));
    const auto json = device_.run({"--json", "delete", device_.document("Names")}).json();
    ASSERT_EQ(json.size(), 1u);
    EXPECT_TRUE(json[0]["delete"].get<std::string>().starts_with("fid="));
}

TEST_F(OperationsTest, CleanTrashRemovesWhatIsTooOldAndDatesWhatHasNoDate) {
    const auto identifier = device_.idOf(device_.document("Folder/a.txt"));
    succeed({"trash", identifier});
    make(".Trash/undated", "x");
    EXPECT_EQ(succeed({"clean-trash", "--older-than", "36500d"}).front(), "Nothing in a trash is that old.");
    EXPECT_EQ(device_.run({"--json", "clean-trash", "--older-than", "36500d"}).output, "");
    const auto lines = succeed({"clean-trash", "--older-than", "0s"});
    EXPECT_EQ(std::ranges::count(lines, "removed  " + trashed("a.txt")), 1);
    EXPECT_FALSE(exists(trashed("a.txt")));
    // It got its date in the first run.
    EXPECT_FALSE(exists(trashed("undated")));
}

TEST_F(OperationsTest, AHiddenEntryOfATrashIsLeftAlone) {
    make("Folder/.hidden", "x");
    succeed({"trash", device_.document("Folder/.hidden")});
    succeed({"clean-trash", "--older-than", "0s"});
    EXPECT_TRUE(exists(trashed(".hidden")));
}

TEST_F(OperationsTest, TagsRankAndDateAreSetAndCleared) {
    const std::string path = device_.document("Letter.txt");
    succeed({"tag", path, "urgent", "\xC3\x84rger"});
    succeed({"rank", path, "18446744073709551615"});
    succeed({"used", path, "2024-05-01T12:00:00.25Z"});
    auto item = device_.info(path);
    EXPECT_EQ(item["tags"], (nlohmann::json{"urgent", "\xC3\x84rger"}));
    EXPECT_EQ(item["favoriteRank"], 18446744073709551615ull);
    EXPECT_EQ(item["lastUsedDate"], "2024-05-01T12:00:00.250000Z");
    succeed({"tag", path});
    succeed({"rank", path, "--clear"});
    succeed({"used", path, "--clear"});
    succeed({"used", path, "--clear"});
    item = device_.info(path);
    EXPECT_EQ(item["tags"], nlohmann::json::array());
    EXPECT_EQ(item["favoriteRank"], nullptr);
    EXPECT_EQ(item["lastUsedDate"], nullptr);
    succeed({"used", path, "now"});
    EXPECT_TRUE(device_.info(path)["lastUsedDate"].is_string());
}

TEST_F(OperationsTest, ADateWithoutAZoneIsLocal) {
    const std::string path = device_.document("Letter.txt");
    EXPECT_EQ(device_.run({"used", path, "2024-05-01T14:00"}, {{"TZ", "CET-1CEST,M3.5.0,M10.5.0/3"}}).status, 0);
    EXPECT_EQ(device_.info(path)["lastUsedDate"], "2024-05-01T12:00:00.000000Z");
}

TEST_F(OperationsTest, WhatChangedIsToldAsAChange) {
    const auto anchor = device_.run({"anchor", "root"}).lines().front();
    const std::string identifier = device_.idOf(device_.document("Folder/a.txt"));
    succeed({"rename", identifier, "c.txt"});
    succeed({"delete", device_.document("Letter.txt")});
    const auto changes = device_.run({"changes", "root", "--since", anchor}).output;
    EXPECT_NE(changes.find("update  " + identifier + "  " + device_.document("Folder/c.txt")), std::string::npos)
        << changes;
    EXPECT_NE(changes.find("delete  did="), std::string::npos) << changes;
}

// Several items.

TEST_F(OperationsTest, TheOthersAreDoneWhereOneFails) {
    const Arguments items = {device_.document("Folder/a.txt"), "did=4000000", device_.document("Folder/b.txt")};
    Arguments arguments{"trash"};
    arguments.insert(arguments.end(), items.begin(), items.end());
    const auto finished = device_.run(arguments);
    EXPECT_EQ(finished.status, 1);
    EXPECT_EQ(finished.lines().size(), 2u);
    EXPECT_EQ(finished.error,
              "tarnwell: cannot trash \"did=4000000\": there is no such item (any more); \"tarnwell ls\" of its folder "
              "shows what is there\ntarnwell: cannot trash 1 of 3 items\n");
    EXPECT_TRUE(exists(trashed("a.txt")));
    EXPECT_TRUE(exists(trashed("b.txt")));
}

TEST_F(OperationsTest, InJsonEachItemIsALineAndSoIsEachFailure) {
    const auto finished = device_.run({"--json", "move", device_.document("Folder/a.txt"), "did=4000000", library_});
    EXPECT_EQ(finished.status, 1);
    const auto json = finished.json();
    ASSERT_EQ(json.size(), 2u);
    EXPECT_EQ(json[0]["filename"], "a.txt");
    EXPECT_EQ(json[1]["item"], "did=4000000");
    EXPECT_EQ(json[1]["error"]["code"], 0);
    EXPECT_TRUE(json[1]["error"]["message"].get<std::string>().starts_with("cannot move \"did=4000000\": "));
    const auto single = device_.run({"--json", "rename", device_.document("Folder/b.txt"), "Sub"});
    EXPECT_EQ(single.status, 1);
    ASSERT_EQ(single.json().size(), 1u);
    EXPECT_EQ(single.json()[0]["error"]["code"], -1001);
    EXPECT_EQ(std::ranges::count(single.error, '\n'), 1);
}

// What is refused, and how that is said.

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

TEST_F(OperationsTest, NamesMayDifferInCaseOrInFormOnlyAndNeedNotBeUtf8) {
    const std::string path = device_.document("Folder/a.txt");
    const std::string identifier = device_.idOf(path);
    const std::string composed = "caf\xC3\xA9";
    const std::string decomposed = "cafe\xCC\x81";
    for (const std::string& name :
         {std::string("A.TXT"), std::string("a.txt"), composed, decomposed, std::string("caf\xE9"),
          std::string("two\nlines"), std::string("-x"), std::string(255, 'n'), std::string("name ")}) {
        SCOPED_TRACE(name);
        // A name that looks like an option comes after "--".
        const auto finished = device_.run({"--json", "rename", "--", identifier, name});
        EXPECT_EQ(finished.status, 0) << finished.error;
        EXPECT_TRUE(exists(device_.document("Folder/" + name)));
    }
    make("Folder/" + composed, "composed");
    make("Folder/" + decomposed, "decomposed");
    EXPECT_EQ(readFile(device_.document("Folder/" + composed)), "composed");
    EXPECT_EQ(complaint({"rename", identifier, composed}),
              "cannot rename \"" + identifier + "\": a file named \"" + composed + "\" is already in \"Folder\"");
}

TEST_F(OperationsTest, AnItemKeepsItsNameWhereItIsRenamedToIt) {
    const std::string path = device_.document("Folder/a.txt");
    const std::string identifier = device_.idOf(path);
    EXPECT_EQ(succeed({"rename", path, "a.txt"}).front(), "renamed  " + identifier + "  " + path);
    EXPECT_EQ(succeed({"move", path, device_.document("Folder")}).front(), "moved  " + identifier + "  " + path);
    EXPECT_EQ(readFile(path), "a");
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

TEST_F(OperationsTest, AnInterruptedImportLeavesNothingAndTheRestIsNotBegun) {
    for (int i = 0; i < 2000; ++i) source("tree/f" + std::to_string(i));
    const std::string next = source("next.txt");
    const std::string target = device_.document("Folder/Sub");
    auto program = device_.start({"import", device_.path("home/Downloads/tree"), next, target});
    // A hidden copy is what is under way.
    while (files::is_empty(target)) {
    }
    program.sendSignal(SIGINT);
    const auto finished = program.finish();
    EXPECT_EQ(finished.status, 1);
    EXPECT_EQ(finished.output, "");
    EXPECT_TRUE(finished.error.ends_with("tarnwell: interrupted; 1 of 2 items were not begun\n")) << finished.error;
    EXPECT_TRUE(files::is_empty(target));
    succeed({"import", next, target});
}

TEST_F(OperationsTest, AnInterruptedImportOfOneItemSaysThatNothingWasImported) {
    for (int i = 0; i < 2000; ++i) source("tree/f" + std::to_string(i));
    const std::string target = device_.document("Folder/Sub");
    auto program = device_.start({"import", device_.path("home/Downloads/tree"), target});
    while (files::is_empty(target)) {
    }
    program.sendSignal(SIGTERM);
    const auto finished = program.finish();
    EXPECT_EQ(finished.status, 1);
    EXPECT_EQ(finished.error,
              "tarnwell: \"" + device_.path("home/Downloads/tree") + "\" was cancelled; nothing was imported\n");
    EXPECT_TRUE(files::is_empty(target));
}

TEST(Usage, OfTheVerbsThatChangeThings) {
    Device device;
    const Arguments rows[] = {{"import"},
                              {"import", "a"},
                              {"mkdir", "a"},
                              {"mkdir", "a", "b", "c"},
                              {"rename", "a"},
                              {"rename"},
                              {"move", "a"},
                              {"move", "a", "b", "c", "--name", "x"},
                              {"trash"},
                              {"restore"},
                              {"restore", "--to"},
                              {"delete"},
                              {"clean-trash"},
                              {"clean-trash", "--older-than"},
                              {"clean-trash", "--older-than", "soon"},
                              {"tag"},
                              {"rank", "a"},
                              {"rank", "a", "-1"},
                              {"rank", "a", "1.5"},
                              {"rank", "a", "18446744073709551616"},
                              {"rank", "a", "1", "--clear"},
                              {"used", "a"},
                              {"used", "a", "soon"},
                              {"used", "a", "now", "--clear"}};
    for (const auto& arguments : rows) {
        SCOPED_TRACE(::testing::PrintToString(arguments));
        const auto finished = device.run(arguments);
        EXPECT_EQ(finished.status, 2);
        EXPECT_EQ(finished.output, "");
        EXPECT_EQ(std::ranges::count(finished.error, '\n'), 1) << finished.error;
    }
}

}  // namespace
}  // namespace tarnwell::testing
