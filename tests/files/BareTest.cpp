#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstdlib>
#include <thread>

#include "platform/files/ChangeTime.h"
#include "testing/TestDevice.h"

namespace tarnwell::files {
namespace {

using testing::TestDevice;
using testing::writeFile;

constexpr const char* kAttribute = "com.example.note";
constexpr unsigned kFlat = kSkipHiddenFiles | kSkipPackageDescendants | kSkipSubdirectoryDescendants;

/// Until the change time of what stands there vouches for it.
void waitUntilSettled(const std::string& path) {
    struct stat status{};
    ASSERT_EQ(::lstat(path.c_str(), &status), 0);
    const std::int64_t changed = std::int64_t{status.st_ctim.tv_sec} * 1'000'000'000 + status.st_ctim.tv_nsec;
    while (!isSettled(changed, stampingClock())) std::this_thread::yield();
}

/// What a listing of the storage root says of the one file in it.
struct Listed {
    bool bare = false;
    bool hasAttribute = false;
};
Listed list(TestDevice& device) {
    auto walker = device.files().walk(device.url(), kFlat, {});
    if (!walker) {
        ADD_FAILURE() << describe(walker.error());
        return {};
    }
    const auto url = (*walker)->next();
    if (!url || url->cache().snapshot() == nullptr) {
        ADD_FAILURE() << "nothing listed";
        return {};
    }
    return {url->cache().snapshot()->bare, device.files().getAttribute(*url, kAttribute, {}).has_value()};
}

bool isKnownBare(TestDevice& device) {
    const int root = device.roots().storage()->directory.get();
    const auto identity = device.comparer().identityOf(*filesystem::statusOf(root), root);
    store::Session session(device.store());
    const auto folder = session.index().byIdentity(*identity);
    const auto rows = session.index().children(folder->fileID, 0, 2);
    EXPECT_EQ(rows.size(), 1u);
    return !rows.empty() && rows.front().bare;
}

TEST(Bare, AnObjectWithoutAttributesIsKnownAsSuchFromItsListingOn) {
    TestDevice device;
    writeFile(device.path("file.txt"), "");
    waitUntilSettled(device.path("file.txt"));
    EXPECT_TRUE(list(device).bare);
    EXPECT_TRUE(isKnownBare(device));
    device.restart();
    EXPECT_TRUE(isKnownBare(device));
    EXPECT_TRUE(list(device).bare);
}

TEST(Bare, AnAttributeThatCameLaterIsSeenByTheNextListing) {
    TestDevice device;
    writeFile(device.path("file.txt"), "");
    waitUntilSettled(device.path("file.txt"));
    list(device);
    ASSERT_TRUE(isKnownBare(device));
    testing::setUserAttribute(device.path("file.txt"), kAttribute, "value");
    EXPECT_FALSE(list(device).bare);
    EXPECT_TRUE(list(device).hasAttribute);
    // Also when the change is known before the listing.
    device.settle();
    EXPECT_FALSE(isKnownBare(device));
    EXPECT_TRUE(list(device).hasAttribute);
}

TEST(Bare, AnObjectThatChangedJustNowIsNotTrusted) {
    TestDevice device;
    // Until a listing came soon enough after the change: the machine may have been busy in between.
    for (int attempt = 0; attempt < 100; ++attempt) {
        writeFile(device.path("file.txt"), std::to_string(attempt));
        device.settle();
        struct stat status{};
        ASSERT_EQ(::lstat(device.path("file.txt").c_str(), &status), 0);
        const std::int64_t changed = std::int64_t{status.st_ctim.tv_sec} * 1'000'000'000 + status.st_ctim.tv_nsec;
        list(device);
        if (isSettled(changed, stampingClock())) continue;
        EXPECT_FALSE(isKnownBare(device));
        return;
    }
    GTEST_SKIP() << "no listing came soon enough";
}

TEST(Bare, WhatIsKnownOfAnOlderStateDoesNotCount) {
    TestDevice device;
    const std::string path = device.path("file.txt");
    writeFile(path, "");
    testing::setUserAttribute(path, kAttribute, "value");
    waitUntilSettled(device.path());
    list(device);
    ASSERT_EQ(::removexattr(path.c_str(), (std::string("user.") + kAttribute).c_str()), 0);
    waitUntilSettled(path);
    EXPECT_TRUE(list(device).bare);
    // Noting the new change time with it would hide the change from those who wait for it.
    EXPECT_FALSE(isKnownBare(device));
    device.settle();
    list(device);
    EXPECT_TRUE(isKnownBare(device));
}

TEST(Bare, AnAccessListThatCameLaterIsSeen) {
    TestDevice device;
    const std::string path = device.path("file.txt");
    writeFile(path, "");
    waitUntilSettled(path);
    list(device);
    ASSERT_TRUE(isKnownBare(device));
    if (std::system(("setfacl -m u:12345:rw '" + path + "' 2>/dev/null").c_str()) != 0) {
        GTEST_SKIP() << "no access lists here";
    }
    EXPECT_FALSE(list(device).bare);
}

}  // namespace
}  // namespace tarnwell::files
