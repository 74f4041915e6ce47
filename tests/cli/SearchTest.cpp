#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <filesystem>

#include "tests/cli/OperationsFixture.h"

namespace tarnwell::testing {
namespace {

using Texts = std::vector<std::string>;

class SearchVerbTest : public OperationsTest {
protected:
    Texts found(Arguments arguments) const {
        arguments.insert(arguments.begin(), {"--json", "search"});
        const auto finished = device_.run(arguments);
        EXPECT_EQ(finished.status, 0) << finished.error;
        Texts names;
        for (const auto& item : finished.json()) names.push_back(item["filename"]);
        std::ranges::sort(names);
        return names;
    }
    std::string database() const { return device_.path("home/.cache/tarnwell/search.sqlite"); }
};

TEST_F(SearchVerbTest, FindsByNameTagAndTypeAndInAPlace) {
    make("Folder/Annual-Report_2024.pdf", "%PDF-1.4");
    make("Folder/Sub/Été.txt", "x");
    succeed({"tag", device_.document("Folder/a.txt"), "Urgent", "in work"});
    EXPECT_EQ(found({"report"}), Texts{"Annual-Report_2024.pdf"});
    EXPECT_EQ(found({"annual", "rep"}), Texts{"Annual-Report_2024.pdf"});
    EXPECT_EQ(found({"éte"}), Texts{"Été.txt"});
    EXPECT_EQ(found({"tag:urgent"}), Texts{"a.txt"});
    EXPECT_EQ(found({"--tag", "in work", "a"}), Texts{"a.txt"});
    EXPECT_EQ(found({"--type", "pdf", "annual"}), Texts{"Annual-Report_2024.pdf"});
    EXPECT_EQ(found({"type:folder sub"}), Texts{"Sub"});
    EXPECT_EQ(found({"--in", device_.document("Folder"), "type:file"}),
              (Texts{"Annual-Report_2024.pdf", "a.txt", "b.txt", "Été.txt"}));
    EXPECT_EQ(found({"--in", device_.document("Folder/Sub")}), Texts{"Été.txt"});
    EXPECT_EQ(found({"in:notes été"}), Texts{});
    EXPECT_EQ(found({"--", "-type:folder report -draft"}), Texts{"Annual-Report_2024.pdf"});
}

TEST_F(SearchVerbTest, ShowsItemsAsAListingDoesWithTheirFolders) {
    make("Folder/Sub/needle.txt", "12345");
    const auto lines = succeed({"search", "needle"});
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_TRUE(lines[0].starts_with("IDENTIFIER") && lines[0].ends_with("NAME")) << lines[0];
    EXPECT_NE(lines[1].find("5 B"), std::string::npos);
    EXPECT_TRUE(lines[1].ends_with("  Folder/Sub/needle.txt")) << lines[1];
    const auto json = device_.run({"--json", "search", "needle"});
    const auto info = device_.info(device_.document("Folder/Sub/needle.txt"));
    ASSERT_EQ(json.json().size(), 1u);
    EXPECT_EQ(json.json().front(), info);
}

TEST_F(SearchVerbTest, KnowsWhatChangedRightBefore) {
    EXPECT_EQ(found({"fresh"}), Texts{});
    make("Folder/fresh.txt", "x");
    EXPECT_EQ(found({"fresh"}), Texts{"fresh.txt"});
    succeed({"rename", device_.document("Folder/fresh.txt"), "stale.txt"});
    EXPECT_EQ(found({"fresh"}), Texts{});
    succeed({"trash", device_.document("Folder/stale.txt")});
    EXPECT_EQ(found({"stale"}), Texts{});
    EXPECT_EQ(found({"stale", "--trashed"}), Texts{"stale.txt"});
    const auto shown = succeed({"search", "stale", "--trashed"});
    EXPECT_TRUE(shown.back().ends_with(".Trash/stale.txt (in the trash)")) << shown.back();
}

TEST_F(SearchVerbTest, SortsAndLimits) {
    for (const char* name : {"s b.txt", "s a.txt", "s c.txt"}) make(std::string("Folder/") + name, "x");
    ASSERT_EQ(::utimensat(AT_FDCWD, device_.document("Folder/s c.txt").c_str(),
                          std::array<timespec, 2>{{{1'000, 0}, {1'000, 0}}}.data(), 0),
              0);
    const auto names = [&](const Arguments& arguments) {
        Texts result;
        for (const auto& item : device_.run(arguments).json()) result.push_back(item["filename"]);
        return result;
    };
    EXPECT_EQ(names({"--json", "search", "s type:file", "--in", device_.document("Folder"), "--sort", "name"}),
              (Texts{"s a.txt", "s b.txt", "s c.txt"}));
    EXPECT_EQ(names({"--json", "search", "s type:file", "--in", device_.document("Folder"), "--sort", "date"}).back(),
              "s c.txt");
    EXPECT_EQ(names({"--json", "search", "s type:file", "--in", device_.document("Folder"), "--sort", "name", "--limit",
                     "2"}),
              (Texts{"s a.txt", "s b.txt"}));
    const auto limited = device_.run({"search", "--limit", "2", "--in", device_.document("Folder"), "s type:file"});
    EXPECT_EQ(limited.status, 0);
    EXPECT_EQ(limited.lines().size(), 3u);
    EXPECT_EQ(limited.error, "tarnwell: 1 more; --limit 0 shows all\n");
}

TEST_F(SearchVerbTest, FindingNothingIsNoFailureAndIsSaid) {
    const auto finished = device_.run({"search", "no such thing"});
    EXPECT_EQ(finished.status, 0);
    EXPECT_EQ(finished.output, "");
    EXPECT_EQ(finished.error, "tarnwell: nothing found\n");
}

TEST_F(SearchVerbTest, AWrongQueryIsSaidPlainly) {
    const std::string see = "; see tarnwell search --help";
    EXPECT_EQ(complaint({"search"}, 2), "cannot search: nothing is looked for; name a word, a tag or a type" + see);
    EXPECT_EQ(complaint({"search", "a \"b"}, 2), "cannot search: the quotation mark before \"b\" is not closed" + see);
    EXPECT_EQ(complaint({"search", "tag:"}, 2),
              "cannot search: \"tag:\" needs a value right after it, such as tag:urgent" + see);
    EXPECT_EQ(complaint({"search", "in:Nowhere"}, 2),
              "cannot search: there is no library \"Nowhere\" to look in; \"tarnwell apps\" lists them" + see);
    EXPECT_EQ(complaint({"search", "&"}, 2),
              "cannot search: there is no letter, digit or sign to look for in \"&\"" + see);
    EXPECT_EQ(complaint({"search", "--tag", "", "x"}, 2), "cannot search: --tag needs a tag" + see);
    EXPECT_EQ(complaint({"search", "--in", device_.document("Folder/a.txt"), "x"}),
              "cannot search in \"" + device_.document("Folder/a.txt") + "\": it is no folder");
    EXPECT_EQ(complaint({"search", "--in", device_.document("none"), "x"}).starts_with("cannot search in \""), true);
    EXPECT_EQ(device_.run({"search", "--sort", "size", "x"}).status, 2);
    EXPECT_EQ(device_.run({"search", "--limit", "-1", "x"}).status, 2);
    EXPECT_EQ(device_.run({"search", std::string(5000, 'x')}).status, 2);
}

TEST_F(SearchVerbTest, NamesThatAreNoUtf8AndNamesThatDriveTerminalsAreFoundAndShownSafely) {
    make("Folder/caf\xe9\n\x1b[31m.txt", "x");
    const auto finished = device_.run({"--json", "search", "caf\xe9", "--in", device_.document("Folder")});
    ASSERT_EQ(finished.json().size(), 1u) << finished.error;
    EXPECT_TRUE(finished.json().front().contains("filenameBytes"));
    const auto lines = succeed({"search", "café", "--in", device_.document("Folder")});
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[1].find('\x1b'), std::string::npos);
}

TEST_F(SearchVerbTest, ADamagedIndexIsMadeAnewWithoutAWord) {
    EXPECT_EQ(found({"a.txt"}), Texts{"a.txt"});
    for (const char* suffix : {"-wal", "-shm"}) files::remove(database() + suffix);
    writeFile(database(), "this is no database, " + std::string(8192, '?'));
    const auto finished = device_.run({"search", "a.txt"});
    EXPECT_EQ(finished.status, 0);
    EXPECT_EQ(finished.error, "");
    EXPECT_EQ(finished.lines().size(), 2u);
    EXPECT_TRUE(files::exists(database() + ".old"));
}

TEST_F(SearchVerbTest, ARemovedApplicationIsNotFoundAnyMore) {
    make("../.var/app/org.example.Notes/Documents/unmistakable.txt", "x");
    EXPECT_EQ(found({"unmistakable"}), Texts{"unmistakable.txt"});
    const std::string documents = device_.path("home/.var/app/org.example.Notes/Documents");
    files::rename(documents, documents + "-away");
    EXPECT_EQ(found({"unmistakable"}), Texts{});
    EXPECT_EQ(found({"in:Maps"}).empty(), false);
    files::rename(documents + "-away", documents);
    EXPECT_EQ(found({"unmistakable"}), Texts{"unmistakable.txt"});
}

TEST_F(SearchVerbTest, AnInterruptEndsItAtOnceAndTheNextOneGoesOn) {
    for (int i = 0; i < 3000; ++i) make("Folder/many/" + std::to_string(i) + ".txt", "x");
    for (const int milliseconds : {30, 100, 200, 300, 400, 600}) {
        auto program = device_.start({"search", "2999"});
        ::usleep(static_cast<useconds_t>(milliseconds * 1000));
        program.sendSignal(SIGINT);
        const auto begin = std::chrono::steady_clock::now();
        const auto finished = program.finish();
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
        EXPECT_TRUE(finished.status == 128 + SIGINT || finished.status == 0) << finished.status;
    }
    EXPECT_EQ(found({"2999"}), Texts{"2999.txt"});
}

TEST_F(SearchVerbTest, TheStatusSaysWhatTheIndexHolds) {
    auto lines = device_.run({"--json", "status"}).json();
    EXPECT_TRUE(lines.back()["search"].is_null());
    EXPECT_FALSE(files::exists(database()));
    found({"a.txt"});
    lines = device_.run({"--json", "status"}).json();
    const auto& search = lines.back()["search"];
    EXPECT_GT(search["items"].get<int>(), 400);
    EXPECT_GT(search["databaseBytes"].get<int>(), 4096);
    EXPECT_TRUE(search["caughtUp"].is_string());
    EXPECT_NE(device_.run({"status"}).output.find("up to date at"), std::string::npos);
}

TEST_F(SearchVerbTest, AnIndexThatCannotBeMadeIsSaidAndKeepsNothingElseFromWorking) {
    makeDirectories(database() + "/in the way");
    const std::string said = complaint({"search", "a.txt"});
    EXPECT_NE(said.find(database()), std::string::npos) << said;
    const auto status = device_.run({"--json", "status"});
    EXPECT_EQ(status.status, 0) << status.error;
    EXPECT_NE(status.json().back()["search"]["problem"].get<std::string>().find(database()), std::string::npos);
    EXPECT_EQ(device_.run({"ls"}).status, 0);
}

TEST_F(SearchVerbTest, AppsSayWhereTheyComeFrom) {
    const auto finished = device_.run({"--json", "apps"});
    std::map<std::string, nlohmann::json> apps;
    for (const auto& app : finished.json()) apps[app["itemIdentifier"]] = app;
    EXPECT_EQ(apps["#org.example.Notes"]["origin"], "flatpak");
    EXPECT_EQ(apps["#snap.scanner"]["origin"], "snap");
    EXPECT_EQ(apps["#org.example.Notes"]["containerPath"], device_.path("home/.var/app/org.example.Notes"));
    EXPECT_TRUE(apps["#org.example.Notes"]["installedFor"] == "user" ||
                apps["#org.example.Notes"]["installedFor"] == "system");
    EXPECT_NE(device_.run({"apps"}).output.find("flatpak ("), std::string::npos);
}

}  // namespace
}  // namespace tarnwell::testing
