#include <gtest/gtest.h>

#include "tests/registry/RegistryDevice.h"

namespace tarnwell::registry {
namespace {

class FlatpakTest : public ::testing::Test {
protected:
    RegistryDevice device_;
};

TEST_F(FlatpakTest, IsListedByTheInstallationItIsIn) {
    device_.installFlatpak(kSystemFlatpaks, "org.example.Sketches", RegistryDevice::entry("Sketches"));
    device_.installFlatpak("opt/flatpak", "org.example.Atlas", RegistryDevice::entry("Atlas"));
    device_.installFlatpak(kUserFlatpaks, "org.example.Notes", RegistryDevice::entry("Notes"));
    device_.installFlatpak(kUserFlatpaks, "org.example.Chess", RegistryDevice::entry("Chess"));
    EXPECT_EQ(device_.userApplications(), (Names{"org.example.Chess", "org.example.Notes"}));
    EXPECT_EQ(device_.systemApplications(), (Names{"org.example.Atlas", "org.example.Sketches"}));
    EXPECT_EQ(device_.log.texts(), Names{});
}

TEST_F(FlatpakTest, KeepsItsDataInVarApp) {
    device_.installFlatpak(kUserFlatpaks, "org.example.Notes", RegistryDevice::entry("Notes"));
    device_.makeFolder("home/.var/app/org.example.Notes/Documents");
    const BundleRecordPtr record = device_.record("org.example.Notes");
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->origin(), Origin::flatpak);
    EXPECT_EQ(record->type(), ApplicationType::user);
    EXPECT_EQ(record->localizedName(), "Notes");
    EXPECT_EQ(record->dataContainerURL(), URL::file(device_.path("home/.var/app/org.example.Notes")));
    EXPECT_EQ(record->description(),
              "org.example.Notes (flatpak) at \"" + device_.path("home/.var/app/org.example.Notes") + "\"");
}

TEST_F(FlatpakTest, SaysOnceThatThereAreNoDocuments) {
    device_.installFlatpak(kUserFlatpaks, "org.example.Notes", RegistryDevice::entry("Notes"));
    const std::string container = device_.path("home/.var/app/org.example.Notes");
    const std::string line =
        "[DEBUG] no documents of \"org.example.Notes\" in \"" + container + "\"; " + describe(posixError(ENOENT));
    EXPECT_EQ(device_.record("org.example.Notes")->dataContainerURL(), std::nullopt);
    EXPECT_EQ(device_.record("org.example.Notes")->dataContainerURL(), std::nullopt);
    EXPECT_EQ(device_.log.texts(log::Level::debug), Names{line});
}

TEST_F(FlatpakTest, ReachesItsContainerThroughALinkThatIsResolvedOnce) {
    device_.installFlatpak(kUserFlatpaks, "org.example.Notes", RegistryDevice::entry("Notes"));
    device_.makeFolder("big-disk/notes/Documents");
    device_.makeFolder("home/.var/app");
    const std::string link = device_.path("home/.var/app/org.example.Notes");
    std::filesystem::create_symlink(device_.path("big-disk/notes"), link);
    const BundleRecordPtr record = device_.record("org.example.Notes");
    EXPECT_EQ(record->dataContainerURL(), URL::file(device_.path("big-disk/notes")));
    EXPECT_EQ(record->archived().dataContainerPath, device_.path("big-disk/notes"));
    std::filesystem::remove(link);
    EXPECT_EQ(record->dataContainerURL(), URL::file(device_.path("big-disk/notes")));
}

TEST_F(FlatpakTest, ThatGotAnotherIDLeavesItsDocumentsToIt) {
    device_.installFlatpak(kUserFlatpaks, "org.example.Old", RegistryDevice::entry("Old"));
    device_.makeFolder("home/.var/app/org.example.Old/Documents");
    const BundleRecordPtr before = device_.record("org.example.Old");
    EXPECT_EQ(before->dataContainerURL(), URL::file(device_.path("home/.var/app/org.example.Old")));
    const ArchivedBundleRecord archived = before->archived();

    // As Flatpak does it when the new one is first run.
    std::filesystem::rename(device_.path("home/.var/app/org.example.Old"),
                            device_.path("home/.var/app/org.example.New"));
    std::filesystem::create_directory_symlink("org.example.New", device_.path("home/.var/app/org.example.Old"));
    const URL moved = URL::file(device_.path("home/.var/app/org.example.New"));
    EXPECT_EQ(device_.record("org.example.Old")->dataContainerURL(), moved) << "nobody else has them";

    device_.installFlatpak(kSystemFlatpaks, "org.example.New", RegistryDevice::entry("New"));
    EXPECT_EQ(device_.record("org.example.New")->dataContainerURL(), moved);
    EXPECT_EQ(device_.record("org.example.Old")->dataContainerURL(), std::nullopt);
    EXPECT_EQ(device_.registry().recordFromArchive(archived)->dataContainerURL(), std::nullopt);
    EXPECT_TRUE(device_.log.contains("[DEBUG] no documents of \"org.example.Old\" in \"" +
                                     device_.path("home/.var/app/org.example.Old") +
                                     "\"; they are those of \"org.example.New\""));

    std::filesystem::remove_all(device_.path("home/.var/app/org.example.New"));
    EXPECT_EQ(device_.record("org.example.Old")->dataContainerURL(), std::nullopt);
}

struct FileSharingRow {
    std::string context;
    std::string systemOverride, userGlobalOverride, userOverride;
    bool shares;
};

TEST_F(FlatpakTest, SharesFilesWhenItsSandboxKeepsDocuments) {
    const std::vector<FileSharingRow> rows = {
        {"persistent=Documents;", "", "", "", true},
        {"persistent=Documents", "", "", "", true},
        {"persistent=.config;Documents;", "", "", "", true},
        {"persistent=.;", "", "", "", true},
        {"persistent=./Documents/;", "", "", "", true},
        {"persistent=./;", "", "", "", true},
        {"persistent=Documents/Notes;", "", "", "", false},
        {"persistent=documents;", "", "", "", false},
        {"persistent=..;", "", "", "", false},
        {"persistent=", "", "", "", false},
        {"persistent=!Documents;Documents;", "", "", "", true},
        {"persistent=Documents;!Documents;", "", "", "", false},
        {"filesystems=xdg-documents;", "", "", "", false},
        {"", "", "", "", false},
        {"", "persistent=Documents;", "", "", true},
        {"", "", "persistent=Documents;", "", true},
        {"", "", "", "persistent=Documents;", true},
        {"persistent=Documents;", "persistent=!Documents;", "", "", false},
        {"persistent=Documents;", "", "persistent=!Documents;", "", false},
        {"persistent=Documents;", "", "", "persistent=!Documents;", false},
        {"persistent=Documents;", "persistent=!Documents;", "", "persistent=Documents;", true},
        {"", "persistent=Documents;", "persistent=!Documents;", "", false},
        {"", "", "persistent=Documents;", "persistent=!./Documents/;", false},
        {"persistent=.;", "", "", "persistent=!Documents;", true},
        {"persistent=.;", "", "", "persistent=!.;", false},
    };
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const FileSharingRow& row = rows[i];
        SCOPED_TRACE(row.context + " | " + row.systemOverride + " | " + row.userGlobalOverride + " | " +
                     row.userOverride);
        RegistryDevice device;
        device.installFlatpak(kSystemFlatpaks, "org.example.Notes", RegistryDevice::entry("Notes"), row.context + "\n");
        const auto override = [&device](const std::string& file, const std::string& lines) {
            if (!lines.empty()) device.write(file, "[Context]\n" + lines + "\n");
        };
        override("var/flatpak/overrides/org.example.Notes", row.systemOverride);
        override("home/.local/share/flatpak/overrides/global", row.userGlobalOverride);
        override("home/.local/share/flatpak/overrides/org.example.Notes", row.userOverride);
        EXPECT_EQ(device.record("org.example.Notes")->isFileSharingEnabled(), row.shares);
    }
}

