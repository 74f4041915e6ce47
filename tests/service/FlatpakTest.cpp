#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "bus/client/BusSession.h"
#include "testing/FlatpakHome.h"
#include "testing/PrivateBus.h"
#include "testing/WaitingProcess.h"
#include "tour/ChildProcess.h"

/// Real Flatpaks, run by the real flatpak in its sandbox and behind its bus proxy, ask the program that serves.
namespace tarnwell::service {
namespace {

namespace disk = std::filesystem;
using Lines = std::vector<std::string>;

constexpr const char* kNoSuchItem = "org.tarnwell.Error.NoSuchItem";
constexpr const char* kNothingThere = "org.tarnwell.Error.Posix.ENOENT";
constexpr const char* kDenied = "org.tarnwell.Error.Posix.EACCES";
constexpr const char* kWrongParameter = "org.tarnwell.Error.InvalidParameter";

class FlatpakTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!testing::FlatpakHome::isFlatpakInstalled()) GTEST_SKIP() << "flatpak is not installed";
        std::string reason;
        if (!testing::canMakeSandboxes(reason)) GTEST_SKIP() << reason;
        ASSERT_EQ(flatpak_.begin({TARNWELL_ASKER}), "");
        const std::string talks = "--talk-name=org.tarnwell.Host1", keeps = "--persist=Documents ";
        ASSERT_NO_FATAL_FAILURE(install("Notes", keeps + talks));
        ASSERT_NO_FATAL_FAILURE(install("Maps", keeps + talks));
        testing::writeFile(document("Letter about the harbour.txt"), "the host's");
        testing::writeFile(note("Note about the harbour.txt"), "of Notes");
        testing::writeFile(map("Map of the harbour.txt"), "of Maps");
        testing::makeDirectories(map("Folder"));
    }

    /// An application that keeps documents has the folder for them from its first run on.
    void install(const std::string& name, const std::string& permissions) const {
        ASSERT_EQ(flatpak_.publish("org.example." + name, name, permissions), "");
        ASSERT_EQ(flatpak_.install("org.example." + name), "");
        if (permissions.contains("--persist")) testing::makeDirectories(flatpak_.document("org.example." + name, ""));
    }
    void serve() {
        tour::EnvironmentChanges environment{{"DBUS_SESSION_BUS_ADDRESS", bus_.address()}};
        for (const char* name : {"XDG_DATA_HOME", "XDG_STATE_HOME", "XDG_CACHE_HOME", "XDG_CONFIG_HOME",
                                 "FLATPAK_USER_DIR", "TARNWELL_STORAGE"}) {
            environment[name] = std::nullopt;
        }
        for (const auto& [name, value] : flatpak_.variables()) environment[name] = value;
        // Which questions had no answer is told to who asked.
        environment["TARNWELL_LOG"] = "off";
        auto started = tour::FollowedProgram::start({TARNWELL_PROGRAM, "serve"}, environment);
        ASSERT_TRUE(started) << describe(started.error());
        service_.emplace(std::move(*started));
        for (int i = 0; i < 2000 && !host_; ++i) {
            if (i > 0) ::usleep(10'000);
            auto connected = bus::BusSession::connect(bus::BusSession::Start::never, bus_.address());
            if (connected) host_ = std::move(*connected);
        }
        ASSERT_TRUE(host_) << "the service does not come";
    }

    /// The lines that the asker prints, run as that application.
    Lines askAs(const std::string& name, const Lines& questions) const {
        // Flatpak lets no program look into another one, which is how leaks are looked for.
        std::string arguments = "run --env=ASAN_OPTIONS=detect_leaks=0 --command=tarnwell-asker org.example." + name +
                                " unix:path=/run/flatpak/bus";
        for (const std::string& word : questions) arguments += " '" + word + "'";
        EXPECT_EQ(flatpak_.run(arguments), "");
        std::istringstream printed(flatpak_.printed());
        Lines lines;
        for (std::string line; std::getline(printed, line);) lines.push_back(line);
        return lines;
    }

    std::string idOf(const std::string& path) const {
        const auto found = host_->identifiersAtPaths({path}, session::PathUse::lookUp).at(0);
        EXPECT_TRUE(found) << path;
        return found.value_or("");
    }
    std::string document(const std::string& name) const { return flatpak_.home() + "/Documents/" + name; }
    std::string note(const std::string& name) const { return flatpak_.document("org.example.Notes", name); }
    std::string map(const std::string& name) const { return flatpak_.document("org.example.Maps", name); }

    /// Asks everything as an application with one document, of which it is told what and where.
    void expectOnlyItsOwn(const std::string& application, const std::string& fileName) const {
        const std::string identifier = "org.example." + application, library = "#" + identifier;
        const std::string path = flatpak_.document(identifier, fileName), own = idOf(path);
        const std::string content = testing::readFile(path);
        std::vector<std::string> foreign{idOf(document("Letter about the harbour.txt")), "RootContainer",
                                         "did=99999999", "fid=99999999"};
        std::vector<std::string> foreignPaths{document(""), document("Letter about the harbour.txt"), "/etc/passwd",
                                              flatpak_.document(identifier, "nothing.txt"), flatpak_.home()};
        for (const std::string other : {"Notes", "Maps"}) {
            if (other == application) continue;
            const std::string name = other == "Notes" ? "Note about the harbour.txt" : "Map of the harbour.txt";
            const std::string otherPath = flatpak_.document("org.example." + other, name);
            foreign.insert(foreign.end(), {idOf(otherPath), "#org.example." + other});
            foreignPaths.insert(foreignPaths.end(), {otherPath, flatpak_.document("org.example." + other, "")});
        }
        const std::string folder = idOf(map("Folder"));
        if (application != "Maps") foreign.push_back(folder);

        Lines questions, expected;
        const auto add = [&](const std::string& question, const std::string& about, const std::string& answer) {
            questions.insert(questions.end(), {question, about});
            expected.push_back(question + " " + about + ": " + answer);
        };
        for (const char* question :
             {"item", "enumerate", "anchor", "changes", "changesSinceNow", "watch", "open", "write", "read",
              "overwrite", "makeFolder", "rename", "tag", "rank", "used", "trash", "restore", "delete", "thumbnail"}) {
            for (const auto& about : foreign) add(question, about, kNoSuchItem);
        }
        for (const auto& about : foreign) {
            // Another's into its own, and its own into another's.
            add("move", about + " " + library, kNoSuchItem);
            add("move", own + " " + about, kNoSuchItem);
            add("restore", own + " " + about, kNoSuchItem);
        }
        for (const auto& foreignPath : foreignPaths) add("path", foreignPath, kNothingThere);
        for (const char* view : {"WorkingSetContainer", "AllDirectoriesContainer"}) {
            for (const char* question : {"enumerate", "anchor", "changesSinceNow", "watch"}) {
                add(question, view, kNoSuchItem);
            }
        }
        for (const char* question : {"status", "refresh", "clean"}) add(question, "", kDenied);
        for (const auto& about : {library, std::string("RootContainer")}) add("import", about, kDenied);
        add("default", application == "Maps" ? "org.example.Notes" : "org.example.Maps", kWrongParameter);
        add("search", "letter", "ok");
        add("search", "nothing", "ok");
        // Its own.
        add("search", "harbour", "ok " + fileName);
        add("applications", "", "ok " + library);
        add("default", identifier, "ok");
        add("path", path, "ok");
        for (const char* question : {"item", "enumerate", "anchor", "changesSinceNow", "watch", "thumbnail"}) {
            add(question, library, "ok");
        }
        add("read", own, "ok " + content);
        for (const char* question : {"item", "open", "write", "overwrite", "tag", "rank", "used"}) {
            add(question, own, "ok");
        }
        add("read", own, "ok written in the sandbox");
        add("makeFolder", library, "ok");
        add("rename", own, "ok");
        add("trash", own, "ok");
        add("restore", own, "ok");
        add("move", own + " " + library, "ok");
        const Lines answers = askAs(application, questions);
        for (std::size_t i = 0; i < expected.size(); ++i) {
            EXPECT_EQ(i < answers.size() ? answers[i] : "no answer", expected[i]);
        }
        ASSERT_EQ(answers.size(), expected.size());
        ASSERT_FALSE(HasFailure());
        const std::string moved = flatpak_.document(identifier, "Moved.txt");
        EXPECT_EQ(testing::readFile(moved), "written in the sandbox");
        EXPECT_EQ(idOf(moved), own);
        EXPECT_EQ(askAs(application, {"delete", own}), Lines{"delete " + own + ": ok"});
        EXPECT_FALSE(disk::exists(moved));
    }

    testing::PrivateBus bus_;
    testing::FlatpakHome flatpak_{bus_.address()};
    std::optional<tour::FollowedProgram> service_;
    std::unique_ptr<bus::BusSession> host_;
};

