#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <set>
#include <thread>

#include "platform/files/ChangeTime.h"
#include "tests/cli/Program.h"

namespace tarnwell::testing {
namespace {

namespace disk = std::filesystem;
using nlohmann::json;
using Texts = std::vector<std::string>;

std::string anchorOf(const Device& device, const std::string& item = "root") {
    const auto finished = device.run({"anchor", item});
    EXPECT_EQ(finished.status, 0) << finished.error;
    const auto lines = finished.lines();
    EXPECT_EQ(lines.size(), 1u);
    return lines.empty() ? "" : lines.front();
}

/// Until nothing that was done so far is too young to be told of once only: what changes while it is looked at may be
/// told of twice.
void waitUntilSettled() {
    const auto now = tarnwell::files::stampingClock();
    while (!tarnwell::files::isSettled(now, tarnwell::files::stampingClock())) std::this_thread::yield();
}

/// What `--json changes` said.
struct Told {
    Texts updates;    ///< names
    Texts deletions;  ///< identifiers
    std::vector<bool> moreComing;
    std::string anchor;  ///< the last one
};

Told changesSince(const Device& device, const std::string& item, const std::string& since) {
    const auto finished = device.run({"--json", "changes", item, "--since", since});
    EXPECT_EQ(finished.status, 0) << finished.error;
    EXPECT_EQ(finished.error, "");
    Told told;
    for (const auto& line : finished.json()) {
        if (line.contains("update")) {
            EXPECT_EQ(line.size(), 1u);
            told.updates.push_back(line["update"]["filename"]);
        } else if (line.contains("delete")) {
            EXPECT_EQ(line.size(), 1u);
            told.deletions.push_back(line["delete"]);
        } else {
            EXPECT_EQ(line.size(), 2u) << line;
            told.anchor = line.value("anchor", "");
            told.moreComing.push_back(line.value("moreComing", false));
        }
    }
    return told;
}

/// What is refused: one line on standard error, and with --json one object on standard output.
void expectExpired(const Device& device, const std::string& item, const std::string& since) {
    const auto human = device.run({"changes", item, "--since", since});
    EXPECT_EQ(human.status, 3);
    EXPECT_EQ(human.output, "");
    EXPECT_TRUE(human.error.starts_with("tarnwell: ")) << human.error;
    EXPECT_EQ(std::ranges::count(human.error, '\n'), 1) << human.error;
    EXPECT_NE(human.error.find("tarnwell anchor"), std::string::npos) << human.error;

    const auto finished = device.run({"--json", "changes", item, "--since", since});
    EXPECT_EQ(finished.status, 3);
    EXPECT_EQ(std::ranges::count(finished.error, '\n'), 1) << finished.error;
    const auto lines = finished.json();
    ASSERT_EQ(lines.size(), 1u) << finished.output;
    ASSERT_TRUE(lines[0].contains("error")) << lines[0];
    EXPECT_EQ(lines[0]["error"]["code"], -1002);
    EXPECT_EQ(lines[0]["error"]["domain"], "host error");
    EXPECT_FALSE(lines[0]["error"]["message"].get<std::string>().empty());
}

TEST(Changes, AreOneObjectALineThenTheAnchor) {
    Device device;
    const auto letter = device.idOf(device.document("Letter.txt"));
    ASSERT_TRUE(letter.starts_with("did="));
    const auto since = anchorOf(device);
    EXPECT_TRUE(changesSince(device, "root", since).updates.empty());
    disk::remove(device.document("Letter.txt"));
    writeFile(device.document("New.txt"), "new");
    writeFile(device.note("Groceries.md"), "milk");
    waitUntilSettled();

    const auto finished = device.run({"--json", "changes", "root", "--since", since});
    ASSERT_EQ(finished.status, 0) << finished.error;
    const auto lines = finished.json();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back()["moreComing"], false);
    const auto update = std::ranges::find_if(
        lines, [](const json& line) { return line.contains("update") && line["update"]["filename"] == "New.txt"; });
    ASSERT_NE(update, lines.end());
    // The very item that `info` shows.
    EXPECT_EQ((*update)["update"], device.info(device.document("New.txt")));