TEST_F(FlatpakTest, IsNotToldByAnOverrideOfAnotherInstallation) {
    device_.installFlatpak(kUserFlatpaks, "org.example.Notes", RegistryDevice::entry("Notes"), "");
    device_.write("var/flatpak/overrides/org.example.Notes", "[Context]\npersistent=Documents;\n");
    EXPECT_FALSE(device_.record("org.example.Notes")->isFileSharingEnabled());
}

TEST_F(FlatpakTest, IsNotToldByTheMetadataOfAnotherApplication) {
    device_.installFlatpak(kUserFlatpaks, "org.example.Notes", RegistryDevice::entry("Notes"));
    device_.write("home/.local/share/flatpak/app/org.example.Notes/x86_64/stable/1/metadata",
                  "[Application]\nname=org.example.Other\n[Context]\npersistent=Documents;\n");
    EXPECT_FALSE(device_.record("org.example.Notes")->isFileSharingEnabled());
}

TEST_F(FlatpakTest, WithDamagedMetadataIsListedAndSharesNothing) {
    device_.installFlatpak(kUserFlatpaks, "org.example.Notes", RegistryDevice::entry("Notes"));
    const std::string metadata =
        device_.path("home/.local/share/flatpak/app/org.example.Notes/current/active/metadata");
    testing::writeFile(metadata, "persistent=Documents;\n");
    EXPECT_EQ(device_.userApplications(), Names{"org.example.Notes"});
    EXPECT_FALSE(device_.record("org.example.Notes")->isFileSharingEnabled());
    EXPECT_EQ(device_.log.texts(), Names{"[DEBUG] skipped the metadata file \"" + metadata + "\"; not a key file"});
}

