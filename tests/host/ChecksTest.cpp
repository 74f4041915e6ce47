#include "host/Checks.h"

#include <gtest/gtest.h>

#include "testing/TemporaryDirectory.h"

namespace tarnwell::host {
namespace {

using State = Check::State;
using testing::makeDirectories;
using testing::TemporaryDirectory;
using testing::writeFile;

Settings withStorage(const std::string& path) {
    Settings settings;
    settings.storageRoot = path;
    settings.storageRootOrigin = "default";
    return settings;
}

TEST(CheckStorageRoot, IsGoodForAFolder) {
    TemporaryDirectory directory;
    const Check check = checkStorageRoot(withStorage(directory.path()));
    EXPECT_EQ(check.state, State::good);
    EXPECT_EQ(check.finding, directory.path() + " (from default)");
    EXPECT_EQ(check.advice, "");
}

TEST(CheckStorageRoot, IsBrokenWhereThereIsNoFolder) {
    TemporaryDirectory directory;
    writeFile(directory.path("file"), "");
    const Check missing = checkStorageRoot(withStorage(directory.path("none")));
    EXPECT_EQ(missing.state, State::broken);
    EXPECT_EQ(missing.finding, directory.path("none") + " (from default) does not exist");
    EXPECT_NE(missing.advice, "");
    const Check file = checkStorageRoot(withStorage(directory.path("file")));
    EXPECT_EQ(file.state, State::broken);
    EXPECT_EQ(file.finding, directory.path("file") + " (from default) is no folder");
}

TEST(CheckAttributes, TellsWhereTheyCannotBeKept) {
    const Check proc = checkAttributes("storage root", "/proc");
    EXPECT_EQ(proc.state, State::warning);
    EXPECT_EQ(proc.finding, "the file system of /proc keeps no extended attributes");
    const Check missing = checkAttributes("storage root", "/none such");
    EXPECT_EQ(missing.state, State::broken);
}

TEST(CheckFileSystem, WarnsOfOneThatKeepsNoTimesOfBirth) {
    const Check proc = checkFileSystem("storage root", "/proc");
    EXPECT_EQ(proc.state, State::warning);
    EXPECT_NE(proc.finding.find("/proc keeps no times of birth"), std::string::npos) << proc.finding;
    EXPECT_EQ(proc.finding.find("polled"), std::string::npos) << proc.finding;
    EXPECT_EQ(checkFileSystem("storage root", "/none such").state, State::broken);
}

TEST(CheckWritable, LooksAtTheNearestFolderThatExists) {
    TemporaryDirectory directory;
    EXPECT_EQ(checkWritable("state", directory.path()).finding, directory.path());
    const Check below = checkWritable("state", directory.path("a/b/c"));
    EXPECT_EQ(below.state, State::good);
    EXPECT_EQ(below.finding, directory.path("a/b/c") + " (made when it is needed)");
    writeFile(directory.path("file"), "");
    EXPECT_EQ(checkWritable("state", directory.path("file/x")).state, State::broken);
}

TEST(CheckWatchLimits, WarnsOfSmallOnesAndNotesMissingOnes) {
    TemporaryDirectory directory;
    makeDirectories(directory.path("inotify"));
    writeFile(directory.path("inotify/max_user_watches"), "8191\n");
    writeFile(directory.path("inotify/max_user_instances"), "128\n");
    writeFile(directory.path("inotify/max_queued_events"), "no number\n");
    const auto checks = checkWatchLimits(directory.path());
    ASSERT_EQ(checks.size(), 6u);
    EXPECT_EQ(checks[0].state, State::warning);
    EXPECT_EQ(checks[0].finding, "at most 8191");
    EXPECT_EQ(checks[1].state, State::good);
    EXPECT_EQ(checks[1].finding, "at most 128");
    EXPECT_EQ(checks[2].state, State::note);
    EXPECT_EQ(checks[3].subject, "fanotify marks");
    EXPECT_EQ(checks[3].state, State::note);
}

TEST(CheckRegistrySources, SaysWhichFoldersAreThere) {
    TemporaryDirectory directory;
    registry::RegistrySources sources;
    sources.flatpakUserDir = directory.path();
    sources.flatpakSystemDirs = {directory.path("none")};
    const auto checks = checkRegistrySources(sources);
    ASSERT_EQ(checks.size(), 2u);
    EXPECT_EQ(checks[0].subject, "Flatpak, this user");
    EXPECT_EQ(checks[0].state, State::good);
    EXPECT_EQ(checks[1].finding, directory.path("none") + " (not there)");
    EXPECT_EQ(checks[1].state, State::note);
}

TEST(CheckIconRenderer, DrawsOneOrWarns) {
    EXPECT_EQ(checkIconRenderer(TARNWELL_BINARY_DIR "/tarnwell-render-icon").state, Check::State::good);
    const Check missing = checkIconRenderer("/nonexistent/tarnwell-render-icon");
    EXPECT_EQ(missing.state, Check::State::warning);
    EXPECT_EQ(missing.finding,
              "cannot be drawn: POSIX ENOENT (No such file or directory): \"/nonexistent/tarnwell-render-icon\" cannot "
              "be started");
    EXPECT_NE(missing.advice, "");
}

TEST(CheckFileTypes, FindsTheDatabaseInAnyDataFolder) {
    TemporaryDirectory directory;
    Settings settings;
    settings.applicationSupport = directory.path("own");
    const auto variable = [&](const char*) -> std::optional<std::string> {
        return directory.path("one") + ":" + directory.path("two");
    };
    EXPECT_EQ(checkFileTypes(settings, variable).state, State::broken);
    makeDirectories(directory.path("two/mime"));
    writeFile(directory.path("two/mime/mime.cache"), "");
    EXPECT_EQ(checkFileTypes(settings, variable).finding, directory.path("two/mime/mime.cache"));
}

}  // namespace
}  // namespace tarnwell::host
