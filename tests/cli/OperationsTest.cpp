#include <csignal>

#include "tests/cli/OperationsFixture.h"

namespace tarnwell::testing {
namespace {

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
