#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <deque>
#include <filesystem>

#include "hostframework/ItemIdentifier.h"
#include "testing/RandomChanges.h"
#include "tests/mirror/Client.h"
#include "tests/mirror/Truth.h"

namespace tarnwell::mirror {
namespace {

/// What the random run found once, as short as it could be made: clients that begin, changes, and all clients equal to
/// the disk.
class Scripts : public ::testing::Test {
protected:
    std::string path(const std::string& relative) const { return device_.path(relative); }
    void makeFolder(const std::string& relative) const { ASSERT_EQ(::mkdir(path(relative).c_str(), 0755), 0); }
    void write(const std::string& relative, const std::string& content = "x") const {
        testing::writeFile(path(relative), content);
    }
    void move(const std::string& from, const std::string& to) const {
        ASSERT_EQ(::rename(path(from).c_str(), path(to).c_str()), 0) << from << " " << to;
    }
    void exchange(const std::string& a, const std::string& b) const {
        const int done = ::renameat2(AT_FDCWD, path(a).c_str(), AT_FDCWD, path(b).c_str(), RENAME_EXCHANGE);
        if (done != 0 && errno == EINVAL) GTEST_SKIP() << "this file system exchanges no names";
        ASSERT_EQ(done, 0) << a << " " << b;
    }
    void link(const std::string& from, const std::string& to) const {
        ASSERT_EQ(::link(path(from).c_str(), path(to).c_str()), 0) << from << " " << to;
    }
    void remove(const std::string& relative) const { std::filesystem::remove_all(path(relative)); }
    std::string identifierOf(const std::string& relative) { return device_.ask({"identify", path(relative)}).at(1); }

    void begin() {
        begin(hostframework::kWorkingSetContainer);
        begin(hostframework::kRootContainer);
    }
    Client& begin(const std::string& container) {
        Client& client = clients_.emplace_back(container);
        EXPECT_EQ(client.begin(device_), Client::Outcome::caughtUp) << client.problem();
        return client;
    }
    void catchUp(Client& client) {
        for (auto outcome = Client::Outcome::more; outcome != Client::Outcome::caughtUp;) {
            outcome = client.step(device_);
            ASSERT_TRUE(outcome == Client::Outcome::more || outcome == Client::Outcome::caughtUp) << client.problem();
            for (const Report& report : client.told()) told_.push_back(describe(report));
        }
    }
    /// Lets everybody catch up, and compares.
    void expectEqual() {
        for (Client& client : clients_) {
            told_.clear();
            catchUp(client);
            toldOf_[client.container()] = told_;
        }
        const auto truth = readTruth(device_);
        ASSERT_TRUE(truth);
        for (const Client& client : clients_) {
            const bool isFolder = client.container().starts_with("fid=");
            const auto folder = isFolder ? folderOf(*truth, client.container()) : std::nullopt;
            ASSERT_EQ(isFolder, folder.has_value());
            EXPECT_EQ(compare(client.mirror(), *truth, folder), Problems{})
                << client.container() << " was told: " << ::testing::PrintToString(toldOf_[client.container()]);
        }
    }

