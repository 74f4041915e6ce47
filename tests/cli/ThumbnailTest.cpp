#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "platform/icons/IconData.h"
#include "platform/icons/PngCheck.h"
#include "tests/cli/OperationsFixture.h"

namespace tarnwell::testing {
namespace {

const std::string kNotes = "#org.example.Notes";

bool isPng(const std::string& content, unsigned side) { return icons::isSoundPng(bytesOf(content), side); }

class ThumbnailVerb : public OperationsTest {
protected:
    std::string target(const std::string& name) const { return device_.path(name); }
};

TEST_F(ThumbnailVerb, WritesTheIconInTheSizeOfTheDevice) {
    EXPECT_EQ(succeed({"thumbnail", kNotes, "-o", target("a.png")}),
              Arguments{"written  " + kNotes + "  " + target("a.png")});
    EXPECT_TRUE(isPng(readFile(target("a.png")), 48));
    struct Row {
        std::string deviceClass, scale;
        unsigned side;
    };
    for (const Row& row : {Row{"2", "2", 96}, {"2", "3", 144}, {"3", "1", 64}, {"3", "2", 128}, {"1", "2.5", 48}}) {
        const auto finished =
            device_.run({"thumbnail", kNotes, "-o", target("b.png"), "--force"},
                        {{"TARNWELL_DEVICE_CLASS", row.deviceClass}, {"TARNWELL_SCREEN_SCALE", row.scale}});
        EXPECT_EQ(finished.status, 0) << finished.error;
        EXPECT_TRUE(isPng(readFile(target("b.png")), row.side)) << row.deviceClass << " " << row.scale;
    }
}

TEST_F(ThumbnailVerb, DrawsEveryApplicationsIconAlsoWhereItHasNone) {
    makeDirectories(target("icons"));
    // Their icons are an SVG, PNGs of some sizes, a PNG by path, and a path that leads nowhere.
    const auto lines = succeed({"--json", "thumbnail", kNotes, "#org.example.Sketches", "#net.example.Maps",
                                "#snap.scanner", "-o", target("icons"), "--size", "100"});
    ASSERT_EQ(lines.size(), 4u);
    for (const std::string name : {"org.example.Notes", "org.example.Sketches", "net.example.Maps", "snap.scanner"}) {
        EXPECT_TRUE(isPng(readFile(target("icons/" + name + ".png")), 100)) << name;
    }
    const auto first = nlohmann::json::parse(lines[0]);
    EXPECT_EQ(first["item"], kNotes);
    EXPECT_EQ(first["file"], target("icons/org.example.Notes.png"));
    EXPECT_EQ(first["typeIdentifier"], "image/png");
    EXPECT_EQ(first["width"], 100);
    EXPECT_EQ(first["height"], 100);
    EXPECT_EQ(first["size"], files::file_size(target("icons/org.example.Notes.png")));
}

TEST_F(ThumbnailVerb, TakesAPathToALibraryAndWritesToTheStandardOutput) {
    const std::string path = device_.note("");
    const auto finished = device_.run({"thumbnail", path.substr(0, path.size() - 1), "-o", "-"});
    EXPECT_EQ(finished.status, 0) << finished.error;
    EXPECT_EQ(finished.error, "");
    EXPECT_TRUE(isPng(finished.output, 48));
}

TEST_F(ThumbnailVerb, TheSecondTimeThePictureComesFromTheCache) {
    succeed({"thumbnail", kNotes, "-o", target("a.png")});
    const std::string cache = device_.path("home/.cache/tarnwell/icons");
    ASSERT_EQ(std::distance(files::directory_iterator(cache), files::directory_iterator()), 1);
    const std::string kept = files::directory_iterator(cache)->path();
    EXPECT_EQ(readFile(kept), readFile(target("a.png")));
    // A sound picture in its place is what is given then: nothing is drawn.
    const auto maps = device_.run({"thumbnail", "#net.example.Maps", "-o", "-"});
    writeFile(kept, maps.output);
    EXPECT_EQ(device_.run({"thumbnail", kNotes, "-o", "-"}).output, maps.output);
}

TEST_F(ThumbnailVerb, ReplacesNothingUnlessItIsTold) {
    writeFile(target("a.png"), "mine");
    const auto before = everything();
    EXPECT_EQ(complaint({"thumbnail", kNotes, "-o", target("a.png")}),
              "cannot write \"" + target("a.png") + "\": it is there already; --force replaces it");
    EXPECT_EQ(readFile(target("a.png")), "mine");
    files::create_symlink("a.png", target("link.png"));
    EXPECT_EQ(device_.run({"thumbnail", kNotes, "-o", target("link.png")}).status, 1);
    succeed({"thumbnail", kNotes, "-o", target("link.png"), "--force"});
    EXPECT_EQ(readFile(target("a.png")), "mine");
    EXPECT_FALSE(files::is_symlink(target("link.png")));
    succeed({"thumbnail", kNotes, "-o", target("a.png"), "--force"});
    EXPECT_TRUE(isPng(readFile(target("a.png")), 48));
    for (const auto& entry : files::directory_iterator(device_.path("."))) {
        const std::string name = entry.path().filename();
        EXPECT_TRUE(!name.starts_with(".tarnwell-") || name == tour::kMarkerName) << name;
    }
    for (const std::string& changed : changedSince(before)) {
        EXPECT_TRUE(changed.starts_with(device_.path("home/.cache"))) << changed;
    }
}

TEST_F(ThumbnailVerb, SaysWhatHasNone) {
    const std::string letter = device_.document("Letter.txt");
    for (const std::string& item :
         {letter, device_.idOf(letter), std::string("root"), std::string("workingset"), device_.document("Folder")}) {
        EXPECT_EQ(
            complaint({"thumbnail", item, "-o", target("a.png")}),
            "cannot make a thumbnail of \"" + item + "\": only app libraries have one; \"tarnwell apps\" lists them");
    }
    EXPECT_TRUE(complaint({"thumbnail", "#org.example.None", "-o", target("a.png")})
                    .starts_with("cannot make a thumbnail of \"#org.example.None\": there is no such item"));
    EXPECT_FALSE(exists(target("a.png")));
}

TEST_F(ThumbnailVerb, OneThatFailsKeepsNoOtherFromBeingDone) {
    makeDirectories(target("icons"));
    const auto finished = device_.run({"--json", "thumbnail", "root", kNotes, "did=1", "-o", target("icons")});
    EXPECT_EQ(finished.status, 1);
    const auto lines = finished.json();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0]["item"], "root");
    EXPECT_TRUE(lines[0].contains("error"));
    EXPECT_EQ(lines[1]["file"], target("icons/org.example.Notes.png"));
    EXPECT_TRUE(lines[2].contains("error"));
    EXPECT_TRUE(finished.error.ends_with("tarnwell: cannot make a thumbnail of 2 of 3 items\n")) << finished.error;
}

