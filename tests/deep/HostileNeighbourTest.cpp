#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <thread>

#include "hostframework/HostError.h"
#include "items/LocalItem.h"
#include "items/TarnwellError.h"
#include "platform/archive/KeyedArchive.h"
#include "platform/base/Descriptor.h"
#include "tests/deep/Mirror.h"
#include "tests/deep/RandomChanges.h"

namespace tarnwell::deep {
namespace {

using items::LocalItem;
using testing::makeDirectories;
using testing::setUserAttribute;
using testing::TemporaryDirectory;
using testing::writeFile;

constexpr std::uint64_t kSecretSize = 7'777'777, kSecretRank = 424'242;
constexpr std::uint16_t kSecretEntries = 313;
constexpr const char* kSecretLabel = "outside label";
constexpr const char* kOnlyOutside = "only outside.txt";
using Looks = std::vector<std::string>;

Bytes secretTags() {
    return archive::archiveRoot(archive::ArchivedObject{archive::ArchivedArray{{std::string(kSecretLabel)}}});
}

/// A file of a size and with attributes that no other file has.
void writeSecret(const std::string& path) {
    writeFile(path, "secret");
    ASSERT_EQ(::truncate(path.c_str(), kSecretSize), 0);
    setUserAttribute(path, LocalItem::xattrTagDataName, textOf(secretTags()));
    const auto rank = archive::archiveRoot(archive::ArchivedObject{archive::Integer{kSecretRank, false}});
    setUserAttribute(path, LocalItem::xattrFavoriteRankName, textOf(rank));
}

/// A folder beside the storage root, with the names that stand in it, too, and a watch that tells of every look into
/// it.
class Outside {
public:
    Outside() : watch_(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
        makeDirectories(folder());
        writeSecret(secret());
        writeSecret(directory_.path("folder/" + std::string(kOnlyOutside)));
        for (int i = 2; i < kSecretEntries; ++i) writeFile(folder() + "/outside " + std::to_string(i), "");
        for (const auto& path : {directory_.path(), folder(), secret()}) {
            EXPECT_GE(::inotify_add_watch(watch_.get(), path.c_str(), IN_OPEN | IN_ACCESS | IN_MODIFY | IN_ATTRIB), 0);
        }
    }
    std::string folder() const { return directory_.path("folder"); }
    std::string secret() const { return directory_.path("folder/secret.txt"); }

    /// Looks into it since the last call, each with what was looked at.
    std::vector<std::string> looks() {
        alignas(inotify_event) std::array<char, 64 * 1024> buffer;
        std::vector<std::string> looks;
        for (ssize_t got; (got = ::read(watch_.get(), buffer.data(), buffer.size())) > 0;) {
            for (ssize_t at = 0; at < got;) {
                const auto* event = reinterpret_cast<const inotify_event*>(buffer.data() + at);
                looks.push_back(std::to_string(event->mask) + " " +
                                (event->len > 0 ? event->name : "the place itself"));
                at += static_cast<ssize_t>(sizeof *event + event->len);
            }
        }
        return looks;
    }

private:
    TemporaryDirectory directory_;
    Descriptor watch_;
};

/// Says what of the item comes from outside; nothing for an item that is all right.
std::string outsideIn(const hostframework::ProviderItem& item) {
    if (item.documentSize() == kSecretSize) return "the size";
    if (item.favoriteRank() == kSecretRank) return "the rank";
    if (item.tagData() && textOf(*item.tagData()).find(kSecretLabel) != std::string_view::npos) return "the labels";
    if (item.childItemCount() == kSecretEntries) return "the number of entries";
    if (item.filename() == kOnlyOutside || item.filename().starts_with("outside ")) return "the name";
    return {};
}

/// What may come of a request while everything moves.
bool mayHappen(const Error& error) {
    return error == hostframework::syncAnchorExpired() || error.is(ErrorDomain::host, hostframework::kNoSuchItem) ||
           error == items::makeError(items::TarnwellError::invalidItemIdentifier) ||
           // The folder went between its enumerator and its listing: its volume cannot be asked for.
           error.domain == ErrorDomain::deviceUUID;
}

TEST(HostileNeighbourChecks, FindALookOutsideAndAnItemFromThere) {
    Outside outside;
    EXPECT_EQ(outside.looks(), Looks{});
    (void)readDisk(outside.folder());
    EXPECT_NE(outside.looks(), Looks{});
    (void)testing::readFile(outside.folder() + "/outside 2");
    EXPECT_NE(outside.looks(), Looks{});

    DeepDevice device;
    writeSecret(device.device().path("secret.txt"));
    makeDirectories(device.device().path("folder"));
    for (int i = 0; i < kSecretEntries; ++i) writeFile(device.device().path("folder/" + std::to_string(i)), "");
    const auto items = device.list(hostframework::kRootContainer, host::Depth::direct);
    ASSERT_TRUE(items.has_value());
    ASSERT_EQ(items->size(), 2u);
    for (const auto& [item, name] : *items) EXPECT_NE(outsideIn(*item), "") << name;
    const auto local = std::dynamic_pointer_cast<const LocalItem>(items->front().item);
    ASSERT_NE(local, nullptr);
}

/// Swaps places with links that lead outside, again and again.
class Swapper {
public:
    Swapper(std::string root, const Outside& outside) {
        for (const std::string below : {"", "/deep", "/deep/deeper"}) {
            const std::string at = root + "/stage" + below;
            makeDirectories(at + "/folder");
            writeFile(at + "/folder/secret.txt", "inside");
            writeFile(at + "/secret.txt", "inside");
            link(outside.folder(), at + "/link to folder");
            link(outside.secret(), at + "/link to secret");
            link(outside.folder(), at + "/folder/link");
            pairs_.push_back({at + "/folder", at + "/link to folder"});
            pairs_.push_back({at + "/secret.txt", at + "/link to secret"});
            pairs_.push_back({at + "/folder", at + "/secret.txt"});
        }
        pairs_.push_back({root + "/stage/deep", root + "/stage/link to folder"});
    }
    void step(std::uint64_t choice) {
        const auto& [a, b] = pairs_[choice % pairs_.size()];
        ::renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), RENAME_EXCHANGE);
    }

private:
    static void link(const std::string& target, const std::string& path) {
        ASSERT_EQ(::symlink(target.c_str(), path.c_str()), 0);
    }
    std::vector<std::pair<std::string, std::string>> pairs_;
};