    HostedDevice device_;
    std::deque<Client> clients_;
    std::vector<std::string> told_;
    std::map<std::string, std::vector<std::string>> toldOf_;
};

TEST_F(Scripts, PackagesAreKnownToTheHost) {
    if (!device_.packageSuffix()) GTEST_SKIP() << "this machine cannot declare package types";
    makeFolder("Documents/a" + *device_.packageSuffix());
    EXPECT_TRUE(identifierOf("Documents/a" + *device_.packageSuffix()).starts_with("did="));
}

TEST_F(Scripts, AFolderBecomesAPackageAndAFolderAgain) {
    if (!device_.packageSuffix()) GTEST_SKIP() << "this machine cannot declare package types";
    const std::string package = "Documents/a" + *device_.packageSuffix();
    makeFolder("Documents/a");
    write("Documents/a/file");
    begin();
    move("Documents/a", package);
    expectEqual();
    move(package, "Documents/a");
    expectEqual();
}

TEST_F(Scripts, AnotherFolderTakesTheNameOfAFollowedOne) {
    makeFolder("Documents/a");
    write("Documents/a/file");
    begin(identifierOf("Documents/a"));
    expectEqual();
    move("Documents/a", "Documents/b");
    makeFolder("Documents/a");
    write("Documents/a/other");
    write("Documents/b/more");
    expectEqual();
}

TEST_F(Scripts, AFolderLeavesOneThatGoesAndChangesAfterwards) {
    makeFolder("Documents/a");
    makeFolder("Documents/a/b");
    write("Documents/a/b/file");
    begin();
    move("Documents/a/b", "Documents/b");
    remove("Documents/a");
    expectEqual();
}

/// Between two batches of one client another one asks, so that each step is recorded as it is.
TEST_F(Scripts, AFolderLeavesOneThatIsGoneForOneBatchOnly) {
    Client& other = begin(hostframework::kWorkingSetContainer);
    for (const bool goesAgain : {false, true}) {
        SCOPED_TRACE(goesAgain);
        const std::string top = goesAgain ? "Documents/second" : "Documents/first";
        makeFolder(top);
        makeFolder(top + "/a");
        makeFolder(top + "/a/b");
        write(top + "/a/b/file");
        Client& client = begin(hostframework::kRootContainer);
        move(top + "/a/b", top + "/b");
        move(top + "/a", top + "/.a");
        catchUp(other);
        makeFolder(top + "/many");
        for (int i = 0; i < 250; ++i) write(top + "/many/" + std::to_string(i));
        catchUp(other);
        ASSERT_EQ(::chmod(path(top + "/b").c_str(), 0700), 0);  // moves its record behind the others
        ASSERT_EQ(client.step(device_), Client::Outcome::more) << client.problem();
        move(top + "/.a", top + "/a");
        if (goesAgain) {
            catchUp(other);
            move(top + "/a", top + "/.a");
        }
        expectEqual();
    }
}

TEST_F(Scripts, AFileAndAPackageChangePlaces) {
    if (!device_.packageSuffix()) GTEST_SKIP() << "this machine cannot declare package types";
    const std::string package = "Documents/a" + *device_.packageSuffix();
    makeFolder(package);
    write(package + "/inside");
    write("Documents/file");
    begin();
    exchange(package, "Documents/file");
    if (IsSkipped()) return;
    expectEqual();
}

TEST_F(Scripts, ADocumentThatWentIntoAPackageIsReplacedThere) {
    if (!device_.packageSuffix()) GTEST_SKIP() << "this machine cannot declare package types";
    const std::string package = "Documents/a" + *device_.packageSuffix();
    makeFolder(package);
    write("Documents/file");
    begin();
    move("Documents/file", package + "/file");
    expectEqual();
    move(package + "/file", package + "/file~");
    write(package + "/file", "new");
    expectEqual();
}

TEST_F(Scripts, AFolderLeavesOneThatGoesAndIsTouchedAfterwards) {
    makeFolder("Documents/a");
    makeFolder("Documents/a/b");
    write("Documents/a/b/file");
    begin();
    Client late(hostframework::kRootContainer);
    ASSERT_EQ(late.begin(device_), Client::Outcome::caughtUp);
    move("Documents/a/b", "Documents/b");
    remove("Documents/a");
    expectEqual();
    write("Documents/b/other");
    clients_.push_back(late);
    expectEqual();
}

TEST_F(Scripts, AFolderLeavesOneThatLeftOneThatGoes) {
    makeFolder("Documents/a");
    makeFolder("Documents/a/b");
    makeFolder("Documents/a/b/c");
    write("Documents/a/b/c/file");
    begin();
    Client late(hostframework::kRootContainer);
    ASSERT_EQ(late.begin(device_), Client::Outcome::caughtUp);
    move("Documents/a/b", "Documents/b");
    expectEqual();
    move("Documents/b/c", "Documents/c");
    expectEqual();
    remove("Documents/a");
    expectEqual();
    write("Documents/b/other");
    write("Documents/c/other");
    expectEqual();
    clients_.push_back(late);
    expectEqual();
}

TEST_F(Scripts, AFileIsShownUnderItsOtherNameAndTheFirstOneIsThereAgain) {
    makeFolder("Documents/a");
    makeFolder("Documents/b");
    write("Documents/a/file");
    begin();
    // Known by now, the first name is the older one on any file system, in whatever order it gives the folders.
    link("Documents/a/file", "Documents/b/other");
    expectEqual();
    Client& follower = begin(identifierOf("Documents/a"));
    ASSERT_EQ(follower.mirror().items().size(), 1u);
    remove("Documents/a/file");
    // It is shown in the other folder, and stays there.
    ASSERT_EQ(device_.ask({"list", hostframework::kRootContainer}).at(0), "ok");
    link("Documents/b/other", "Documents/a/file");
    expectEqual();
    EXPECT_TRUE(follower.mirror().items().empty()) << "no listing of the folder shows it";
    remove("Documents/a/file");
    expectEqual();
}

TEST_F(Scripts, AFolderBecomesAPackageBeforeTheFolderAroundItMoves) {
    if (!device_.packageSuffix()) GTEST_SKIP() << "this machine cannot declare package types";
    makeFolder("Documents/a");
    makeFolder("Documents/a/b");
    makeFolder("Documents/a/b/c");
    begin();
    Client late(identifierOf("Documents/a"));
    ASSERT_EQ(late.begin(device_), Client::Outcome::caughtUp);
    move("Documents/a/b", "Documents/a/b" + *device_.packageSuffix());
    expectEqual();
    move("Documents/a", "Documents/d");
    clients_.push_back(late);
    expectEqual();
}

TEST_F(Scripts, FoldersBecomePackagesInAPackageBetweenTwoBatches) {
    if (!device_.packageSuffix()) GTEST_SKIP() << "this machine cannot declare package types";
    constexpr int kMoreThanABatch = 250;
    makeFolder("Documents/a");
    begin();
    for (int i = 0; i < kMoreThanABatch; ++i) makeFolder("Documents/a/" + std::to_string(i));
    for (Client& client : clients_) ASSERT_EQ(client.step(device_), Client::Outcome::more);
    for (int i = 0; i < kMoreThanABatch; ++i) {
        const std::string folder = "Documents/a/" + std::to_string(i);
        move(folder, folder + *device_.packageSuffix());
    }
    move("Documents/a", "Documents/a" + *device_.packageSuffix());
    expectEqual();
}

TEST_F(Scripts, AFileLosesItsFirstNameAfterTheFolderOfAnotherOneMoved) {
    makeFolder("Documents/first");
    write("Documents/first/file");
    makeFolder("Apps/Notes/Documents/a");
    makeFolder("Apps/Notes/Documents/a/b");
    link("Documents/first/file", "Apps/Notes/Documents/a/b/other");
    begin();
    ::usleep(50'000);  // by then a folder's change time vouches for what it holds
    expectEqual();
    move("Documents/first", "outside/first");
    move("Apps/Notes/Documents/a", "Apps/Sketches/Documents/a");
    // A look at the first folder's place alone.
    write("Documents/another");
    EXPECT_NE(identifierOf("Documents/another"), "");
    expectEqual();
}

TEST_F(Scripts, AFollowedFolderIsInAPackageForAWhile) {
    if (!device_.packageSuffix()) GTEST_SKIP() << "this machine cannot declare package types";
    makeFolder("Documents/a");
    makeFolder("Documents/a/b");
    write("Documents/a/b/stays");
    write("Documents/a/b/goes");
    begin();
    Client& follower = begin(identifierOf("Documents/a/b"));
    ASSERT_EQ(follower.mirror().items().size(), 2u);
    const std::string package = "Documents/a" + *device_.packageSuffix();
    move("Documents/a", package);
    catchUp(follower);
    EXPECT_TRUE(follower.mirror().items().empty());
    remove(package + "/b/goes");
    catchUp(follower);
    move(package + "/b", "Documents/b");
    expectEqual();
    EXPECT_EQ(follower.mirror().items().size(), 1u);
}

TEST_F(Scripts, AFileGetsAnotherNameAfterTheFolderAboveItMoved) {
    makeFolder("Apps/Sketches/Documents/a");
    makeFolder("Apps/Sketches/Documents/a/b");
    write("Apps/Sketches/Documents/a/b/file");
    begin();
    ::usleep(50'000);  // by then a folder's change time vouches for what it holds
    expectEqual();
    move("Apps/Sketches/Documents/a", "Apps/Notes/Documents/a");
    // The folder of this name is looked at before the file's own.
    link("Apps/Notes/Documents/a/b/file", "Documents/other");
    expectEqual();
}

}  // namespace
}  // namespace tarnwell::mirror
