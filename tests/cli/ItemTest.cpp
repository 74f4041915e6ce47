#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>

#include "tests/cli/Program.h"

namespace tarnwell::testing {
namespace {

namespace files = std::filesystem;

TEST(Id, PathAndIdentifierLeadToEachOther) {
    Device device;
    const std::string paths[] = {device.document("Letter.txt"),
                                 device.document("Many"),
                                 device.note("Journal/2024"),
                                 device.note("Harbour.sketchbundle"),
                                 device.document("Names/two\nlines.txt"),
                                 device.document("Names/caf\xE9.txt")};
    for (const auto& path : paths) {
        SCOPED_TRACE(path);
        if (!files::exists(path)) continue;
        const auto identifier = device.idOf(path);
        EXPECT_TRUE(identifier.starts_with(
            files::is_directory(path) && path.find(".sketchbundle") == std::string::npos ? "fid=" : "did="))
            << identifier;
        EXPECT_EQ(device.run({"path", identifier}).output, path + "\n");
        EXPECT_EQ(device.info(path)["itemIdentifier"], identifier);
        EXPECT_EQ(device.info(identifier)["itemIdentifier"], identifier);
    }
}

TEST(Id, StaysTheSameThroughRenamesAndMovesBetweenStarts) {
    Device device;
    const auto letter = device.idOf(device.document("Letter.txt"));
    const auto folder = device.idOf(device.note("Journal/2024/March"));
    const auto trip = device.idOf(device.note("Journal/2024/March/Trip.md"));

    files::rename(device.document("Letter.txt"), device.document("Many/Renamed letter.txt"));
    files::rename(device.note("Journal/2024"), device.note("Lists/Then"));

    EXPECT_EQ(device.run({"path", letter}).output, device.document("Many/Renamed letter.txt") + "\n");
    EXPECT_EQ(device.run({"path", folder}).output, device.note("Lists/Then/March") + "\n");
    EXPECT_EQ(device.run({"path", trip}).output, device.note("Lists/Then/March/Trip.md") + "\n");
    EXPECT_EQ(device.idOf(device.document("Many/Renamed letter.txt")), letter);
    EXPECT_EQ(device.idOf(device.note("Lists/Then/March/Trip.md")), trip);
}

TEST(Id, OfARenameOverStaysWithTheName) {
    Device device;
    writeFile(device.document("saved.txt"), "one");
    const auto identifier = device.idOf(device.document("saved.txt"));
    writeFile(device.document("saved.txt.new"), "two");
    files::rename(device.document("saved.txt.new"), device.document("saved.txt"));
    EXPECT_EQ(device.idOf(device.document("saved.txt")), identifier);
    EXPECT_EQ(device.run({"path", identifier}).output, device.document("saved.txt") + "\n");
}

TEST(Id, OfACopyIsANewOne) {
    Device device;
    const auto identifier = device.idOf(device.document("Letter.txt"));
    files::copy_file(device.document("Letter.txt"), device.document("Copy.txt"));
    EXPECT_NE(device.idOf(device.document("Copy.txt")), identifier);
    EXPECT_EQ(device.idOf(device.document("Letter.txt")), identifier);
}

TEST(Id, TheStorageRootsPathIsTheRoot) {
    Device device;
    EXPECT_EQ(device.idOf(device.path("home/Documents")), "RootContainer");
    EXPECT_EQ(device.idOf(device.path("home/Documents/")), "RootContainer");
    EXPECT_EQ(device.idOf(device.document("Many/..")), "RootContainer");
    EXPECT_EQ(device.idOf(device.note("")), "#org.example.Notes");
    EXPECT_EQ(device.run({"path", "root"}).output, device.path("home/Documents") + "\n");
    EXPECT_EQ(device.run({"path", "RootContainer"}).output, device.path("home/Documents") + "\n");
    EXPECT_EQ(device.run({"path", "#org.example.Notes"}).output,
              device.path("home/.var/app/org.example.Notes/Documents") + "\n");
}

TEST(Id, AFolderNamedDocumentsDeeperDownIsAFolder) {
    Device device;
    makeDirectories(device.document("Old/Documents"));
    writeFile(device.document("Old/Documents/inner.txt"), "x");
    const auto identifier = device.idOf(device.document("Old/Documents"));
    EXPECT_TRUE(identifier.starts_with("fid=")) << identifier;
    EXPECT_EQ(device.run({"path", identifier}).output, device.document("Old/Documents") + "\n");
    EXPECT_TRUE(device.idOf(device.document("Old/Documents/inner.txt")).starts_with("did="));
}

TEST(Id, LinksInFoldersAreFollowedAndALinkItselfIsAnItem) {
    Device device;
    files::create_directory_symlink(device.path("home/Documents"), device.path("home/shortcut"));
    EXPECT_EQ(device.idOf(device.path("home/shortcut/Letter.txt")), device.idOf(device.document("Letter.txt")));
    EXPECT_EQ(device.idOf(device.path("home/shortcut")), "RootContainer");
    EXPECT_NE(device.idOf(device.note("Latest.md")), device.idOf(device.note("Journal/2024/March/Trip.md")));
}

TEST(Path, WordsAreFilesOnlyWithAFolderInFront) {
    Device device;
    writeFile(device.document("root"), "a file of that name");
    files::current_path(device.path("home/Documents"));
    const auto identifier = device.run({"id", "./root"});
    EXPECT_EQ(identifier.status, 0) << identifier.error;
    EXPECT_TRUE(identifier.output.starts_with("did=")) << identifier.output;
    EXPECT_EQ(device.run({"path", "./root"}).output, device.document("root") + "\n");
    EXPECT_EQ(device.run({"path", "root"}).output, device.path("home/Documents") + "\n");
    files::current_path("/");
}

TEST(Path, InJsonIsAnObject) {
    Device device;
    const auto json = device.run({"--json", "path", device.document("Names/caf\xE9.txt")}).json();
    ASSERT_EQ(json.size(), 1u);
    EXPECT_TRUE(json[0]["path"].get<std::string>().ends_with("/caf\xEF\xBF\xBD.txt"));
    EXPECT_TRUE(json[0]["fileURL"].get<std::string>().ends_with("/caf%E9.txt"));
    EXPECT_TRUE(json[0]["pathBytes"].is_string());
    const auto id = device.run({"--json", "id", device.document("Letter.txt")}).json();
    ASSERT_EQ(id.size(), 1u);
    EXPECT_EQ(id[0].size(), 1u);
    EXPECT_TRUE(id[0]["itemIdentifier"].get<std::string>().starts_with("did="));
}

TEST(Item, WhatIsNotThereGivesOneClearLine) {
    Device device;
    const std::string rows[] = {"did=999999999",
                                "fid=18446744073709551615",
                                "fid=99999999999999999999999",
                                "did=0",
                                "did=-1",
                                "did=",
                                "fid=",
                                "did=x1",
                                "#",
                                "#none.such",
                                "#(null)",
                                "fid=;drop",
                                "did=\xFF",
                                device.path("home/private.txt"),
                                device.document("none"),
                                device.document("Letter.txt/below"),
                                "/",
                                "",
                                "/etc/passwd",
                                device.document(std::string(256, 'x')),
                                std::string(5000, 'y')};
    for (const auto& item : rows) {
        for (const char* verb : {"info", "path", "ls", "anchor"}) {
            SCOPED_TRACE(std::string(verb) + " " + item);
            const auto finished = device.run({verb, item});
            EXPECT_EQ(finished.status, 1);
            EXPECT_EQ(finished.output, "");
            EXPECT_TRUE(finished.error.starts_with("tarnwell: cannot ")) << finished.error;
            EXPECT_EQ(std::ranges::count(finished.error, '\n'), 1) << finished.error;
        }
    }
}

TEST(Item, ALinkThatLeadsOutShowsNothingOfWhatIsThere) {
    Device device;
    const auto item = device.info(device.note("Outside.txt"));
    EXPECT_EQ(item["typeIdentifier"], "inode/symlink");
    EXPECT_NE(item["documentSize"], 25);
}

TEST(Info, AViewIsNoItem) {
    Device device;
    for (const char* view : {"workingset", "alldirs"}) {
        const auto finished = device.run({"info", view});
        EXPECT_EQ(finished.status, 1);
        EXPECT_EQ(finished.error, std::string("tarnwell: cannot show \"") + view +
                                      "\": it is a view, not an item; \"tarnwell ls\" lists it\n");
    }
}

TEST(Info, ShowsARecordForPeople) {
    Device device;
    const auto lines = device.run({"info", device.note("Groceries.md")}).lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.front(), "Groceries.md");
    const auto has = [&](const std::string& line) { return std::ranges::count(lines, line) == 1; };
    EXPECT_TRUE(has("  parent          #org.example.Notes"));
    EXPECT_TRUE(has("  kind            text/markdown"));
    EXPECT_TRUE(has("  size            30 bytes"));
    EXPECT_TRUE(has("  allowed         read, write, move, rename, trash, delete"));
    EXPECT_TRUE(has("  place           " + device.note("Groceries.md"))) << ::testing::PrintToString(lines);
}

TEST(Anchor, IsBase64OfABinaryPropertyList) {
    Device device;
    for (const char* item : {"root", "workingset", "alldirs", "#org.example.Notes"}) {
        SCOPED_TRACE(item);
        const auto human = device.run({"anchor", item});
        EXPECT_EQ(human.status, 0) << human.error;
        EXPECT_TRUE(human.output.starts_with("YnBsaXN0MDD")) << human.output;
        const auto json = device.run({"--json", "anchor", item}).json();
        ASSERT_EQ(json.size(), 1u);
        EXPECT_EQ(json[0].size(), 1u);
        EXPECT_EQ(json[0]["anchor"].get<std::string>() + "\n", human.output) << "nothing changed in between";
    }
}

}  // namespace
}  // namespace tarnwell::testing