TEST(HostileNeighbour, WhoSwapsFoldersFilesAndLinksGetsNothingFromOutsideShown) {
    const std::uint64_t seed = chooseSeed("HostileNeighbour");
    const auto duration = isLongRun() ? std::chrono::seconds(60) : std::chrono::seconds(3);
    Outside outside;
    DeepDevice device;
    const std::string root = device.device().path();
    Swapper swapper(root, outside);
    makeDirectories(root + "/random");
    ASSERT_EQ(outside.looks(), Looks{});

    std::atomic<bool> over{false};
    std::thread swapping([&] {
        // Its links lead to a file, so that its own work never goes through one of them.
        RandomChanges changes(root + "/random", seed, {.mostNames = 60, .outside = outside.secret()});
        while (!over) {
            for (int i = 0; i < 20; ++i) swapper.step(changes.below(1000));
            changes.step();
        }
    });

    std::size_t rounds = 0, seen = 0;
    std::set<std::string> identifiers;
    const auto check = [&](const hostframework::ProviderItem& item, const std::string& how) {
        ++seen;
        const auto what = outsideIn(item);
        EXPECT_EQ(what, "") << how << ": " << item.description();
        if (const auto* local = dynamic_cast<const LocalItem*>(&item)) (void)local->putBackURL();
        if (identifiers.size() < 500) identifiers.insert(item.itemIdentifier());
    };
    const auto end = std::chrono::steady_clock::now() + duration;
    while (std::chrono::steady_clock::now() < end && !::testing::Test::HasFailure()) {
        ++rounds;
        for (const auto& container : {hostframework::kRootContainer, hostframework::kAllDirectoriesContainer}) {
            const bool isRoot = container == hostframework::kRootContainer;
            const auto items = device.list(container, isRoot ? host::Depth::recursive : host::Depth::direct);
            if (items) {
                for (const auto& [item, path] : *items) check(*item, "listed at " + path);
            } else {
                EXPECT_TRUE(mayHappen(items.error())) << describe(items.error());
            }
        }
        for (const auto& identifier : identifiers) {
            const auto item = device.provider().itemForIdentifier(identifier);
            if (item) {
                ++seen;
                EXPECT_EQ(outsideIn(**item), "") << identifier;
            } else {
                EXPECT_TRUE(mayHappen(item.error())) << describe(item.error());
            }
        }
        for (const std::string below : {"stage", "stage/deep", "stage/deep/deeper"}) {
            for (const char* name : {"folder", "folder/secret.txt", "folder/link", "folder/only outside.txt",
                                     "link to folder", "link to folder/secret.txt", "secret.txt", "link to secret"}) {
                const std::string path = below + "/" + name;
                const auto item = device.provider().lookup().itemForURL(device.device().url(path));
                if (item) check(**item, "looked up at " + path);
            }
        }
    }
    over = true;
    swapping.join();
    EXPECT_EQ(outside.looks(), Looks{}) << "something outside was opened or read";
    EXPECT_GT(rounds, 0u);
    EXPECT_GT(seen, 100u);

    // Left in peace, everything is as the disk says.
    device.waitUntilQuiet();
    const Disk disk = readDisk(root);
    EXPECT_EQ(compareWithDisk(listEverything(device, disk), disk), Problems{}) << "TARNWELL_DEEP_SEED=" << seed;
}

}  // namespace
}  // namespace tarnwell::deep
