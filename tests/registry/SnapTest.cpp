#include <gtest/gtest.h>

#include "tests/registry/RegistryDevice.h"

namespace tarnwell::registry {
namespace {

class SnapTest : public ::testing::Test {
protected:
    void install(const std::string& fileName, const std::string& desktopFile) {
        device_.write("var/snapd/desktop/applications/" + fileName, desktopFile);
    }
    RegistryDevice device_;
};

TEST_F(SnapTest, IsTheSystemsAndSharesFiles) {
    install("scanner_scanner.desktop", RegistryDevice::entry("Scanner", "X-SnapInstanceName=scanner\n"));
    EXPECT_EQ(device_.userApplications(), Names{});
    EXPECT_EQ(device_.systemApplications(), Names{"snap.scanner"});
    const BundleRecordPtr record = device_.record("snap.scanner");
    EXPECT_EQ(record->origin(), Origin::snap);
    EXPECT_EQ(record->type(), ApplicationType::system);
    EXPECT_EQ(record->localizedName(), "Scanner");
    EXPECT_TRUE(record->isFileSharingEnabled());
    EXPECT_FALSE(record->supportsOpeningDocumentsInPlace());
    EXPECT_EQ(record->infoValues({"UISupportsDocumentBrowser"}), (std::map<std::string, bool>{}));
}

TEST_F(SnapTest, KeepsItsDataWhereItsCurrentRevisionLeads) {
    install("scanner_scanner.desktop", RegistryDevice::entry("Scanner", "X-SnapInstanceName=scanner\n"));
    device_.makeFolder("home/snap/scanner/7/Documents");
    device_.makeFolder("home/snap/scanner/8/Documents");
    const std::string current = device_.path("home/snap/scanner/current");
    std::filesystem::create_symlink("7", current);
    const BundleRecordPtr before = device_.record("snap.scanner");
    EXPECT_EQ(before->dataContainerURL(), URL::file(current));
    EXPECT_EQ(before->archived().dataContainerPath, current);
    const auto realPath = [&] { return device_.roots.all().front()->realPath; };
    EXPECT_EQ(realPath(), device_.path("home/snap/scanner/7/Documents"));

    std::filesystem::remove(current);
    std::filesystem::create_symlink("8", current);
    // The library is the same one, and its folder the one that belongs to the revision.
    EXPECT_EQ(device_.record("snap.scanner")->dataContainerURL(), URL::file(current));
    EXPECT_EQ(realPath(), device_.path("home/snap/scanner/8/Documents"));
    EXPECT_EQ(device_.registry().recordFromArchive(before->archived())->dataContainerURL(), URL::file(current));
    EXPECT_EQ(device_.roots.all().size(), 1u);

    // Nothing to go to yet.
    std::filesystem::remove(current);
    EXPECT_EQ(device_.record("snap.scanner")->dataContainerURL(), std::nullopt);
    EXPECT_EQ(device_.record("snap.scanner")->archived().dataContainerPath, std::nullopt);
}

TEST_F(SnapTest, IsFoundByTheRevisionThatAnArchiveOfFormerTimesHolds) {
    install("scanner_scanner.desktop", RegistryDevice::entry("Scanner", "X-SnapInstanceName=scanner\n"));
    device_.makeFolder("home/snap/scanner/7/Documents");
    std::filesystem::create_symlink("7", device_.path("home/snap/scanner/current"));
    const auto now = device_.record("snap.scanner")->dataContainerURL();
    ArchivedBundleRecord archived = device_.record("snap.scanner")->archived();
    archived.dataContainerPath = device_.path("home/snap/scanner/7");
    EXPECT_EQ(device_.registry().recordFromArchive(archived)->dataContainerURL(), now);
}

struct SnapRow {
    std::string file;
    std::string lines;
    std::string identifier;  ///< empty = skipped
};

TEST_F(SnapTest, IsNamedByItsInstance) {
    const std::vector<SnapRow> rows = {
        {"scanner_scanner.desktop", "X-SnapInstanceName=scanner\n", "snap.scanner"},
        {"scanner_helper.desktop", "", "snap.scanner"},
        {"scanner.desktop", "", "snap.scanner"},
        {"scanner+work_scanner.desktop", "", "snap.scanner_work"},
        {"scanner+work_scanner.desktop", "X-SnapInstanceName=scanner_work\n", "snap.scanner_work"},
        {"scanner_work_scanner.desktop", "X-SnapInstanceName=scanner_work\n", "snap.scanner_work"},
        {"scanner_scanner.desktop", "X-SnapInstanceName=../../etc\n", ""},
        {"scanner_scanner.desktop", "X-SnapInstanceName=a.b\n", ""},
        {"scanner_scanner.desktop", "X-SnapInstanceName=\n", ""},
        {"Scanner_scanner.desktop", "", ""},
        {"_scanner.desktop", "", ""},
    };
    for (const SnapRow& row : rows) {
        SCOPED_TRACE(row.file + " " + row.lines);
        RegistryDevice device;
        device.write("var/snapd/desktop/applications/" + row.file, RegistryDevice::entry("Scanner", row.lines));
        EXPECT_EQ(device.systemApplications(), row.identifier.empty() ? Names{} : Names{row.identifier});
        EXPECT_EQ(device.log.lines().size(), row.identifier.empty() ? 1u : 0u);
        if (!row.identifier.empty()) {
            EXPECT_NE(device.record(row.identifier), nullptr);
        }
    }
}

TEST_F(SnapTest, OfSeveralApplicationsIsOne) {
    install("office_calc.desktop", RegistryDevice::entry("Calc", "X-SnapInstanceName=office\n"));
    install("office_office.desktop", RegistryDevice::entry("Office", "X-SnapInstanceName=office\n"));
    install("office_writer.desktop",
            RegistryDevice::entry("Writer", "X-SnapInstanceName=office\nExec=writer %U\nMimeType=text/plain;\n"));
    EXPECT_EQ(device_.systemApplications(), Names{"snap.office"});
    const BundleRecordPtr record = device_.record("snap.office");
    EXPECT_EQ(record->localizedName(), "Office");
    EXPECT_TRUE(record->supportsOpeningDocumentsInPlace());
}

TEST_F(SnapTest, InstalledTwiceIsTwoApplications) {
    install("office_office.desktop", RegistryDevice::entry("Office", "X-SnapInstanceName=office\n"));
    install("office+work_office.desktop", RegistryDevice::entry("Office", "X-SnapInstanceName=office_work\n"));
    EXPECT_EQ(device_.systemApplications(), (Names{"snap.office", "snap.office_work"}));
}

}  // namespace
}  // namespace tarnwell::registry
