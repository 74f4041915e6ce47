#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <thread>

#include "tests/service/ServedDevice.h"

/// The whole service on a sample device, asked over a real bus by this process and by programs in sandboxes.
namespace tarnwell::service {
namespace {

using session::Session;

class ServiceTest : public ServedDevice {
protected:
    /// The lines that the asker prints; in a sandbox if `wrapper` says how to make it.
    std::vector<std::string> ask(const std::vector<std::string>& questions, std::vector<std::string> wrapper = {},
                                 const std::string& flatpakInfo = {}) const {
        std::vector<std::string> words = std::move(wrapper);
        words.insert(words.end(), {TARNWELL_ASKER, bus_.address()});
        words.insert(words.end(), questions.begin(), questions.end());
        std::array<int, 2> output{};
        EXPECT_EQ(::pipe2(output.data(), O_CLOEXEC), 0);
        const pid_t child = ::fork();
        if (child == 0) {
            if (!flatpakInfo.empty()) {
                const int info = ::memfd_create("info", 0);
                (void)!::write(info, flatpakInfo.data(), flatpakInfo.size());
                ::lseek(info, 0, SEEK_SET);
                ::dup2(info, 9);
            }
            ::dup2(output[1], STDOUT_FILENO);
            std::vector<char*> arguments;
            for (auto& word : words) arguments.push_back(word.data());
            arguments.push_back(nullptr);
            ::execvp(arguments[0], arguments.data());
            ::_exit(127);
        }
        ::close(output[1]);
        std::string text;
        std::array<char, 4096> buffer{};
        for (ssize_t got = 0; (got = ::read(output[0], buffer.data(), buffer.size())) > 0;) {
            text.append(buffer.data(), static_cast<std::size_t>(got));
        }
        ::close(output[0]);
        int status = 0;
        ::waitpid(child, &status, 0);
        EXPECT_EQ(status, 0) << text;
        std::vector<std::string> lines;
        for (std::size_t begin = 0; begin < text.size();) {
            const std::size_t end = text.find('\n', begin);
            lines.push_back(text.substr(begin, end - begin));
            begin = end + 1;
        }
        return lines;
    }

