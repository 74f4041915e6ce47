#include "platform/registry/FolderListings.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstring>
#include <random>
#include <set>
#include <thread>

#include "platform/base/Descriptor.h"
#include "platform/registry/ParsedFileCache.h"
#include "tests/registry/RegistryDevice.h"

namespace tarnwell::registry {
namespace {

Names namesOf(const FolderListing& listing) {
    Names names;
    for (const FolderEntry& entry : listing) names.push_back(entry.name + (entry.isFolder ? "/" : ""));
    return names;
}

/// Until the times of what was made so far vouch for it.
void waitUntilSettled(const std::string& path) {
    for (;;) {
        const auto stamp = stampOf(path);
        ASSERT_TRUE(stamp);
        if (isSettled(*stamp)) return;
        std::this_thread::yield();
    }
}

/// Counts, by the kernel, how often files in some folders are opened.
class Opens {
public:
    void watch(const std::string& folder) {
        ASSERT_GE(inotify_add_watch(queue_.get(), folder.c_str(), IN_OPEN), 0) << std::strerror(errno);
    }
    int count() {
        int opens = 0;
        alignas(inotify_event) std::array<char, 64 * 1024> bytes;
        for (ssize_t length; (length = read(queue_.get(), bytes.data(), bytes.size())) > 0;) {
            for (std::size_t at = 0; at < static_cast<std::size_t>(length);) {
                inotify_event event{};
                std::memcpy(&event, bytes.data() + at, sizeof event);
                opens += (event.mask & IN_ISDIR) == 0 ? 1 : 0;
                at += sizeof event + event.len;
            }
        }
        return opens;
    }

private:
    const Descriptor queue_{inotify_init1(IN_CLOEXEC | IN_NONBLOCK)};
};

TEST(FolderListingsTest, ListsByNameWithoutWhatIsHidden) {
    RegistryDevice device;
    device.makeFolder("some/folder");
    device.write("some/b", "");
    device.write("some/a", "");
    device.write("some/.hidden", "");
    std::filesystem::create_symlink("folder", device.path("some/link"));
    FolderListings listings;
    const auto listing = listings.of(device.path("some"));
    EXPECT_EQ(namesOf(*listing), (Names{"a", "b", "folder/", "link"}));
    ASSERT_NE(listing->find("folder"), nullptr);
    EXPECT_TRUE(listing->find("folder")->isFolder);
    EXPECT_EQ(listing->find("f"), nullptr);
    EXPECT_EQ(listing->firstWith("c")->name, "folder");
    EXPECT_EQ(namesOf(*listings.of(device.path("missing"))), Names());
    EXPECT_EQ(namesOf(*listings.of(device.path("some/a"))), Names());
}

TEST(FolderListingsTest, AFolderIsReadAgainOnlyWhenItChanged) {
    RegistryDevice device;
    device.write("some/a", "");
    waitUntilSettled(device.path("some/a"));
    FolderListings listings;
    const auto first = listings.of(device.path("some"));
    EXPECT_EQ(listings.of(device.path("some")), first);
    device.write("some/b", "");
    // What changed just now may change again within one tick of the clock.
    const auto second = listings.of(device.path("some"));
    EXPECT_EQ(namesOf(*second), (Names{"a", "b"}));
    device.write("some/c", "");
    EXPECT_EQ(namesOf(*listings.of(device.path("some"))), (Names{"a", "b", "c"}));
    EXPECT_EQ(namesOf(*first), Names{"a"});
    // Another folder under the name.
    device.write("other/z", "");
    std::filesystem::rename(device.path("some"), device.path("former"));
    std::filesystem::rename(device.path("other"), device.path("some"));
    EXPECT_EQ(namesOf(*listings.of(device.path("some"))), Names{"z"});
    std::filesystem::remove_all(device.path("some"));
    EXPECT_EQ(namesOf(*listings.of(device.path("some"))), Names());
}

TEST(FolderListingsTest, AFolderIsSettledSomeTicksAfterItsLastChange) {
    RegistryDevice device;
    device.makeFolder("some");
    const Descriptor open(::open(device.path("some").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const std::int64_t now =
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch())
            .count();
    const std::int64_t old = now - 60'000'000'000, future = now + 60'000'000'000;
    EXPECT_TRUE(isSettledFolder({.modified = old, .changed = old}, open.get()));
    EXPECT_FALSE(isSettledFolder({.modified = old, .changed = now}, open.get()));
    EXPECT_FALSE(isSettledFolder({.modified = now, .changed = old}, open.get()));
    EXPECT_FALSE(isSettledFolder({.modified = old, .changed = future}, open.get()));
    // Of a file system that is not known to stamp in ticks.
    const Descriptor proc(::open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    EXPECT_FALSE(isSettledFolder({.modified = old, .changed = now - 500'000'000}, proc.get()));
}

TEST(FolderListingsTest, AnUnchangedApplicationsFilesAreNotOpenedAgain) {
    RegistryDevice device;
    Opens opens;
    for (const char* installation : {kUserFlatpaks, kSystemFlatpaks}) {
        for (int i = 0; i < 20; ++i) {
            const std::string identifier =
                std::string("org.example.") + (installation == kUserFlatpaks ? "U" : "S") + std::to_string(i);
            device.installFlatpak(installation, identifier, RegistryDevice::entry("A"));
            device.write(std::string(installation) + "/overrides/" + identifier, "[Context]\npersistent=.;\n");
            const std::string deployed = std::string(installation) + "/app/" + identifier + "/x86_64/stable/1";
            opens.watch(device.path(deployed));
            opens.watch(device.path(deployed + "/export/share/applications"));
        }
        opens.watch(device.path(std::string(installation) + "/overrides"));
    }
    const std::string maps = "home/.local/share/applications/maps.desktop";
    device.write(maps, RegistryDevice::entry("Maps", "X-Tarnwell-DataContainer=~/Maps\n"));
    opens.watch(device.path("home/.local/share/applications"));
    waitUntilSettled(device.path(maps));

    const auto look = [&] { return device.userApplications().size() + device.systemApplications().size(); };
    EXPECT_EQ(look(), 41U);
    EXPECT_EQ(opens.count(), 3 * 40 + 1) << "desktop file, metadata and overrides of each, once";
    EXPECT_EQ(look(), 41U);
    for (int i = 0; i < 20; ++i) EXPECT_NE(device.record("org.example.S" + std::to_string(i)), nullptr);
    EXPECT_EQ(opens.count(), 0);
    device.write("var/flatpak/overrides/org.example.S7", "[Context]\npersistent=!Documents;\n");
    (void)opens.count();
    EXPECT_EQ(look(), 41U);
    EXPECT_EQ(opens.count(), 1) << "the one that changed";
}

/// One application is looked up by the few names that its desktop file may have, all are found by reading the folders:
/// both have to find the same.
TEST(FolderListingsTest, OneIsFoundWhereAllAre) {
    std::mt19937 random(20'261'122);
    const auto oneOf = [&](const std::vector<std::string>& parts) { return parts[random() % parts.size()]; };
    for (int round = 0; round < 30; ++round) {
        SCOPED_TRACE(round);
        RegistryDevice device;
        const std::vector<std::string> tops{"home/.local/share/applications", "usr/local/applications",
                                            "usr/applications"};
        const std::vector<std::string> parts{"a", "b", "a-b", "b-a", "a-", "-a", "a.desktop"};
        std::set<std::string> identifiers;
        for (int i = 0; i < 25; ++i) {
            std::string folder = oneOf(tops), prefix;
            for (std::size_t depth = random() % 3; depth > 0; --depth) {
                const std::string part = oneOf(parts);
                folder += "/" + part;
                prefix += part + "-";
            }
            const std::string stem = oneOf(parts), file = folder + "/" + stem + ".desktop";
            std::error_code error;
            std::filesystem::create_directories(device.path(folder), error);
            if (error || std::filesystem::exists(device.path(file))) continue;
            device.write(file, RegistryDevice::entry(file, "X-Tarnwell-DataContainer=~/x\n"));
            identifiers.insert(prefix + stem);
        }
        std::map<std::string, std::string> found;
        for (const auto type : {ApplicationType::user, ApplicationType::system}) {
            for (const auto& record : device.records(type)) {
                EXPECT_TRUE(found.emplace(*record->bundleIdentifier(), *record->localizedName()).second);
            }
        }
        for (const std::string& identifier : identifiers) {
            SCOPED_TRACE(identifier);
            const auto record = device.record(identifier);
            ASSERT_EQ(record != nullptr, found.contains(identifier));
            if (record) {
                EXPECT_EQ(*record->localizedName(), found.at(identifier));
            }
        }
        EXPECT_FALSE(found.empty());
    }
}

}  // namespace
}  // namespace tarnwell::registry
