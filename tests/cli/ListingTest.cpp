#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "tests/cli/Program.h"

namespace tarnwell::testing {
namespace {

using Texts = std::vector<std::string>;

Texts field(const std::vector<nlohmann::json>& items, const char* name) {
    Texts result;
    for (const auto& item : items)
        result.push_back(item[name].is_string() ? item[name].get<std::string>() : "(no text)");
    return result;
}

Texts sorted(Texts texts) {
    std::ranges::sort(texts);
    return texts;
}

TEST(Ls, TheFirstOneOnANewMachineIsComplete) {
    Device device;
    const auto finished = device.run({"--json", "ls"});
    ASSERT_EQ(finished.status, 0) << finished.error;
    EXPECT_EQ(finished.error, "");
    EXPECT_EQ(field(finished.json(), "itemIdentifier").size(), 7u);
    EXPECT_EQ(sorted(field(finished.json(), "filename")),
              (Texts{"Letter.txt", "Many", "Maps", "Names", "Notes", "Scanner", "Sketches"}));
    EXPECT_EQ(sorted(field(device.run({"--json", "ls"}).json(), "filename")),
              sorted(field(finished.json(), "filename")));
}

TEST(Apps, AreTheApplicationsThatKeepDocuments) {
    Device device;
    const auto finished = device.run({"--json", "apps"});
    ASSERT_EQ(finished.status, 0) << finished.error;
    const auto items = finished.json();
    EXPECT_EQ(sorted(field(items, "itemIdentifier")),
              (Texts{"#net.example.Maps", "#org.example.Notes", "#org.example.Sketches", "#snap.scanner"}));
    for (const auto& item : items) {
        EXPECT_EQ(item["isContainer"], true);
        EXPECT_EQ(item["parentItemIdentifier"], "RootContainer");
    }
    const auto human = device.run({"apps"});
    EXPECT_EQ(human.status, 0);
    EXPECT_EQ(human.lines().size(), 5u) << human.output;
    EXPECT_NE(human.output.find("flatpak"), std::string::npos);
}

TEST(Apps, AreNamedInTheSessionsLanguage) {
    Device device;
    const auto finished = device.run({"--json", "apps"}, {{"LANGUAGE", "de"}, {"LC_ALL", "de_DE.UTF-8"}});
    ASSERT_EQ(finished.status, 0) << finished.error;
    const auto names = field(finished.json(), "filename");
    EXPECT_TRUE(std::ranges::count(names, "Notizen") == 1) << ::testing::PrintToString(names);
}

TEST(Ls, AnApplicationInstalledLaterIsThereAtOnce) {
    Device device;
    ASSERT_EQ(device.run({"ls"}).status, 0);
    makeDirectories(device.path("home/Late/Documents"));
    writeFile(device.path("home/.local/share/applications/net.example.Late.desktop"),
              "[Desktop Entry]\nType=Application\nName=Late\nExec=late\nX-Tarnwell-DataContainer=~/Late\n"
              "X-Tarnwell-SupportsDocumentBrowser=true\n");
    const auto names = field(device.run({"--json", "ls"}).json(), "filename");
    EXPECT_EQ(std::ranges::count(names, "Late"), 1);
}

TEST(Ls, GivesEachOf450EntriesOnce) {
    Device device;
    const auto finished = device.run({"--json", "ls", device.document("Many")});
    ASSERT_EQ(finished.status, 0) << finished.error;
    const auto names = field(finished.json(), "filename");
    EXPECT_EQ(names.size(), 450u);
    EXPECT_EQ(std::set<std::string>(names.begin(), names.end()).size(), 450u);
}

TEST(Ls, ShowsNoHiddenThingsNoInboxAndPackagesAsOneItem) {
    Device device;
    const auto names = sorted(field(device.run({"--json", "ls", "#org.example.Notes"}).json(), "filename"));
    for (const char* hidden : {".draft.md", ".Trash", "Inbox"})
        EXPECT_EQ(std::ranges::count(names, hidden), 0) << hidden;
    for (const char* shown : {"Groceries.md", "Journal", "Lists", "Harbour.sketchbundle"}) {
        EXPECT_EQ(std::ranges::count(names, shown), 1) << shown;
    }
    const auto recursive = device.run({"--json", "ls", "-r", "#org.example.Notes"}).json();
    const auto all = field(recursive, "filename");
    EXPECT_EQ(std::ranges::count(all, "Trip.md"), 1);
    EXPECT_EQ(std::ranges::count(all, "content.json"), 0);
    EXPECT_EQ(std::ranges::count(all, "From elsewhere.md"), 0);
}

TEST(Ls, SortsByNameAndByDate) {
    Device device;
    const auto names =
        field(device.run({"--json", "ls", "--sort", "name", device.document("Many")}).json(), "filename");
    EXPECT_TRUE(std::ranges::is_sorted(names));
    const auto dates = field(device.run({"--json", "ls", "--sort", "date", device.document("Many")}).json(),
                             "contentModificationDate");
    EXPECT_TRUE(std::ranges::is_sorted(dates, std::ranges::greater()));
    const auto listed = device.run({"ls", "-r", "-s", "name", "#org.example.Notes"}).lines();
    const auto lineOf = [&](const std::string& end) {
        return std::ranges::find_if(listed, [&](const std::string& line) { return line.ends_with(end); }) -
               listed.begin();
    };
    EXPECT_LT(lineOf("  Journal/2024/"), lineOf("Journal/2024/April/Garden.md"));
    EXPECT_LT(lineOf("Journal/2024/April/Garden.md"), lineOf("Journal/2024/March/Trip.md"));
}

TEST(Ls, NamesThatCouldBreakALineAreEscapedForPeopleAndExactInJson) {
    Device device;
    const auto human = device.run({"ls", device.document("Names")});
    ASSERT_EQ(human.status, 0) << human.error;
    EXPECT_EQ(human.lines().size(), 4u) << human.output;
    EXPECT_NE(human.output.find("two\\nlines.txt\n"), std::string::npos) << human.output;
    EXPECT_NE(human.output.find("caf\xEF\xBF\xBD.txt\n"), std::string::npos) << human.output;
    EXPECT_EQ(human.output.find('\x1b'), std::string::npos);

    for (const auto& item : device.run({"--json", "ls", device.document("Names")}).json()) {
        if (item["filename"] == "two\nlines.txt") {
            EXPECT_FALSE(item.contains("filenameBytes"));
        }
        if (item["filename"] == "caf\xEF\xBF\xBD.txt") {
            EXPECT_EQ(item["filenameBytes"], "Y2Fm6S50eHQ=");
            EXPECT_TRUE(item["fileURL"].get<std::string>().ends_with("/home/Documents/Names/caf%E9.txt"));
        }
    }
}

TEST(Ls, ColumnsAreAlignedByWhatTheyTakeOnATerminal) {
    Device device;
    writeFile(device.document("Names/\xE6\x97\xA5\xE6\x9C\xAC.txt"), "wide");
    const auto lines = device.run({"ls", device.document("Names")}).lines();
    ASSERT_GE(lines.size(), 2u);
    const auto column = lines[0].find("NAME");
    for (const auto& line : lines) EXPECT_EQ(line.substr(column - 2, 2), "  ") << line;
}

TEST(Ls, WhatIsNoFolderCannotBeListed) {
    Device device;
    const auto finished = device.run({"ls", device.document("Letter.txt")});
    EXPECT_EQ(finished.status, 1);
    EXPECT_EQ(finished.output, "");
    EXPECT_EQ(finished.error, "tarnwell: cannot list \"" + device.document("Letter.txt") +
                                  "\": it is no folder; \"tarnwell info\" shows it\n");
}

TEST(Ls, ViewsListToo) {
    Device device;
    const auto folders = device.run({"--json", "ls", "alldirs"});
    ASSERT_EQ(folders.status, 0) << folders.error;
    for (const auto& item : folders.json()) EXPECT_EQ(item["isFolder"], true) << item;
    const auto names = field(folders.json(), "filename");
    EXPECT_EQ(std::ranges::count(names, "March"), 1);
    EXPECT_EQ(device.run({"ls", "workingset"}).status, 0);
}

TEST(Ls, AnEmptyFolderGivesNothing) {
    Device device;
    const auto finished = device.run({"ls", device.note("Lists")});
    EXPECT_EQ(finished.status, 0) << finished.error;
    EXPECT_EQ(finished.output, "");
}

TEST(Ls, JsonHasEveryFieldInItsOrder) {
    Device device;
    const auto lines = device.run({"--json", "ls", "#org.example.Notes"}).lines();
    const auto groceries =
        std::ranges::find_if(lines, [](const auto& line) { return line.find("Groceries.md") != std::string::npos; });
    ASSERT_NE(groceries, lines.end());
    const auto item = nlohmann::ordered_json::parse(*groceries);
    Texts keys;
    for (const auto& [key, value] : item.items()) keys.push_back(key);
    EXPECT_EQ(keys, (Texts{"itemIdentifier",
                           "parentItemIdentifier",
                           "filename",
                           "typeIdentifier",
                           "documentSize",
                           "creationDate",
                           "contentModificationDate",
                           "childItemCount",
                           "capabilities",
                           "isTrashed",
                           "lastUsedDate",
                           "tags",
                           "favoriteRank",
                           "fileID",
                           "docID",
                           "fileURL",
                           "searchDomainIdentifier",
                           "appContainerBundleIdentifier",
                           "isFolder",
                           "isContainer",
                           "isUbiquitous"}));
    EXPECT_EQ(item["parentItemIdentifier"], "#org.example.Notes");
    EXPECT_EQ(item["typeIdentifier"], "text/markdown");
    EXPECT_EQ(item["documentSize"], 30);
    EXPECT_EQ(item["childItemCount"], nullptr);
    EXPECT_EQ(item["capabilities"], 0x3F);
    EXPECT_EQ(item["isTrashed"], false);
    EXPECT_EQ(item["fileURL"], "file://" + device.note("Groceries.md"));
    EXPECT_EQ(item["isUbiquitous"], false);
    if (item["tags"].is_null()) GTEST_SKIP() << "the file system below " << device.path("") << " keeps no attributes";
    EXPECT_EQ(item["tags"], nlohmann::ordered_json({"Home", "Weekly"}));
    EXPECT_EQ(item["favoriteRank"], 12);
    EXPECT_EQ(item["lastUsedDate"], "2024-05-17T09:00:00.000000Z");
}

}  // namespace
}  // namespace tarnwell::testing