TEST_F(FlatpakTest, SeesItsOwnLibraryAndNothingElse) {
    ASSERT_NO_FATAL_FAILURE(serve());
    ASSERT_NO_FATAL_FAILURE(expectOnlyItsOwn("Notes", "Note about the harbour.txt"));
    EXPECT_EQ(testing::readFile(map("Map of the harbour.txt")), "of Maps");
    EXPECT_EQ(testing::readFile(document("Letter about the harbour.txt")), "the host's");
}

TEST_F(FlatpakTest, AndAnotherOneSeesTheOther) {
    ASSERT_NO_FATAL_FAILURE(serve());
    ASSERT_NO_FATAL_FAILURE(expectOnlyItsOwn("Maps", "Map of the harbour.txt"));
    EXPECT_EQ(testing::readFile(note("Note about the harbour.txt")), "of Notes");
    EXPECT_EQ(testing::readFile(document("Letter about the harbour.txt")), "the host's");
}

TEST_F(FlatpakTest, SeesNoMoreWhereItHasTheWholeBus) {
    // Then no proxy stands between, and the bus names the application's own process.
    ASSERT_NO_FATAL_FAILURE(install("Direct", "--persist=Documents --socket=session-bus"));
    testing::writeFile(flatpak_.document("org.example.Direct", "Plan of the harbour.txt"), "of Direct");
    ASSERT_NO_FATAL_FAILURE(serve());
    ASSERT_NO_FATAL_FAILURE(expectOnlyItsOwn("Direct", "Plan of the harbour.txt"));
    EXPECT_EQ(testing::readFile(note("Note about the harbour.txt")), "of Notes");
    EXPECT_EQ(testing::readFile(map("Map of the harbour.txt")), "of Maps");
    EXPECT_EQ(testing::readFile(document("Letter about the harbour.txt")), "the host's");
}

