#include "tour/SampleDevice.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <filesystem>

#include "platform/archive/KeyedArchive.h"
#include "platform/registry/LinuxAppRegistry.h"
#include "testing/CapturingLog.h"
#include "testing/TemporaryDirectory.h"
#include "tour/Png.h"
#include "tour/Tour.h"

namespace tarnwell::tour {
namespace {

using registry::ApplicationType;
using registry::BundleRecordPtr;

std::optional<Bytes> attributeOf(const std::string& path, const std::string& name) {
    Bytes bytes(64 * 1024);
    const ssize_t size = lgetxattr(path.c_str(), ("user." + name).c_str(), bytes.data(), bytes.size());
    if (size < 0) return std::nullopt;
    bytes.resize(static_cast<std::size_t>(size));
    return bytes;
}

class SampleDeviceTest : public ::testing::Test {
protected:
    SampleDevice make() {
        auto device = makeSampleDevice(directory_.path("device"));
        EXPECT_TRUE(device.has_value()) << describe(device.error());
        return *device;
    }
    std::string notes(const std::string& name) {
        return directory_.path("device/home/.var/app/org.example.Notes/Documents/" + name);
    }
    testing::TemporaryDirectory directory_;
};

TEST_F(SampleDeviceTest, ItsEnvironmentLeadsTheRegistryToItsApplications) {
    EnvironmentChanges environment = make().environment();
    environment["LANG"] = "de_DE.UTF-8";
    const auto sources =
        registry::RegistrySources::from([&environment](const char* name) -> std::optional<std::string> {
            const auto found = environment.find(name);
            return found == environment.end() ? std::nullopt : found->second;
        });
    Roots roots;
    testing::CapturingLog log;
    ASSERT_TRUE(roots.addStorage(directory_.path("device/home/Documents")).has_value());
    const auto registry = registry::LinuxAppRegistry::create(sources, roots, log);
    struct Row {
        std::string identifier, name, container;
        ApplicationType type;
        bool qualifies;
    };
    for (const Row& row : std::vector<Row>{
             {"org.example.Notes", "Notizen", "home/.var/app/org.example.Notes", ApplicationType::user, true},
             {"org.example.Sketches", "Skizzen", "home/.var/app/org.example.Sketches", ApplicationType::system, true},
             {"snap.scanner", "Scanner", "home/snap/scanner/current", ApplicationType::system, true},
             {"net.example.Maps", "Karten", "home/Apps/Maps", ApplicationType::user, true},
             {"org.example.Viewer", "Betrachter", "home/.var/app/org.example.Viewer", ApplicationType::user, false}}) {
        SCOPED_TRACE(row.identifier);
        const BundleRecordPtr record = registry->recordForBundleIdentifier(row.identifier);
        ASSERT_NE(record, nullptr);
        EXPECT_EQ(record->localizedName(), row.name);
        EXPECT_EQ(record->type(), row.type);
        EXPECT_TRUE(record->dataContainerURL().has_value());
        EXPECT_EQ(record->archived().dataContainerPath, directory_.path("device/" + row.container));
        const bool declares = record->infoValues({"UISupportsDocumentBrowser"})->contains("UISupportsDocumentBrowser");
        EXPECT_EQ(declares || (record->supportsOpeningDocumentsInPlace() && record->isFileSharingEnabled()),
                  row.qualifies);
    }
}

TEST_F(SampleDeviceTest, HoldsWhatAListingMeets) {
    make();
    struct stat status{};
    const std::vector<std::pair<std::string, mode_t>> expected = {
        {notes("Groceries.md"), S_IFREG},
        {notes("Journal/2024/March/Trip.md"), S_IFREG},
        {notes("Harbour.sketchbundle"), S_IFDIR},
        {notes(".draft.md"), S_IFREG},
        {notes("Inbox"), S_IFDIR},
        {notes(".Trash/Old list.md"), S_IFREG},
        {notes("Lists"), S_IFDIR},
        {notes("Latest.md"), S_IFLNK},
        {notes("Outside.txt"), S_IFLNK},
        {notes("Pipe"), S_IFIFO},
        {directory_.path("device/home/Documents/Names/two\nlines.txt"), S_IFREG},
        {directory_.path("device/home/Documents/Names/caf\xE9.txt"), S_IFREG},
    };
    for (const auto& [path, kind] : expected) {
        ASSERT_EQ(lstat(path.c_str(), &status), 0) << path;
        EXPECT_EQ(status.st_mode & S_IFMT, kind) << path;
    }
    EXPECT_EQ(std::filesystem::canonical(notes("Outside.txt")), directory_.path("device/home/private.txt"));
    EXPECT_EQ(std::filesystem::canonical(notes("Latest.md")), notes("Journal/2024/March/Trip.md"));
    const std::filesystem::directory_iterator many(directory_.path("device/home/Documents/Many"));
    EXPECT_EQ(std::distance(many, {}), kManyEntries);
    ASSERT_EQ(stat(directory_.path("device/run").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0700u);
}

TEST_F(SampleDeviceTest, MetadataIsArchivedAsTheProgramReadsIt) {
    const SampleDevice device = make();
    const auto tags = attributeOf(notes("Groceries.md"), "com.vellum.metadata:_kMDItemUserTags");
    if (!tags) {
        ASSERT_FALSE(device.remarks.empty());
        GTEST_SKIP() << device.remarks.back();
    }
    EXPECT_EQ(archive::unarchiveStrings(*tags), (std::vector<std::string>{"Home", "Weekly"}));
    const auto rank = attributeOf(notes("Groceries.md"), "com.vellum.favorite-rank.number#PS");
    EXPECT_EQ(archive::unarchiveNumber(rank.value())->asUnsigned(), 12u);
    const auto used = attributeOf(notes("Groceries.md"), "com.vellum.lastuseddate#PS");
    EXPECT_EQ(archive::unarchiveDate(used.value()).value().time_since_epoch(), std::chrono::seconds(1715936400));
    const auto putBack = attributeOf(notes(".Trash/Old list.md"), "com.vellum.trash.putback#PS");
    EXPECT_EQ(archive::unarchiveString(putBack.value()), "Lists/Old list.md");
    const auto trashed = attributeOf(notes(".Trash/Old list.md"), "com.vellum.trash.time#PS");
    EXPECT_EQ(archive::unarchiveDate(trashed.value()).value().time_since_epoch(), std::chrono::seconds(1717351200));
}

TEST_F(SampleDeviceTest, IsMadeAfresh) {
    make();
    testing::writeFile(notes("Mine.md"), "x");
    std::filesystem::remove(notes("Groceries.md"));
    make();
    EXPECT_FALSE(std::filesystem::exists(notes("Mine.md")));
    EXPECT_TRUE(std::filesystem::exists(notes("Groceries.md")));
}

TEST_F(SampleDeviceTest, IsMadeInAnEmptyFolderAndThroughALink) {
    testing::makeDirectories(directory_.path("empty"));
    std::filesystem::create_symlink("empty", directory_.path("link"));
    const auto device = makeSampleDevice(directory_.path("link"));
    ASSERT_TRUE(device.has_value());
    EXPECT_EQ(device->root, directory_.path("empty"));
}

TEST_F(SampleDeviceTest, RefusesAFolderThatHoldsAnythingElse) {
    const auto refuse = [this](const std::string& what) {
        const auto device = makeSampleDevice(directory_.path("device"));
        ASSERT_FALSE(device.has_value()) << what;
        EXPECT_TRUE(device.error().is(ErrorDomain::posix, ENOTEMPTY)) << what << describe(device.error());
        EXPECT_EQ(testing::readFile(directory_.path("device/precious.txt")), "keep me") << what;
        EXPECT_FALSE(std::filesystem::exists(directory_.path("device/home"))) << what;
    };
    testing::makeDirectories(directory_.path("device"));
    testing::writeFile(directory_.path("device/precious.txt"), "keep me");
    refuse("no marker");
    const std::string marker = directory_.path("device/") + kMarkerName;
    testing::writeFile(marker, "");
    refuse("a marker of that name only");
    std::filesystem::remove(marker);
    {
        const auto other = makeSampleDevice(directory_.path("other"));
        ASSERT_TRUE(other.has_value());
    }
    std::filesystem::create_symlink(directory_.path("other/") + kMarkerName, marker);
    refuse("a link to another device's marker");
}

TEST_F(SampleDeviceTest, LinksOutOfItSurviveItsRemoval) {
    make();
    testing::makeDirectories(directory_.path("precious"));
    testing::writeFile(directory_.path("precious/file"), "keep me");
    std::filesystem::create_directory_symlink(directory_.path("precious"), notes("Precious"));
    make();
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(notes("Precious"))));
    EXPECT_EQ(testing::readFile(directory_.path("precious/file")), "keep me");
}

TEST_F(SampleDeviceTest, ItsEnvironmentFileTellsAShellTheSame) {
    const SampleDevice device = make();
    ASSERT_TRUE(Tour(device, directory_.path("device"), "/bin/true").writeEnvironmentFile().has_value());
    for (const auto& [name, value] : device.environment()) {
        const auto told =
            run({"sh", "-c", ". \"$1\"; printf %s \"${" + name + "-unset}\"", "sh", device.root + "/env.sh"},
                {{name, "before"}}, Output::captured);
        ASSERT_TRUE(told.has_value());
        EXPECT_EQ(told->output, value.value_or("unset")) << name;
    }
}

TEST(TourTest, SaysWhetherTheProgramDidWhatItShould) {
    testing::TemporaryDirectory directory;
    const auto device = makeSampleDevice(directory.path("device"));
    ASSERT_TRUE(device.has_value());
    ::testing::internal::CaptureStdout();
    EXPECT_FALSE(Tour(*device, "device", "/bin/false").show());
    EXPECT_FALSE(Tour(*device, "device", directory.path("no such program")).show());
    EXPECT_FALSE(Tour(*device, "device", "/bin/true").show()) << "450 entries are asked for, none is listed";
    const std::string shown = ::testing::internal::GetCapturedStdout();
    EXPECT_TRUE(shown.contains("$ /bin/false ls '#org.example.Notes'\n(exit status 1)\n")) << shown;
    EXPECT_TRUE(shown.contains("$ LANGUAGE=de /bin/false apps\n")) << shown;
}

TEST(TourTest, QuotesWordsForAShell) {
    EXPECT_EQ(shellWord("build/release/tarnwell"), "build/release/tarnwell");
    EXPECT_EQ(shellWord("#org.example.Notes"), "'#org.example.Notes'");
    EXPECT_EQ(shellWord("it's"), "'it'\\''s'");
    EXPECT_EQ(shellWord(""), "''");
}

TEST(ChildProcessTest, TellsStatusSignalAndOutput) {
    EXPECT_EQ(run({"sh", "-c", "exit 7"}, {}, Output::discarded)->status, 7);
    EXPECT_EQ(run({"sh", "-c", "kill -9 $$"}, {}, Output::discarded)->status, 137);
    const auto outcome = run({"sh", "-c", "printf '%s|%s' \"$A\" \"${HOME-unset}\""},
                             {{"A", "x y"}, {"HOME", std::nullopt}}, Output::captured);
    EXPECT_EQ(outcome->output, "x y|unset");
    EXPECT_TRUE(run({"/no/such/program"}, {}, Output::shown).error().is(ErrorDomain::posix, ENOENT));
}

TEST(PngTest, HasTheChunksOfAnImage) {
    const Bytes png = pngIcon(100, {.red = 1, .green = 2, .blue = 3});
    const std::string_view text = textOf(png);
    EXPECT_TRUE(text.starts_with("\x89PNG\r\n\x1A\n"));
    // The end chunk is the same in every image, its checksum too.
    EXPECT_TRUE(text.ends_with(std::string_view("\0\0\0\0IEND\xAE\x42\x60\x82", 12)));
}

}  // namespace
}  // namespace tarnwell::tour