    const auto told = changesSince(device, "root", since);
    EXPECT_EQ(told.deletions, Texts{letter});
    EXPECT_EQ(std::ranges::count(told.updates, "New.txt"), 1);
    EXPECT_EQ(std::ranges::count(told.updates, "Groceries.md"), 1);
    EXPECT_EQ(told.moreComing, std::vector<bool>{false});

    const auto none = changesSince(device, "root", told.anchor);
    EXPECT_TRUE(none.updates.empty()) << ::testing::PrintToString(none.updates);
    EXPECT_TRUE(none.deletions.empty());
    EXPECT_EQ(none.moreComing, std::vector<bool>{false});
    EXPECT_FALSE(none.anchor.empty());
}

TEST(Changes, AreALineEachForPeople) {
    Device device;
    const auto letter = device.idOf(device.document("Letter.txt"));
    const auto since = anchorOf(device);
    const auto quiet = device.run({"changes", "--since", since});
    ASSERT_EQ(quiet.status, 0) << quiet.error;
    ASSERT_EQ(quiet.lines().size(), 1u) << quiet.output;
    EXPECT_TRUE(quiet.lines()[0].starts_with("anchor  "));

    disk::remove(device.document("Letter.txt"));
    writeFile(device.document("two\nlines"), "new");
    waitUntilSettled();
    const auto finished = device.run({"changes", "root", "--since", since});
    ASSERT_EQ(finished.status, 0) << finished.error;
    EXPECT_EQ(finished.error, "");
    auto lines = finished.lines();
    ASSERT_EQ(lines.size(), 3u) << finished.output;
    const std::string anchor = lines.back();
    lines.pop_back();
    std::ranges::sort(lines);
    EXPECT_EQ(lines, (Texts{"delete  " + letter, "update  " + device.idOf(device.document("two\nlines")) + "  " +
                                                     device.document("two\\nlines")}));
    ASSERT_TRUE(anchor.starts_with("anchor  "));
    const auto again = device.run({"changes", "root", "--since", anchor.substr(8)});
    EXPECT_EQ(again.lines().size(), 1u) << again.output;
    // As a shell keeps it.
    EXPECT_EQ(device.run({"changes", "root", "--since", anchor.substr(8) + "\n"}).status, 0);
}

TEST(Changes, Of450ComeInThreeBatchesAndEachOnce) {
    Device device;
    const auto folder = device.document("Folder");
    makeDirectories(folder);
    const auto since = anchorOf(device, folder);
    std::multiset<std::string> created;
    for (int i = 0; i < 450; ++i) {
        created.insert("new" + std::to_string(i));
        writeFile(folder + "/new" + std::to_string(i), "");
    }
    waitUntilSettled();
    const auto told = changesSince(device, folder, since);
    EXPECT_EQ(told.moreComing, (std::vector<bool>{true, true, false}));
    EXPECT_EQ(std::multiset<std::string>(told.updates.begin(), told.updates.end()), created);
    const auto human = device.run({"changes", folder, "--since", since});
    EXPECT_EQ(human.lines().size(), 451u);
    EXPECT_TRUE(changesSince(device, folder, told.anchor).updates.empty());
}

TEST(Changes, SinceATextThatIsNoAnchorEndWithStatusThree) {
    Device device;
    const auto since = anchorOf(device);
    const Texts rows = {"no base64!",
                        "!",
                        "a",
                        "AAAA=",
                        "AB==",
                        "AAAA",
                        "AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA",
                        since.substr(0, since.size() / 2),
                        since + since};
    for (const auto& row : rows) {
        SCOPED_TRACE(row);
        expectExpired(device, "root", row);
    }
    EXPECT_EQ(device.run({"changes", "root", "--since", since}).status, 0);
}

TEST(Changes, SinceNothingEndWithStatusThree) {
    // What a script gives whose file of the last anchor is empty: going on from now would lose what happened meanwhile.
    Device device;
    for (const char* since : {"", " \n"}) expectExpired(device, "root", since);
}

TEST(Changes, SinceAnAnchorOfAnotherStoreEndWithStatusThree) {
    Device device, other;
    const auto since = anchorOf(device);
    expectExpired(other, "root", since);
    ASSERT_GT(disk::remove_all(device.storeFolder()), 0u);
    expectExpired(device, "root", since);
    EXPECT_EQ(device.run({"changes", "root", "--since", anchorOf(device)}).status, 0);
}

TEST(Changes, WithoutAnAnchorAreWrongUsage) {
    Device device;
    for (const Texts& arguments : {Texts{"changes"}, Texts{"changes", "root"}, Texts{"--json", "changes", "root"},
                                   Texts{"changes", "root", "--since"}}) {
        SCOPED_TRACE(::testing::PrintToString(arguments));
        const auto finished = device.run(arguments);
        EXPECT_EQ(finished.status, 2);
        EXPECT_EQ(finished.output, "");
        EXPECT_TRUE(finished.error.starts_with("tarnwell: ")) << finished.error;
        EXPECT_NE(finished.error.find("--since"), std::string::npos) << finished.error;
        EXPECT_EQ(std::ranges::count(finished.error, '\n'), 1) << finished.error;
    }
}

TEST(Changes, OfAContainerThatIsNotThereFail) {
    Device device;
    const auto since = anchorOf(device);
    for (const std::string& item : {device.document("No such folder"), std::string("fid=123456789"),
                                    std::string("#no.such.application"), std::string("no such thing")}) {
        SCOPED_TRACE(item);
        for (const Texts& further : {Texts{"--since", since}, Texts{"--follow"}}) {
            Texts arguments{"changes", item};
            arguments.insert(arguments.end(), further.begin(), further.end());
            const auto finished = device.run(arguments);
            EXPECT_EQ(finished.status, 1);
            EXPECT_EQ(finished.output, "");
            EXPECT_TRUE(finished.error.starts_with("tarnwell: ")) << finished.error;
            EXPECT_EQ(std::ranges::count(finished.error, '\n'), 1) << finished.error;
        }
    }
}

/// Reads objects until one tells of an update of that name, then on to the anchor of its batch; returns that anchor.
std::string followTo(ChildProgram& program, const std::string& name) {
    bool isTold = false;
    for (int i = 0; i < 1000; ++i) {
        const auto line = program.readLine();
        if (!line) break;
        const auto object = json::parse(*line, nullptr, false);
        if (object.is_discarded()) break;
        if (object.contains("update")) isTold |= object["update"]["filename"] == name;
        if (isTold && object.contains("anchor")) return object["anchor"];
    }
    ADD_FAILURE() << name << " was not told of";
    return "";
}

TEST(Changes, FollowedAreToldAsTheyComeUntilTheProgramIsAskedToEnd) {
    Device device;
    for (const int signal : {SIGTERM, SIGINT}) {
        SCOPED_TRACE(signal);
        auto program = device.start({"--json", "changes", "root", "--follow"});
        const auto first = program.readLine();
        ASSERT_TRUE(first);
        const auto opening = json::parse(*first, nullptr, false);
        ASSERT_TRUE(opening.contains("anchor")) << *first;
        EXPECT_EQ(opening["moreComing"], false);

        const std::string name = "live" + std::to_string(signal) + ".txt", later = "later" + name;
        writeFile(device.document(name), "text");
        followTo(program, name);
        writeFile(device.note(later), "text");
        const auto anchor = followTo(program, later);
        program.sendSignal(signal);
        const auto finished = program.finish();
        EXPECT_EQ(finished.status, 0) << finished.error;
        EXPECT_EQ(finished.error, "");
        for (const auto& line : finished.json()) {
            EXPECT_TRUE(line.contains("update") || line.contains("anchor")) << line;
        }
        // The last anchor stands behind all of it, but for what was written while it was looked at.
        const auto rest = changesSince(device, "root", anchor);
        for (const auto& update : rest.updates) EXPECT_EQ(update, later);
        EXPECT_TRUE(rest.deletions.empty());
    }
}

TEST(Changes, WhoIsAskedToEndWhileMuchIsToldTellsOfNoError) {
    Device device;
    for (int i = 0; i < 20; ++i) {
        auto program = device.start({"--json", "changes", "root", "--follow"});
        ASSERT_TRUE(program.readLine());
        std::atomic<bool> goesOn = true;
        std::thread writer([&] {
            for (int file = 0; goesOn; ++file) writeFile(device.document("f" + std::to_string(file % 50)), "text");
        });
        ::usleep(static_cast<useconds_t>(20'000 + i * 3'000));
        program.sendSignal(SIGINT);
        const auto finished = program.finish();
        goesOn = false;
        writer.join();
        EXPECT_EQ(finished.status, 0) << finished.error;
        EXPECT_EQ(finished.error, "");
        for (const auto& line : finished.json()) {
            ASSERT_TRUE(line.contains("update") || line.contains("delete") || line.contains("anchor")) << line;
        }
    }
}

TEST(Changes, FollowedSinceAnAnchorBeginWithWhatWasMissed) {
    Device device;
    const auto since = anchorOf(device);
    writeFile(device.document("Missed.txt"), "text");
    auto program = device.start({"--json", "changes", "root", "--since", since, "--follow"});
    followTo(program, "Missed.txt");
    disk::rename(device.document("Missed.txt"), device.document("Renamed.txt"));
    followTo(program, "Renamed.txt");
    program.sendSignal(SIGTERM);
    EXPECT_EQ(program.finish().status, 0);

    const auto refused = device.run({"--json", "changes", "--follow", "--since", "no base64!"});
    EXPECT_EQ(refused.status, 3);
}

/// Reads objects until one tells that the identifier is gone.
bool followToDeletionOf(ChildProgram& program, const std::string& identifier) {
    for (int i = 0; i < 1000; ++i) {
        const auto line = program.readLine();
        if (!line) return false;
        const auto object = json::parse(*line, nullptr, false);
        if (object.is_discarded()) return false;
        if (object.contains("delete") && object["delete"] == identifier) return true;
    }
    return false;
}

TEST(Changes, FollowApplicationsThatComeAndGoWithWhatTheyHold) {
    const std::string entry = "home/.local/share/applications/net.example.Charts.desktop";
    for (const std::string container : {"root", "workingset"}) {
        SCOPED_TRACE(container);
        Device device;
        makeDirectories(device.path("home/Charts/Documents/folder"));
        writeFile(device.path("home/Charts/Documents/folder/Old.txt"), "text");
        auto program = device.start({"--json", "changes", container, "--follow"});
        ASSERT_TRUE(program.readLine());
        writeFile(device.path(entry),
                  "[Desktop Entry]\nType=Application\nName=Charts\nX-Tarnwell-DataContainer=~/Charts\n"
                  "X-Tarnwell-SupportsDocumentBrowser=true\n");
        if (container == "root") followTo(program, "Charts");
        if (container == "workingset") followTo(program, "Old.txt");
        // The new library is watched as the others are.
        writeFile(device.path("home/Charts/Documents/folder/New.txt"), "text");
        followTo(program, "New.txt");
        disk::remove(device.path(entry));
        EXPECT_TRUE(followToDeletionOf(program, "#net.example.Charts"));
        program.sendSignal(SIGTERM);
        EXPECT_EQ(program.finish().status, 0);
    }
}

TEST(Changes, FollowDocumentsFoldersThatAreMadeLater) {
    Device device;
    makeDirectories(device.path("home/Charts"));
    writeFile(device.path("home/.local/share/applications/net.example.Charts.desktop"),
              "[Desktop Entry]\nType=Application\nName=Charts\nX-Tarnwell-DataContainer=~/Charts\n"
              "X-Tarnwell-SupportsDocumentBrowser=true\n");
    auto program = device.start({"--json", "changes", "root", "--follow"});
    ASSERT_TRUE(program.readLine());
    makeDirectories(device.path("home/Charts/Documents"));
    followTo(program, "Charts");
    writeFile(device.path("home/Charts/Documents/First.txt"), "text");
    followTo(program, "First.txt");
    program.sendSignal(SIGTERM);
    EXPECT_EQ(program.finish().status, 0);
}

TEST(Changes, FollowDocumentsFoldersThatAreMadeAgain) {
    Device device;
    makeDirectories(device.path("home/Charts/Documents"));
    writeFile(device.path("home/Charts/Documents/Old.txt"), "text");
    writeFile(device.path("home/.local/share/applications/net.example.Charts.desktop"),
              "[Desktop Entry]\nType=Application\nName=Charts\nX-Tarnwell-DataContainer=~/Charts\n"
              "X-Tarnwell-SupportsDocumentBrowser=true\n");
    const auto former = device.idOf(device.path("home/Charts/Documents/Old.txt"));
    auto program = device.start({"--json", "changes", "root", "--follow"});
    ASSERT_TRUE(program.readLine());
    // Until the looks that belong to the start are over.
    makeDirectories(device.path("home/Plans/Documents"));
    writeFile(device.path("home/.local/share/applications/net.example.Plans.desktop"),
              "[Desktop Entry]\nType=Application\nName=Plans\nX-Tarnwell-DataContainer=~/Plans\n"
              "X-Tarnwell-SupportsDocumentBrowser=true\n");
    followTo(program, "Plans");
    // Nothing else happens then: that the folder is another one is all there is to notice.
    makeDirectories(device.path("home/Charts/next"));
    writeFile(device.path("home/Charts/next/New.txt"), "text");
    disk::remove_all(device.path("home/Charts/Documents"));
    disk::rename(device.path("home/Charts/next"), device.path("home/Charts/Documents"));
    followTo(program, "New.txt");
    writeFile(device.path("home/Charts/Documents/Later.txt"), "text");
    followTo(program, "Later.txt");
    program.sendSignal(SIGTERM);
    EXPECT_EQ(program.finish().status, 0);
    EXPECT_NE(device.run({"path", former}).status, 0);
}

TEST(Changes, FollowASnapFromRevisionToRevision) {
    Device device;
    const std::string snap = device.path("home/snap/scanner");
    const auto goTo = [&](const std::string& revision) {
        disk::create_symlink(revision, snap + "/next");
        disk::rename(snap + "/next", snap + "/current");
    };
    const auto copy = [&](const std::string& from, const std::string& to) {
        ASSERT_EQ(std::system(("cp -a '" + snap + "/" + from + "' '" + snap + "/" + to + "'").c_str()), 0);
    };
    const std::string receipt = snap + "/current/Documents/Receipt.pdf";
    const auto identifier = device.idOf(receipt);
    const auto since = anchorOf(device);

    copy("7", "8");
    goTo("8");
    EXPECT_EQ(device.idOf(receipt), identifier);
    EXPECT_EQ(device.run({"path", identifier}).output, receipt + "\n");
    const auto told = changesSince(device, "root", since);
    EXPECT_TRUE(told.deletions.empty()) << told.deletions.front();

    auto program = device.start({"--json", "changes", "root", "--follow"});
    ASSERT_TRUE(program.readLine());
    copy("8", "9");
    writeFile(snap + "/9/Documents/Invoice.pdf", "%PDF-1.4");
    goTo("9");
    followTo(program, "Invoice.pdf");
    writeFile(snap + "/9/Documents/Later.pdf", "%PDF-1.4");
    followTo(program, "Later.pdf");
    program.sendSignal(SIGTERM);
    EXPECT_EQ(program.finish().status, 0);
    EXPECT_EQ(device.idOf(receipt), identifier);
}

TEST(Changes, FollowedAreToldToPeopleToo) {
    Device device;
    auto program = device.start({"changes", "workingset", "--follow"});
    const auto skipTo = [&](const std::string& begin) {
        std::optional<std::string> line;
        do {
            line = program.readLine();
        } while (line && !line->starts_with(begin));
        return line;
    };
    ASSERT_TRUE(skipTo("anchor  "));
    writeFile(device.document("Live.txt"), "text");
    const auto line = skipTo("update  did=");
    ASSERT_TRUE(line);
    EXPECT_TRUE(line->ends_with("  " + device.document("Live.txt"))) << *line;
    program.sendSignal(SIGTERM);
    EXPECT_EQ(program.finish().status, 0);
}

}  // namespace
}  // namespace tarnwell::testing