TEST_F(FlatpakTest, ThatMayNotTalkToTheServiceGetsNothing) {
    ASSERT_NO_FATAL_FAILURE(install("Quiet", "--persist=Documents"));
    testing::writeFile(flatpak_.document("org.example.Quiet", "Quiet harbour.txt"), "of Quiet");
    ASSERT_NO_FATAL_FAILURE(serve());
    const std::string own = idOf(flatpak_.document("org.example.Quiet", "Quiet harbour.txt"));
    EXPECT_EQ(askAs("Quiet", {"item", own, "read", own, "search", "harbour"}),
              Lines{"refused: org.tarnwell.Error.Posix.ECONNREFUSED"});
}

TEST_F(FlatpakTest, ThatKeepsNoDocumentsSeesNothing) {
    ASSERT_NO_FATAL_FAILURE(install("Bare", "--talk-name=org.tarnwell.Host1"));
    // A folder of that name alone makes no library.
    testing::makeDirectories(flatpak_.document("org.example.Bare", ""));
    testing::writeFile(flatpak_.document("org.example.Bare", "Bare harbour.txt"), "of Bare");
    ASSERT_NO_FATAL_FAILURE(serve());
    const std::string letter = idOf(document("Letter about the harbour.txt"));
    EXPECT_EQ(
        askAs("Bare", {"item", letter, "item", "#org.example.Bare", "item", "#org.example.Notes", "enumerate",
                       "RootContainer", "search", "harbour", "applications", ""}),
        (Lines{"item " + letter + ": " + kNoSuchItem, std::string("item #org.example.Bare: ") + kNoSuchItem,
               std::string("item #org.example.Notes: ") + kNoSuchItem,
               std::string("enumerate RootContainer: ") + kNoSuchItem, "search harbour: ok", "applications : ok"}));
}

}  // namespace
}  // namespace tarnwell::service
