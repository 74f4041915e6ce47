#include "host/CallerLibrary.h"

#include <gtest/gtest.h>

#include "tests/registry/RegistryDevice.h"

namespace tarnwell::host {
namespace {

using caller::Caller;
using registry::BundleRecordPtr;
using registry::RegistryDevice;

/// A device whose real registry finds applications of every origin.
class CallerLibraryTest : public ::testing::Test {
protected:
    void installFlatpak(const std::string& identifier) {
        device_.installFlatpak(registry::kUserFlatpaks, identifier, RegistryDevice::entry("Notes"));
        device_.makeFolder("home/.var/app/" + identifier + "/Documents");
    }
    void installSnap(const std::string& instance) {
        device_.write("var/snapd/desktop/applications/" + instance + "_notes.desktop",
                      RegistryDevice::entry("Notes", "X-SnapInstanceName=" + instance + "\n"));
        device_.makeFolder("home/snap/" + instance + "/7/Documents");
        std::filesystem::create_symlink("7", device_.path("home/snap/" + instance + "/current"));
    }
    /// An entry of the person's own that leads somewhere else.
    void writeEntry(const std::string& identifier, const std::string& container) {
        device_.write("home/.local/share/applications/" + identifier + ".desktop",
                      RegistryDevice::entry("Notes", "X-Tarnwell-DataContainer=~/" + container + "\n"));
        device_.makeFolder("home/" + container + "/Documents");
    }
    std::vector<BundleRecordPtr> records() {
        auto all = device_.records(registry::ApplicationType::user);
        for (BundleRecordPtr& record : device_.records(registry::ApplicationType::system)) all.push_back(record);
        all.push_back(nullptr);
        return all;
    }
    /// The folder that a caller may see, below the device; "everything", or the reason for nothing.
    std::string seenBy(const Caller& caller, const std::vector<BundleRecordPtr>& among) {
        const CallerScope scope = scopeOf(caller, among);
        EXPECT_EQ(scope.kind == CallerScope::Kind::library, scope.library != nullptr);
        EXPECT_EQ(scope.kind == CallerScope::Kind::nothing, !scope.reason.empty());
        if (scope.kind == CallerScope::Kind::everything) return "everything";
        if (!scope.library) return scope.reason;
        return scope.library->archived().dataContainerPath->substr(device_.path("").size());
    }
    std::string seenBy(const Caller& caller) { return seenBy(caller, records()); }

    static Caller flatpak(const std::string& identifier) { return {Caller::Kind::flatpak, identifier, {}}; }
    static Caller snap(const std::string& instance) { return {Caller::Kind::snap, instance, {}}; }

    RegistryDevice device_;
};

TEST_F(CallerLibraryTest, AProgramOfTheHostSeesEverything) {
    EXPECT_EQ(seenBy({Caller::Kind::host, {}, {}}, {}), "everything");
}

TEST_F(CallerLibraryTest, AnUnknownCallerSeesNothing) {
    installFlatpak("org.example.Notes");
    EXPECT_EQ(seenBy({Caller::Kind::unknown, {}, "the process ended"}), "the process ended");
    // Whatever else it says.
    EXPECT_EQ(seenBy({Caller::Kind::unknown, "org.example.Notes", "the process ended"}), "the process ended");
    EXPECT_EQ(CallerScope().kind, CallerScope::Kind::nothing);
}

TEST_F(CallerLibraryTest, AFlatpakSeesTheLibraryOfItsVeryID) {
    for (const char* identifier : {"org.example.Notes", "org.example.Notes.Extra", "org.example.notes"}) {
        installFlatpak(identifier);
        EXPECT_EQ(seenBy(flatpak(identifier)), "home/.var/app/" + std::string(identifier));
    }
    for (const char* identifier : {"org.example.Note", "org.example.Notes.", "org.example.NOTES", "Notes", ""}) {
        EXPECT_EQ(seenBy(flatpak(identifier)), "no app library of " + std::string(identifier));
    }
}

TEST_F(CallerLibraryTest, ASnapSeesTheLibraryOfItsVeryInstance) {
    installSnap("notes");
    installSnap("notes_work");
    EXPECT_EQ(seenBy(snap("notes")), "home/snap/notes/current");
    EXPECT_EQ(seenBy(snap("notes_work")), "home/snap/notes_work/current");
    for (const char* instance : {"notes_home", "note", "notes_", "snap.notes", ""}) {
        EXPECT_EQ(seenBy(snap(instance)), "no app library of snap." + std::string(instance));
    }
}

TEST_F(CallerLibraryTest, NoDesktopEntryIsASandboxs) {
    writeEntry("org.example.Notes", "Private");
    EXPECT_EQ(seenBy(flatpak("org.example.Notes")), "no app library of org.example.Notes");
    // Nor is it in its way.
    installFlatpak("org.example.Notes");
    EXPECT_EQ(seenBy(flatpak("org.example.Notes")), "home/.var/app/org.example.Notes");
}

TEST_F(CallerLibraryTest, ASnapAndAFlatpakOfOneNameAreTwo) {
    // A Flatpak's ID may begin like a Snap's identifier.
    installFlatpak("snap.notes.Extra");
    installSnap("notes");
    EXPECT_EQ(seenBy(snap("notes.Extra")), "no app library of snap.notes.Extra");
    EXPECT_EQ(seenBy(flatpak("snap.notes")), "no app library of snap.notes");
    EXPECT_EQ(seenBy(flatpak("snap.notes.Extra")), "home/.var/app/snap.notes.Extra");
}

TEST_F(CallerLibraryTest, WhatACacheKeptIsMatchedTheSame) {
    installFlatpak("org.example.Notes");
    installSnap("notes");
    writeEntry("org.example.Maps", "Private");
    std::vector<BundleRecordPtr> kept;
    for (const BundleRecordPtr& record : records()) {
        if (record) kept.push_back(device_.registry().recordFromArchive(record->archived()));
    }
    kept.push_back(device_.registry().recordFromArchive({}));
    ASSERT_EQ(kept.size(), 4u);
    EXPECT_EQ(seenBy(flatpak("org.example.Notes"), kept), "home/.var/app/org.example.Notes");
    EXPECT_EQ(seenBy(snap("notes"), kept), "home/snap/notes/current");
    EXPECT_EQ(seenBy(flatpak("org.example.Maps"), kept), "no app library of org.example.Maps");
}

TEST_F(CallerLibraryTest, IsFoundAmongTheLibrariesOfAGeneration) {
    installFlatpak("org.example.Notes");
    applibraries::AppLibraryGeneration libraries;
    EXPECT_EQ(scopeOf(flatpak("org.example.Notes"), libraries).kind, CallerScope::Kind::nothing);
    const BundleRecordPtr record = device_.record("org.example.Notes");
    libraries.bundleProxiesByRootURLs.set(record->dataContainerURL()->appending("Documents"), record);
    EXPECT_EQ(scopeOf(flatpak("org.example.Notes"), libraries).library, record);
    EXPECT_EQ(scopeOf(flatpak("org.example.Maps"), libraries).kind, CallerScope::Kind::nothing);
}

}  // namespace
}  // namespace tarnwell::host