TEST_F(ThumbnailVerb, AHostileIconIsOneClearFailureAndNothingIsWritten) {
    const std::string icon = device_.path("home/Apps/Maps/icon.png");
    const std::string png = readFile(icon);
    std::string billion = png;
    billion.replace(16, 8, std::string("\0\0\x7B\x87\0\0\x7B\x87", 8));
    for (const std::string& content :
         {png.substr(0, png.size() / 2), billion, std::string("<svg xmlns=\"http://www.w3.org/2000/svg\"><g>")}) {
        writeFile(icon, content);
        EXPECT_EQ(complaint({"thumbnail", "#net.example.Maps", "-o", target("a.png")}),
                  "cannot make a thumbnail of \"#net.example.Maps\": its icon cannot be drawn; \"tarnwell -v "
                  "thumbnail\" says why");
        EXPECT_FALSE(exists(target("a.png")));
    }
    // What is no icon at all is as good as none.
    ASSERT_EQ(::unlink(icon.c_str()), 0);
    ASSERT_EQ(::mkfifo(icon.c_str(), 0600), 0);
    succeed({"thumbnail", "#net.example.Maps", "-o", target("a.png")});
    EXPECT_TRUE(isPng(readFile(target("a.png")), 48));
}

TEST_F(ThumbnailVerb, WrongUsageIsToldBeforeAnythingIsDone) {
    struct Row {
        Arguments arguments;
        std::string complaint;
    };
    for (const Row& row :
         {Row{{"thumbnail", kNotes, kNotes, "-o", target("a.png")},
              "several thumbnails need a folder that is there; name it with -o"},
          {{"thumbnail", kNotes, kNotes, "-o", "-"}, "several thumbnails need a folder that is there; name it with -o"},
          {{"--json", "thumbnail", kNotes, "-o", "-"}, "with --json the standard output is taken; name a file with -o"},
          {{"thumbnail", kNotes, "-o", ""}, "-o needs a file or a folder"},
          {{"thumbnail", kNotes, "-o", target("none/")}, "-o names a folder that is not there"}}) {
        EXPECT_EQ(complaint(row.arguments, 2), row.complaint);
    }
    for (const Arguments& arguments : {Arguments{"thumbnail", kNotes},
                                       {"thumbnail", "-o", "x"},
                                       {"thumbnail", kNotes, "-o", "x", "--size", "0"},
                                       {"thumbnail", kNotes, "-o", "x", "--size", "1025"},
                                       {"thumbnail", kNotes, "-o", "x", "--size", "big"}}) {
        EXPECT_EQ(device_.run(arguments).status, 2);
    }
    const auto nowhere = complaint({"thumbnail", kNotes, "-o", target("none/a.png")});
    EXPECT_TRUE(nowhere.starts_with("cannot write \"" + target("none/a.png") + "\": POSIX ENOENT")) << nowhere;
}

