#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "tests/cli/Program.h"

namespace tarnwell::testing {
namespace {

namespace files = std::filesystem;

std::ptrdiff_t lineCount(const std::string& text) { return std::ranges::count(text, '\n'); }

TEST(StoreOwner, ASecondCommandWaitsThenNamesTheProcessThatHasTheStore) {
    Device device;
    ASSERT_EQ(device.run({"apps"}).status, 0);
    const int lock = ::open((device.storeFolder() + "/lock").c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(lock, 0);
    ASSERT_EQ(::flock(lock, LOCK_EX | LOCK_NB), 0);
    const std::string pid = std::to_string(::getpid()) + "\n";
    ASSERT_EQ(::ftruncate(lock, 0), 0);
    ASSERT_EQ(::pwrite(lock, pid.data(), pid.size(), 0), static_cast<ssize_t>(pid.size()));

    const auto begin = std::chrono::steady_clock::now();
    const auto refused = device.run({"ls"});
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(4900));
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.output, "");
    EXPECT_EQ(lineCount(refused.error), 1) << refused.error;
    EXPECT_NE(refused.error.find("in use by process " + std::to_string(::getpid())), std::string::npos)
        << refused.error;

    auto waiting = device.start({"apps"});
    ::close(lock);
    EXPECT_EQ(waiting.finish().status, 0);
}

TEST(StoreOwner, CommandsAtTheSameMomentAllSucceed) {
    Device device;
    std::vector<ChildProgram> programs;
    for (int i = 0; i < 4; ++i) programs.push_back(device.start({"--json", "ls"}));
    for (auto& program : programs) {
        const auto finished = program.finish();
        EXPECT_EQ(finished.status, 0) << finished.error;
        EXPECT_EQ(finished.lines().size(), 7u);
    }
}

TEST(Store, ADamagedOneIsSetAsideAndSaidOnce) {
    Device device;
    ASSERT_EQ(device.run({"ls"}).status, 0);
    const std::string database = device.storeFolder() + "/index.sqlite";
    ASSERT_TRUE(files::exists(database));
    for (const char* suffix : {"-wal", "-shm"}) files::remove(database + suffix);
    writeFile(database, "this is no database, " + std::string(8192, '?'));

    const auto first = device.run({"--json", "ls"});
    EXPECT_EQ(first.status, 0) << first.error;
    EXPECT_EQ(first.lines().size(), 7u);
    EXPECT_EQ(lineCount(first.error), 1) << first.error;
    EXPECT_NE(first.error.find("damaged"), std::string::npos) << first.error;
    const auto second = device.run({"--json", "ls"});
    EXPECT_EQ(second.status, 0);
    EXPECT_EQ(second.error, "");
    const auto aside = std::ranges::count_if(files::directory_iterator(device.storeFolder()), [](const auto& entry) {
        return entry.path().filename().string().starts_with("index.sqlite.damaged-");
    });
    EXPECT_GE(aside, 1);
}

TEST(Store, OneThatMayNotBeWrittenGivesOneLine) {
    Device device;
    ASSERT_EQ(device.run({"ls"}).status, 0);
    if (const auto reason = device.giveToNobody()) GTEST_SKIP() << *reason;
    ASSERT_EQ(device.runAsNobody({"ls"}).status, 0);
    ASSERT_EQ(::chmod(device.storeFolder().c_str(), 0500), 0);
    for (const auto& entry : files::directory_iterator(device.storeFolder())) {
        ASSERT_EQ(::chmod(entry.path().c_str(), 0400), 0);
    }
    const auto finished = device.runAsNobody({"ls"});
    EXPECT_EQ(finished.status, 1);
    EXPECT_EQ(finished.output, "");
    EXPECT_EQ(lineCount(finished.error), 1) << finished.error;
    EXPECT_NE(finished.error.find(device.storeFolder()), std::string::npos) << finished.error;
    const auto doctor = device.runAsNobody({"doctor"});
    EXPECT_EQ(doctor.status, 1);
    EXPECT_NE(doctor.output.find("broken"), std::string::npos) << doctor.output;
}

TEST(StorageRoot, AMissingOneGivesOneLineAndLeavesNothingBehind) {
    Device device;
    files::remove_all(device.path("home/Documents"));
    const auto finished = device.run({"ls"});
    EXPECT_EQ(finished.status, 1);
    EXPECT_EQ(finished.output, "");
    EXPECT_EQ(finished.error,
              "tarnwell: the storage root \"" + device.path("home/Documents") +
                  "\" (from default) does not exist; make that folder, or name another one with --storage\n");
    EXPECT_FALSE(files::exists(device.storeFolder()));
}

TEST(StorageRoot, AFileIsRefused) {
    Device device;
    const auto finished = device.run({"--storage", device.document("Letter.txt"), "ls"});
    EXPECT_EQ(finished.status, 1);
    EXPECT_EQ(finished.error, "tarnwell: the storage root \"" + device.document("Letter.txt") +
                                  "\" (from --storage) is no folder; name a folder with --storage\n");
}

TEST(StorageRoot, OneThatHoldsAnApplicationsDataOrLiesInItIsRefused) {
    Device device;
    const std::string rows[] = {device.path("home"), device.path("home/.var/app/org.example.Notes"),
                                device.note("Journal"), device.note("")};
    for (const auto& root : rows) {
        SCOPED_TRACE(root);
        const auto finished = device.run({"--storage", root, "ls"});
        EXPECT_EQ(finished.status, 1);
        EXPECT_EQ(finished.output, "");
        EXPECT_EQ(lineCount(finished.error), 1) << finished.error;
        EXPECT_NE(finished.error.find("the data of the application "), std::string::npos) << finished.error;
        EXPECT_NE(finished.error.find("name another storage root with --storage"), std::string::npos);
    }
}

TEST(StorageRoot, MayHaveAnyName) {
    Device device;
    makeDirectories(device.path("home/Papers/Sub"));
    writeFile(device.path("home/Papers/Sub/one.txt"), "1");
    const auto finished = device.run({"--storage", device.path("home/Papers"), "--json", "ls", "-r"});
    ASSERT_EQ(finished.status, 0) << finished.error;
    std::size_t found = 0;
    for (const auto& item : finished.json()) {
        if (item["filename"] == "one.txt") {
            ++found;
            EXPECT_EQ(item["fileURL"], "file://" + device.path("home/Papers/Sub/one.txt"));
        }
    }
    EXPECT_EQ(found, 1u);
    EXPECT_EQ(device.run({"--storage", device.path("home/Papers"), "path", "root"}).output,
              device.path("home/Papers") + "\n");
}

TEST(StorageRoot, TheVariableNamesItToo) {
    Device device;
    makeDirectories(device.path("home/Papers"));
    const tour::EnvironmentChanges papers{{"TARNWELL_STORAGE", device.path("home/Papers")}};
    EXPECT_EQ(device.run({"path", "root"}, papers).output, device.path("home/Papers") + "\n");
    const auto relative = device.run({"path", "root"}, {{"TARNWELL_STORAGE", "Papers"}});
    EXPECT_EQ(relative.status, 1);
    EXPECT_EQ(relative.error, "tarnwell: TARNWELL_STORAGE has to be an absolute path, not \"Papers\"\n");
}

TEST(Permissions, AnUnreadableFolderGivesOneClearError) {
    Device device;
    if (const auto reason = device.giveToNobody()) GTEST_SKIP() << *reason;
    ASSERT_EQ(device.runAsNobody({"ls"}).status, 0);
    ASSERT_EQ(::chmod(device.document("Names").c_str(), 0), 0);
    const auto listed = device.runAsNobody({"ls", device.document("Names")});
    EXPECT_EQ(listed.status, 1);
    EXPECT_EQ(listed.output, "");
    EXPECT_EQ(lineCount(listed.error), 1) << listed.error;
    const auto recursive = device.runAsNobody({"--json", "ls", "-r"});
    EXPECT_GT(recursive.lines().size(), 450u);
    ASSERT_EQ(::chmod(device.document("Names").c_str(), 0755), 0);
}

TEST(Doctor, IsSatisfiedWithASampleDevice) {
    Device device;
    const auto finished = device.run({"doctor"});
    EXPECT_EQ(finished.status, 0) << finished.output << finished.error;
    for (const char* subject : {"storage root", "store", "app libraries", "inotify watches", "Flatpak, this user",
                                "Snap", "desktop entries, this user", "file types"}) {
        EXPECT_NE(finished.output.find(subject), std::string::npos) << subject;
    }
}

TEST(Doctor, JsonIsOneCheckALine) {
    Device device;
    const auto finished = device.run({"--json", "doctor"});
    EXPECT_EQ(finished.status, 0) << finished.error;
    for (const auto& check : finished.json()) {
        EXPECT_EQ(check.size(), 4u) << check;
        EXPECT_TRUE(check["check"].is_string() && check["finding"].is_string()) << check;
        EXPECT_TRUE(check["state"] == "good" || check["state"] == "note" || check["state"] == "warning") << check;
    }
}

TEST(Doctor, FailsWhereSomethingIsBroken) {
    Device device;
    files::remove_all(device.path("home/Documents"));
    const auto finished = device.run({"doctor"});
    EXPECT_EQ(finished.status, 1);
    EXPECT_EQ(finished.error, "tarnwell: broken: storage root; the list says what to do\n");
    EXPECT_NE(finished.output.find("does not exist"), std::string::npos);
}

TEST(Log, IsWrittenAsItComesOnlyWhenAskedFor) {
    Device device;
    EXPECT_EQ(device.run({"ls"}).error, "");
    EXPECT_NE(device.run({"-v", "ls"}).error.find("enumerator for RootContainer"), std::string::npos);
    EXPECT_NE(device.run({"ls"}, {{"TARNWELL_LOG", "info"}}).error.find("auto notify changes on WorkingSetContainer"),
              std::string::npos);
    EXPECT_EQ(device.run({"ls"}, {{"TARNWELL_LOG", "off"}}).error, "");
}

}  // namespace
}  // namespace tarnwell::testing
