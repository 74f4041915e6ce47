#include "platform/registry/RegistryWatch.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <thread>

#include "tests/registry/RegistryDevice.h"

namespace tarnwell::registry {
namespace {

namespace disk = std::filesystem;
using namespace std::chrono_literals;

constexpr const char* kUser = "home/.local/share/flatpak";

class RegistryWatchTest : public ::testing::Test {
protected:
    void begin() {
        auto watch = device_.registry().watch([this] {
            const std::lock_guard lock(mutex_);
            ++told_;
            changed_.notify_all();
        });
        ASSERT_TRUE(watch) << describe(watch.error());
        watch_ = std::move(*watch);
    }
    int told() {
        const std::lock_guard lock(mutex_);
        return told_;
    }
    /// It is told within two seconds of what the body does.
    void expectTold(const std::function<void()>& body) {
        std::unique_lock lock(mutex_);
        const int before = told_;
        lock.unlock();
        body();
        lock.lock();
        EXPECT_TRUE(changed_.wait_for(lock, 2s, [&] { return told_ > before; }));
        lock.unlock();
        settle();
    }
    /// Waits until nothing more of it is told.
    void settle() {
        std::unique_lock lock(mutex_);
        for (int before = told_ - 1; before != told_;) {
            before = told_;
            changed_.wait_for(lock, 400ms, [&] { return told_ > before; });
        }
    }
    void expectSilence(const std::function<void()>& body) {
        const int before = told();
        body();
        std::unique_lock lock(mutex_);
        EXPECT_FALSE(changed_.wait_for(lock, 600ms, [&] { return told_ > before; }));
    }
    void remove(const std::string& relative) { disk::remove_all(device_.path(relative)); }
    void move(const std::string& from, const std::string& to) { disk::rename(device_.path(from), device_.path(to)); }