// refresh

TEST_F(ThumbnailVerb, RefreshTellsWhichLibrariesCameAndWent) {
    EXPECT_EQ(succeed({"apps"}).size(), 5u);
    EXPECT_EQ(succeed({"refresh"}), Arguments{"Nothing changed: 4 app libraries."});
    writeFile(device_.path("home/.local/share/applications/net.example.New.desktop"),
              "[Desktop Entry]\nType=Application\nName=New\nX-Tarnwell-DataContainer=~/New\n"
              "X-Tarnwell-SupportsDocumentBrowser=true\n");
    makeDirectories(device_.path("home/New/Documents"));
    files::remove(device_.path("home/.local/share/applications/net.example.Maps.desktop"));
    EXPECT_EQ(succeed({"refresh"}),
              (Arguments{"added  #net.example.New  " + device_.path("home/New/Documents"),
                         "removed  #net.example.Maps  " + device_.path("home/Apps/Maps/Documents")}));
    EXPECT_EQ(succeed({"refresh"}), Arguments{"Nothing changed: 4 app libraries."});
}

TEST_F(ThumbnailVerb, RefreshTellsItAsJson) {
    succeed({"apps"});
    EXPECT_EQ(succeed({"--json", "refresh"}), Arguments{"{\"appLibraries\":4,\"changed\":false}"});
    files::rename(device_.path("home/Apps/Maps"), device_.path("home/Apps/Other"));
    auto finished = device_.run({"--json", "refresh"});
    auto lines = finished.json();
    ASSERT_EQ(lines.size(), 2u) << finished.output;
    EXPECT_EQ(lines[0]["removed"], "#net.example.Maps");
    EXPECT_EQ(lines[1]["appLibraries"], 3);
    EXPECT_EQ(lines[1]["changed"], true);
    files::rename(device_.path("home/Apps/Other"), device_.path("home/Apps/Maps"));
    lines = device_.run({"--json", "refresh"}).json();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0]["added"]["itemIdentifier"], "#net.example.Maps");
    EXPECT_EQ(lines[0]["added"]["filename"], "Maps");
}

TEST_F(ThumbnailVerb, RefreshOnANewDeviceAddsEveryLibrary) {
    const auto lines = device_.run({"--json", "refresh"}).json();
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(lines.back()["appLibraries"], 4);
}

// default-container

TEST_F(ThumbnailVerb, DefaultContainerShowsTheApplicationsLibrary) {
    for (const std::string bundle : {"org.example.Notes", "#org.example.Notes"}) {
        const auto finished = device_.run({"--json", "default-container", bundle});
        EXPECT_EQ(finished.status, 0) << finished.error;
        EXPECT_EQ(finished.output, device_.run({"--json", "info", kNotes}).output);
    }
    EXPECT_EQ(device_.run({"default-container", "org.example.Notes"}).output, device_.run({"info", kNotes}).output);
}

TEST_F(ThumbnailVerb, DefaultContainerOfAnUnknownApplicationIsOneClearLine) {
    for (const std::string bundle : {"org.example.None", "root", "../x", ""}) {
        EXPECT_EQ(complaint({"default-container", bundle}),
                  "there is no default container for \"" + bundle +
                      "\": no such application is installed; \"tarnwell apps\" lists those that have one");
    }
    files::remove_all(device_.path("home/Apps/Maps/Documents"));
    EXPECT_EQ(complaint({"default-container", "net.example.Maps"}),
              "there is no default container for \"net.example.Maps\": that application keeps no documents here; "
              "\"tarnwell apps\" lists those that have one");
}

}  // namespace
}  // namespace tarnwell::testing
