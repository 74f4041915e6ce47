#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "hostframework/HostError.h"
#include "items/LocalItem.h"
#include "items/TarnwellError.h"
#include "platform/archive/KeyedArchive.h"
#include "platform/base/Descriptor.h"
#include "testing/RandomChanges.h"
#include "tests/deep/LookWatch.h"
#include "tests/deep/Mirror.h"

namespace tarnwell::deep {

using testing::RandomChanges;
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

/// A folder beside the storage root, with the names that stand in it, too, and a watch on every look into it.
class Outside {
public:
    Outside() : watch_(filled(directory_.path())) {}
    std::string folder() const { return directory_.path("folder"); }
    std::string secret() const { return directory_.path("folder/secret.txt"); }
    LookWatch& watch() { return watch_; }
    Looks looks() { return watch_.looks(); }

private:
    /// Puts everything there and returns the places to watch.
    static std::vector<std::string> filled(const std::string& above) {
        const std::string folder = above + "/folder", secret = folder + "/secret.txt";
        makeDirectories(folder);
        writeSecret(secret);
        writeSecret(folder + "/" + kOnlyOutside);
        for (int i = 2; i < kSecretEntries; ++i) writeFile(folder + "/outside " + std::to_string(i), "");
        return {above, folder, secret};
    }
    TemporaryDirectory directory_;
    LookWatch watch_;
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

struct Look {
    const char* name;
    std::function<void(const Outside&)> take;
};

void open(const std::string& path, int flags, const std::function<void(int)>& use = {}) {
    const Descriptor file(::open(path.c_str(), flags | O_CLOEXEC));
    ASSERT_TRUE(file.valid()) << path;
    if (use) use(file.get());
}

TEST(HostileNeighbourChecks, FindEveryKindOfLookOutside) {
    char byte = 'x';
    const Look rows[] = {
        {"open the folder", [](const Outside& at) { open(at.folder(), O_RDONLY | O_DIRECTORY); }},
        {"read the folder", [](const Outside& at) { (void)readDisk(at.folder()); }},
        {"open a file", [](const Outside& at) { open(at.folder() + "/outside 2", O_RDONLY); }},
        {"read the secret",
         [&](const Outside& at) {
             open(at.secret(), O_RDONLY, [&](int file) { EXPECT_EQ(::read(file, &byte, 1), 1); });
         }},
        {"write into the secret",
         [&](const Outside& at) {
             open(at.secret(), O_WRONLY, [&](int file) { EXPECT_EQ(::pwrite(file, &byte, 1, 0), 1); });
         }},
        {"change a mode", [](const Outside& at) { EXPECT_EQ(::chmod(at.secret().c_str(), 0600), 0); }},
        {"set an attribute", [](const Outside& at) { setUserAttribute(at.folder(), "note", "x"); }},
        {"read through a link",
         [](const Outside& at) {
             const TemporaryDirectory elsewhere;
             ASSERT_EQ(::symlink(at.folder().c_str(), elsewhere.path("link").c_str()), 0);
             (void)testing::readFile(elsewhere.path("link/outside 2"));
         }},
    };
    Outside outside;
    EXPECT_EQ(outside.looks(), Looks{});
    for (const auto& [name, take] : rows) {
        SCOPED_TRACE(name);
        take(outside);
        EXPECT_NE(outside.looks(), Looks{});
        EXPECT_EQ(outside.looks(), Looks{}) << "told once more";
    }
}

TEST(HostileNeighbourChecks, DoNotHoldTheLooksOfOthersAgainstUs) {
    Outside outside;
    if (!outside.watch().knowsWhose()) GTEST_SKIP() << "this kernel does not tell who looked";
    const std::string folder = outside.folder(), secret = outside.secret();
    const pid_t other = ::fork();
    ASSERT_GE(other, 0);
    if (other == 0) {
        char byte = 0;
        const int file = ::open(secret.c_str(), O_RDONLY);
        const bool looked = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY) >= 0 && ::read(file, &byte, 1) == 1;
        ::_exit(looked ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(other, &status, 0), other);
    ASSERT_EQ(status, 0);
    EXPECT_EQ(outside.looks(), Looks{});
    (void)testing::readFile(outside.folder() + "/outside 2");
    EXPECT_NE(outside.looks(), Looks{});
}

TEST(HostileNeighbourChecks, FindAnItemFromOutside) {
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

TEST(HostileNeighbourChecks, CatchWhoGoesByPathsWhileTheSwapperWorks) {
    Outside outside;
    const TemporaryDirectory directory;
    Swapper swapper(directory.path(), outside);
    ASSERT_EQ(outside.looks(), Looks{});
    std::atomic<bool> over{false};
    std::thread swapping([&] {
        for (std::uint64_t i = 0; !over; ++i) swapper.step(i);
    });
    const std::string path = directory.path("stage/folder/secret.txt");
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    Looks looks;
    bool shown = false;
    while ((looks.empty() || !shown) && std::chrono::steady_clock::now() < end) {
        const Descriptor file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
        struct stat status{};
        shown = shown || (::lstat(path.c_str(), &status) == 0 && status.st_size == kSecretSize);
        const Looks more = outside.looks();
        looks.insert(looks.end(), more.begin(), more.end());
    }
    over = true;
    swapping.join();
    EXPECT_NE(looks, Looks{});
    EXPECT_TRUE(shown);
}

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

    const auto expectNoLook = [&] { EXPECT_EQ(outside.looks(), Looks{}) << "something outside was looked at"; };
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
        expectNoLook();
    }
    over = true;
    swapping.join();
    expectNoLook();
    EXPECT_GT(rounds, 0u);
    EXPECT_GT(seen, 100u);

    // Left in peace, everything is as the disk says.
    device.waitUntilQuiet();
    const Disk disk = readDisk(root);
    EXPECT_EQ(compareWithDisk(listEverything(device, disk), disk), Problems{}) << "TARNWELL_DEEP_SEED=" << seed;
}

}  // namespace
}  // namespace tarnwell::deep