    RegistryDevice device_;
    std::mutex mutex_;
    std::condition_variable changed_;
    int told_ = 0;
    std::unique_ptr<RegistryWatch> watch_;
};

TEST_F(RegistryWatchTest, TheFirstFlatpakOfAllItsUpdatesAndItsRemovalAreTold) {
    device_.makeFolder("home");
    begin();
    expectTold([&] { device_.installFlatpak(kUser, "org.example.Notes", device_.entry("Notes")); });
    EXPECT_EQ(device_.userApplications(), (std::vector<std::string>{"org.example.Notes"}));
    const std::string app = std::string(kUser) + "/app/org.example.Notes/x86_64/stable";
    expectTold([&] {
        device_.write(app + "/2/metadata", "[Application]\nname=org.example.Notes\n");
        disk::create_symlink("2", device_.path(app + "/next"));
        move(app + "/next", app + "/active");
    });
    // The export leads nowhere in the new version until it has one.
    expectTold([&] {
        device_.write(app + "/2/export/share/applications/org.example.Notes.desktop", device_.entry("Renamed"));
    });
    expectTold([&] { device_.write(std::string(kUser) + "/.changed", ""); });
    expectTold([&] { remove(std::string(kUser) + "/exports/share/applications/org.example.Notes.desktop"); });
    EXPECT_TRUE(device_.userApplications().empty());
}

TEST_F(RegistryWatchTest, OverridesAreTold) {
    device_.installFlatpak("var/flatpak", "org.example.Notes", device_.entry("Notes"), "");
    begin();
    const std::string overrides = std::string(kUser) + "/overrides/org.example.Notes";
    expectTold([&] { device_.write(overrides, "[Context]\npersistent=Documents;\n"); });
    expectTold([&] { device_.write(overrides, "[Context]\n"); });
    expectTold([&] { remove(overrides); });
}

TEST_F(RegistryWatchTest, AContainerAndItsDocumentsMayComeLaterAndGo) {
    device_.installFlatpak(kUser, "org.example.Notes", device_.entry("Notes"));
    begin();
    const std::string container = "home/.var/app/org.example.Notes";
    expectTold([&] { device_.makeFolder(container); });
    expectTold([&] { device_.makeFolder(container + "/Documents"); });
    expectTold([&] { move(container + "/Documents", container + "/Elsewhere"); });
    expectTold([&] { remove(container); });
    expectTold([&] { device_.makeFolder(container + "/Documents"); });
    expectTold([&] {
        move("home/.var", "home/.former");
        device_.makeFolder("home/.var/app");
    });
    expectTold([&] { device_.makeFolder(container + "/Documents"); });
}

TEST_F(RegistryWatchTest, ASnapsNextRevisionIsTold) {
    device_.write("var/snapd/desktop/applications/notes_notes.desktop", device_.entry("Notes"));
    device_.makeFolder("home/snap/notes/x1/Documents");
    disk::create_symlink("x1", device_.path("home/snap/notes/current"));
    begin();
    expectTold([&] {
        device_.makeFolder("home/snap/notes/x2");
        disk::create_symlink("x2", device_.path("home/snap/notes/next"));
        move("home/snap/notes/next", "home/snap/notes/current");
    });
    expectTold([&] { device_.makeFolder("home/snap/notes/x2/Documents"); });
    expectSilence([&] { device_.makeFolder("home/snap/notes/x1/Further"); });
}

TEST_F(RegistryWatchTest, DesktopEntriesAreToldWhereverTheyLie) {
    device_.makeFolder("home");
    begin();
    const std::string entry = "home/.local/share/applications/vendor/maps.desktop";
    const auto text = device_.entry("Maps", "X-Tarnwell-DataContainer=~/Maps\n");
    expectTold([&] { device_.write(entry, text); });
    EXPECT_EQ(device_.userApplications(), (std::vector<std::string>{"vendor-maps"}));
    expectTold([&] { device_.makeFolder("home/Maps/Documents"); });
    expectTold([&] { device_.write(entry, text + "Hidden=true\n"); });
    expectTold([&] { ASSERT_EQ(::chmod(device_.path(entry).c_str(), 0), 0); });
    expectTold([&] { remove("home/.local/share/applications/vendor"); });
    device_.write("elsewhere/linked.desktop", device_.entry("Linked"));
    expectTold([&] {
        device_.makeFolder("usr/applications");
        disk::create_symlink(device_.path("elsewhere/linked.desktop"), device_.path("usr/applications/linked.desktop"));
    });
    expectTold([&] { device_.write("elsewhere/linked.desktop", device_.entry("Linked", "Hidden=true\n")); });
}

TEST_F(RegistryWatchTest, WhatApplicationsAndPeopleDoWithTheirOwnFilesIsNotTold) {
    device_.installFlatpak(kUser, "org.example.Notes", device_.entry("Notes"));
    const std::string container = "home/.var/app/org.example.Notes";
    device_.makeFolder(container + "/Documents/folder");
    begin();
    expectSilence([&] {
        device_.write("home/letter.txt", "text");
        device_.write(container + "/config", "text");
        device_.makeFolder(container + "/cache/a");
        device_.write(container + "/Documents/Note.txt", "text");
        device_.write(container + "/Documents/folder/Note.txt", "text");
        device_.makeFolder("home/.var/app/org.example.Unknown/Documents");
        remove("home/letter.txt");
    });
}

TEST_F(RegistryWatchTest, AHundredInstallationsAtOnceAreToldOnceOrTwice) {
    device_.makeFolder(kUser);
    begin();
    const int before = told();
    expectTold([&] {
        for (int i = 0; i < 100; ++i) {
            device_.installFlatpak(kUser, "org.example.App" + std::to_string(i), device_.entry("App"));
        }
    });
    EXPECT_LE(told() - before, 2);
    EXPECT_EQ(device_.userApplications().size(), 100u);
    // Of the last one, too, everything is watched by now.
    expectTold([&] { device_.makeFolder("home/.var/app/org.example.App99/Documents"); });
}

TEST_F(RegistryWatchTest, AnApplicationsNameIsReadAgainOnlyAfterAChangeAndThenAtOnce) {
    device_.installFlatpak(kUser, "org.example.Notes", device_.entry("Notes", "Name[de]=Notizen\n"));
    const std::string deployed = device_.path(std::string(kUser) +
                                              "/app/org.example.Notes/x86_64/stable/1/export/share/applications/"
                                              "org.example.Notes.desktop");
    begin();
    const auto name = [&] {
        return device_.registry()
            .recordFromArchive({"org.example.Notes", "/nowhere", Origin::flatpak, ApplicationType::user})
            ->localizedName()
            .value_or("none");
    };
    const auto waitUntilKnown = [&] {
        while (!watch_->state()->current()) std::this_thread::yield();
    };
    waitUntilKnown();
    EXPECT_EQ(name(), "Notes");
    // What happens under a name that the file has elsewhere is told to nobody: it shows who looks.
    disk::create_hard_link(deployed, device_.path("elsewhere"));
    settle();
    waitUntilKnown();
    EXPECT_EQ(name(), "Notes");
    testing::writeFile(device_.path("elsewhere"), device_.entry("Unseen", "Name[de]=Ungesehen\n"));
    EXPECT_EQ(name(), "Notes");
    EXPECT_TRUE(device_.registry().setLanguages({"de"}));
    EXPECT_EQ(name(), "Ungesehen");
    EXPECT_FALSE(device_.registry().setLanguages({"de"}));
    EXPECT_TRUE(device_.registry().setLanguages({}));

    for (int i = 0; i < 200; ++i) {
        if (i % 50 == 0) waitUntilKnown();
        const std::string next = "Version " + std::to_string(i);
        testing::writeFile(deployed + ".new", device_.entry(next));
        disk::rename(deployed + ".new", deployed);
        EXPECT_EQ(name(), next);
        EXPECT_EQ(name(), next);
    }
    remove(std::string(kUser) + "/exports/share/applications/org.example.Notes.desktop");
    EXPECT_EQ(name(), "none");
    const auto state = watch_->state();
    watch_.reset();
    EXPECT_EQ(state->current(), std::nullopt);
}

TEST_F(RegistryWatchTest, EndsWhileThingsHappen) {
    device_.makeFolder(kUser);
    begin();
    for (int i = 0; i < 20; ++i) device_.write("home/.local/share/applications/a" + std::to_string(i), "");
    watch_.reset();
    const int before = told();
    device_.write("home/.local/share/applications/b", "");
    std::this_thread::sleep_for(600ms);
    EXPECT_EQ(told(), before);
}

TEST(WatchedFolders, LinksThatLeadInCirclesEnd) {
    testing::TemporaryDirectory directory;
    disk::create_symlink("b", directory.path("a"));
    disk::create_symlink("a", directory.path("b"));
    std::string wide = "deep";
    while (wide.size() < 4000) wide += "/../deep";
    disk::create_symlink(wide, directory.path("deep"));
    WatchedFolders folders;
    folders.add(directory.path("a/file"));
    folders.addContents(directory.path("deep"));
    const auto at = folders.folders().find(disk::canonical(directory.path("")).string());
    ASSERT_NE(at, folders.folders().end());
    EXPECT_TRUE(at->second.hold("a"));
    EXPECT_TRUE(at->second.hold("b"));
    EXPECT_TRUE(at->second.hold("deep"));
    EXPECT_FALSE(at->second.hold("c"));
    EXPECT_TRUE(folders.isComplete());
}

TEST(WatchedFolders, OnlyPathsFromTheTopCount) {
    WatchedFolders folders;
    folders.add("relative/path");
    folders.add("");
    folders.addContents("/" + std::string(10'000, 'x'));
    EXPECT_TRUE(folders.folders().empty());
}

}  // namespace
}  // namespace tarnwell::registry