    /// How Flatpak has a sandbox made, with the bus and the asker in it.
    std::vector<std::string> sandbox() const {
        const std::string busFolder = bus_.address().substr(10, bus_.address().rfind('/') - 10);
        const std::string asker(TARNWELL_ASKER);
        const std::string folder = asker.substr(0, asker.rfind('/'));
        return {"bwrap", "--die-with-parent", "--unshare-user", "--ro-bind", "/usr", "/usr", "--symlink", "usr/bin",
                "/bin", "--symlink", "usr/lib", "/lib", "--symlink", "usr/lib64", "/lib64", "--dev", "/dev", "--proc",
                "/proc", "--bind", busFolder, busFolder, "--ro-bind", folder, folder,
                // What tells a sanitizer what it need not tell.
                "--ro-bind", TARNWELL_SOURCE_DIR "/tests", TARNWELL_SOURCE_DIR "/tests"};
    }
    std::vector<std::string> flatpakSandbox() const {
        auto words = sandbox();
        words.insert(words.end(), {"--ro-bind-data", "9", "/.flatpak-info"});
        return words;
    }
    static bool hasSandboxes() { return ::system("bwrap --unshare-user --ro-bind / / true 2>/dev/null") == 0; }
};

constexpr const char* kNotesInfo = "[Application]\nname=org.example.Notes\nruntime=runtime/org.example.Platform/x/1\n";
constexpr const char* kNoSuchItem = "org.tarnwell.Error.NoSuchItem";
constexpr const char* kNothingThere = "org.tarnwell.Error.Posix.ENOENT";
constexpr const char* kDenied = "org.tarnwell.Error.Posix.EACCES";

TEST_F(ServiceTest, AProgramOfTheHostSeesEverything) {
    testing::writeFile(note("mine.txt"), "n");
    const std::string mine = idOf(note("mine.txt")), letter = idOf(document("Letter.txt"));
    EXPECT_EQ(ask({"item", mine, "item", letter, "enumerate", "RootContainer", "open", letter, "tag", letter, "path",
                   document("Letter.txt"), "status", "", "search", "Letter"}),
              (std::vector<std::string>{"item " + mine + ": ok", "item " + letter + ": ok",
                                        "enumerate RootContainer: ok", "open " + letter + ": ok",
                                        "tag " + letter + ": ok", "path " + document("Letter.txt") + ": ok",
                                        "status : ok", "search Letter: ok Letter.txt"}));
}

TEST_F(ServiceTest, AFlatpakSeesItsOwnLibraryOnly) {
    if (!hasSandboxes()) GTEST_SKIP() << "bubblewrap makes no sandboxes here";
    testing::writeFile(note("mine.txt"), "n");
    const std::string mine = idOf(note("mine.txt")), letter = idOf(document("Letter.txt"));
    const std::string library = "#org.example.Notes", other = "#org.example.Sketches";
    std::vector<std::string> questions;
    std::vector<std::string> expected;
    const auto add = [&](const std::string& question, const std::string& about, const std::string& answer) {
        questions.insert(questions.end(), {question, about});
        expected.push_back(question + " " + about + ": " + answer);
    };
    // Every question about another's, the root, what is not there: as if it were not there.
    for (const char* question : {"item", "enumerate", "anchor", "changes", "watch", "open", "write", "makeFolder",
                                 "rename", "tag", "rank", "used", "trash", "restore", "move", "delete", "thumbnail"}) {
        for (const auto& about : {letter, other, std::string("RootContainer"), std::string("did=99999999")}) {
            add(question, about, kNoSuchItem);
        }
    }
    for (const auto& path : {document("Letter.txt"), document(""), document("nothing"), std::string("/etc/passwd")}) {
        add("path", path, kNothingThere);
    }
    add("enumerate", "WorkingSetContainer", kNoSuchItem);
    add("enumerate", "AllDirectoriesContainer", kNoSuchItem);
    add("status", "", kDenied);
    add("refresh", "", kDenied);
    add("clean", "", kDenied);
    add("import", library, kDenied);
    add("default", "org.example.Sketches", "org.tarnwell.Error.InvalidParameter");
    add("search", "Letter", "ok");
    add("applications", "", "ok " + library);
    // Its own.
    add("item", library, "ok");
    add("enumerate", library, "ok");
    add("anchor", library, "ok");
    add("watch", library, "ok");
    add("path", note("mine.txt"), "ok");
    add("search", "mine", "ok mine.txt");
    add("default", "org.example.Notes", "ok");
    for (const char* question : {"item", "open", "write", "tag", "rank", "used", "rename"}) add(question, mine, "ok");
    add("makeFolder", library, "ok");
    add("trash", mine, "ok");
    add("restore", mine, "ok");
    add("delete", mine, "ok");
    EXPECT_EQ(ask(questions, flatpakSandbox(), kNotesInfo), expected);
    EXPECT_EQ(testing::readFile(document("Letter.txt")).empty(), false);
    EXPECT_NE(::access(note("mine.txt").c_str(), F_OK), 0);
}

TEST_F(ServiceTest, AFlatpakWithoutALibrarySeesNothing) {
    if (!hasSandboxes()) GTEST_SKIP() << "bubblewrap makes no sandboxes here";
    const auto lines = ask({"item", "#org.example.Notes", "enumerate", "RootContainer", "applications", ""},
                           flatpakSandbox(), "[Application]\nname=org.example.Nobody\n");
    EXPECT_EQ(lines,
              (std::vector<std::string>{std::string("item #org.example.Notes: ") + kNoSuchItem,
                                        std::string("enumerate RootContainer: ") + kNoSuchItem, "applications : ok"}));
}

TEST_F(ServiceTest, WhoCannotBeToldGetsNothing) {
    if (!hasSandboxes()) GTEST_SKIP() << "bubblewrap makes no sandboxes here";
    const std::vector<std::string> refused{"refused: org.tarnwell.Error.Posix.EACCES"};
    EXPECT_EQ(ask({"item", "RootContainer"}, sandbox()), refused);
    EXPECT_EQ(ask({"item", "RootContainer"}, flatpakSandbox(), "[Application]\nname=../../x\n"), refused);
    EXPECT_EQ(ask({"item", "RootContainer"}, flatpakSandbox(), "no key file"), refused);
}

TEST_F(ServiceTest, AFollowingClientHearsWhatChangesAndTheSearchFindsIt) {
    const auto anchor = client_->currentAnchor("WorkingSetContainer");
    ASSERT_TRUE(anchor && *anchor);
    std::atomic<int> told = 0;
    const auto watch = client_->watch("WorkingSetContainer", [&] { ++told; });
    ASSERT_TRUE(watch);
    testing::writeFile(note("quickly made.txt"), "n");
    EXPECT_TRUE(soon([&] { return told > 0; }));
    const auto batch = client_->changes("WorkingSetContainer", **anchor);
    ASSERT_TRUE(batch) << describe(batch.error());
    bool isThere = false;
    for (const auto& change : batch->changes) {
        isThere = isThere || (change.item && change.item->filename == "quickly made.txt");
    }
    EXPECT_TRUE(isThere);
    const auto found = client_->search({.query = "quickly"}, {});
    ASSERT_TRUE(found) << describe(found.error());
    EXPECT_EQ(found->items.size(), 1U);
}

TEST_F(ServiceTest, AnAnchorIsGoodForTheNextService) {
    const auto anchor = client_->currentAnchor("RootContainer");
    ASSERT_TRUE(anchor && *anchor);
    client_.reset();
    service_.reset();
    testing::writeFile(document("while nothing ran.txt"), "n");
    start();
    const auto batch = client_->changes("RootContainer", **anchor);
    ASSERT_TRUE(batch) << describe(batch.error());
    ASSERT_EQ(batch->changes.size(), 1U);
    EXPECT_EQ(batch->changes[0].item->filename, "while nothing ran.txt");
}

TEST_F(ServiceTest, AReloadMeetsAnApplicationThatTheWatchHasNotMet) {
    EXPECT_FALSE(client_->items({"#org.example.Later"}).at(0));
    const std::string home = device_.root + "/home/";
    testing::makeDirectories(home + ".var/app/org.example.Later/Documents");
    testing::makeDirectories(home + ".local/share/applications");
    testing::writeFile(
        home + ".local/share/applications/org.example.Later.desktop",
        "[Desktop Entry]\nType=Application\nName=Later\nExec=later\nX-Tarnwell-SupportsDocumentBrowser=true\n"
        "X-Tarnwell-DataContainer=" +
            home + ".var/app/org.example.Later\n");
    service_->reload();
    EXPECT_TRUE(soon([&] { return client_->items({"#org.example.Later"}).at(0).has_value(); }));
}

TEST_F(ServiceTest, ItEndsWithinASecondWhileClientsAskAndFollow) {
    std::vector<std::unique_ptr<bus::BusSession>> clients;
    std::atomic<bool> isEnding = false;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        clients.push_back(connect());
        threads.emplace_back([&, client = clients.back().get()] {
            while (!isEnding) {
                (void)client->enumerate("RootContainer", {});
                (void)client->search({.query = "a"}, {});
            }
        });
    }
    const auto watch = client_->watch("RootContainer", [] {});
    ::usleep(200'000);
    const auto begin = std::chrono::steady_clock::now();
    service_.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
    isEnding = true;
    for (auto& thread : threads) thread.join();
}

TEST_F(ServiceTest, ASecondServiceIsToldThatThereIsOne) {
    const testing::TemporaryDirectory other;
    const auto elsewhere = settings({{"XDG_STATE_HOME", other.path()}, {"XDG_DATA_HOME", other.path()}});
    ASSERT_TRUE(elsewhere);
    const auto second =
        Service::start({.settings = *elsewhere, .programVersion = "9", .busAddress = bus_.address()}, log_);
    ASSERT_FALSE(second);
    EXPECT_NE(describe(second.error()).find("another process is the service already"), std::string::npos);
}

}  // namespace
}  // namespace tarnwell::service
