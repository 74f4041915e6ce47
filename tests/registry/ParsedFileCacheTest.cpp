#include "platform/registry/ParsedFileCache.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "tests/registry/RegistryDevice.h"

namespace tarnwell::registry {
namespace {

std::int64_t now() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

TEST(ParsedFileCacheTest, AFileIsSettledWhenItsTimesAreOld) {
    const std::int64_t old = now() - 60'000'000'000;
    EXPECT_TRUE(isSettled({.modified = old, .changed = old}));
    EXPECT_FALSE(isSettled({.modified = old, .changed = now()}));
    EXPECT_FALSE(isSettled({.modified = now(), .changed = old}));
    EXPECT_FALSE(isSettled({.modified = old, .changed = now() + 60'000'000'000}));
}

TEST(ParsedFileCacheTest, ParsesASettledFileOnce) {
    const std::string path = TARNWELL_SOURCE_DIR "/CMakeLists.txt";
    const auto stamp = stampOf(path);
    ASSERT_TRUE(stamp.has_value());
    if (!isSettled(*stamp)) GTEST_SKIP() << path << " was changed less than two seconds ago";
    int parsed = 0;
    ParsedFileCache<std::size_t> cache;
    const auto parse = [&parsed](std::string_view content) -> Result<std::size_t> {
        ++parsed;
        return content.size();
    };
    const auto first = cache.load(path, parse);
    const auto second = cache.load(path, parse);
    ASSERT_TRUE(first.has_value());
    EXPECT_EQ(**first, stamp->size);
    EXPECT_EQ(*first, *second);
    EXPECT_EQ(parsed, 1);
}

TEST(ParsedFileCacheTest, TellsWhyAFileCannotBeRead) {
    RegistryDevice device;
    device.makeFolder("folder");
    ParsedFileCache<int> cache;
    const auto parse = [](std::string_view) -> Result<int> { return failure(posixError(EBADMSG)); };
    EXPECT_EQ(cache.load(device.path("missing"), parse).error(), posixError(ENOENT));
    EXPECT_EQ(cache.load(device.path("folder"), parse).error(), posixError(EINVAL, "not a regular file"));
    EXPECT_EQ(cache.load("/dev/null", parse).error(), posixError(EINVAL, "not a regular file"));
    device.write("file", "");
    EXPECT_EQ(cache.load(device.path("file"), parse).error(), posixError(EBADMSG));
}

TEST(ParsedFileCacheTest, ThreadsMayAskTheRegistryAtOnce) {
    RegistryDevice device;
    for (int i = 0; i < 20; ++i) {
        device.installFlatpak(kUserFlatpaks, "org.example.A" + std::to_string(i), RegistryDevice::entry("A"));
    }
    device.makeFolder("home/.var/app/org.example.A7/Documents");
    LinuxAppRegistry& registry = device.registry();
    std::atomic<int> complete = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int round = 0; round < 20; ++round) {
                int count = 0;
                registry.defaultWorkspace()->enumerateApplications(ApplicationType::user,
                                                                   [&count](const BundleRecordPtr& record) {
                                                                       record->dataContainerURL();
                                                                       ++count;
                                                                   });
                const bool found = registry.recordForBundleIdentifier("org.example.A7")->dataContainerURL().has_value();
                if (count == 20 && found) ++complete;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(complete, 80);
}

}  // namespace
}  // namespace tarnwell::registry