TEST_F(FlatpakTest, OfSeveralDesktopFilesIsOneApplication) {
    const std::string folder = std::string(kUserFlatpaks) + "/exports/share/applications/";
    device_.write(folder + "org.example.Notes-viewer.desktop",
                  RegistryDevice::entry("Viewer", "X-Flatpak=org.example.Notes\nExec=view %f\nMimeType=text/plain;\n"));
    device_.write(
        folder + "org.example.Notes.Browser.desktop",
        RegistryDevice::entry("Browser", "X-Flatpak=org.example.Notes\nX-Tarnwell-SupportsDocumentBrowser=true\n"));
    device_.write(folder + "org.example.Notes.desktop", RegistryDevice::entry("Notes", "Exec=notes\n"));
    EXPECT_EQ(device_.userApplications(), Names{"org.example.Notes"});
    for (const BundleRecordPtr& record :
         {device_.records(ApplicationType::user).at(0), device_.record("org.example.Notes")}) {
        EXPECT_EQ(record->localizedName(), "Notes");
        EXPECT_TRUE(record->supportsOpeningDocumentsInPlace());
        EXPECT_EQ(record->infoValues({"UISupportsDocumentBrowser"}),
                  (std::map<std::string, bool>{{"UISupportsDocumentBrowser", true}}));
    }
    EXPECT_EQ(device_.record("org.example.Notes.Browser"), nullptr);
}

TEST_F(FlatpakTest, IsNotTakenForAnotherThatItNames) {
    const std::string folder = std::string(kUserFlatpaks) + "/exports/share/applications/";
    device_.write(folder + "org.example.Notes.desktop",
                  RegistryDevice::entry("Notes", "X-Flatpak=org.example.Other\n"));
    device_.write(folder + "org.example.Notes2.desktop", RegistryDevice::entry("Two", "X-Flatpak=org.example.Notes\n"));
    EXPECT_EQ(device_.userApplications(), (Names{"org.example.Notes", "org.example.Notes2"}));
}

TEST_F(FlatpakTest, LeavesNothingBehindWhenItsExportDangles) {
    device_.installFlatpak(kUserFlatpaks, "org.example.Notes", RegistryDevice::entry("Notes"));
    std::filesystem::remove_all(device_.path("home/.local/share/flatpak/app"));
    EXPECT_EQ(device_.userApplications(), Names{});
    EXPECT_EQ(device_.log.texts(), Names{});
}

TEST_F(FlatpakTest, WhatIsHiddenDoesNotExistWhatIsNotDisplayedDoes) {
    device_.installFlatpak(kSystemFlatpaks, "org.example.Hidden", RegistryDevice::entry("Hidden"));
    device_.installFlatpak(kUserFlatpaks, "org.example.Hidden", RegistryDevice::entry("Hidden", "Hidden=true\n"));
    device_.installFlatpak(kUserFlatpaks, "org.example.Quiet", RegistryDevice::entry("Quiet", "NoDisplay=true\n"));
    device_.installFlatpak(kUserFlatpaks, "org.example.Shown", RegistryDevice::entry("Shown", "Hidden=false\n"));
    EXPECT_EQ(device_.userApplications(), (Names{"org.example.Quiet", "org.example.Shown"}));
    EXPECT_EQ(device_.systemApplications(), Names{"org.example.Hidden"});
}

TEST_F(FlatpakTest, OfAnUnusableIdentifierIsSkippedWithOneLine) {
    const std::string folder = std::string(kUserFlatpaks) + "/exports/share/applications/";
    device_.write(folder + "did=7.desktop", RegistryDevice::entry("Forged"));
    device_.write(folder + "org..example.desktop", RegistryDevice::entry("Dots"));
    device_.write(folder + "snap.notes.desktop", RegistryDevice::entry("As a Snap"));
    device_.write(folder + "org.example.Ok.desktop", RegistryDevice::entry("Fine"));
    const auto line = [this, &folder](const std::string& identifier) {
        return "[DEBUG] skipped the application \"" + identifier + "\" of \"" +
               device_.path(folder + identifier + ".desktop") + "\"; its identifier cannot name an app library";
    };
    EXPECT_EQ(device_.userApplications(), Names{"org.example.Ok"});
    EXPECT_EQ(device_.systemApplications(), Names{});
    EXPECT_EQ(device_.log.texts(), (Names{line("did=7"), line("org..example"), line("snap.notes")}));
}

TEST_F(FlatpakTest, ComesBeforeADesktopEntryOfTheSameIdentifier) {
    device_.installFlatpak(kUserFlatpaks, "org.example.Notes", RegistryDevice::entry("Packed"));
    device_.write("home/.local/share/applications/org.example.Notes.desktop",
                  RegistryDevice::entry("Plain", "X-Tarnwell-DataContainer=/nowhere\n"));
    EXPECT_EQ(device_.userApplications(), Names{"org.example.Notes"});
    EXPECT_EQ(device_.record("org.example.Notes")->origin(), Origin::flatpak);
    const BundleRecordPtr plain = device_.registry().recordFromArchive(
        {"org.example.Notes", "/nowhere", Origin::desktopEntry, ApplicationType::user});
    EXPECT_EQ(plain->localizedName(), "Plain") << "an archived record keeps to its origin";
}

}  // namespace
}  // namespace tarnwell::registry
