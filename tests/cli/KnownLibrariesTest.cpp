#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>

#include "tests/cli/Program.h"

namespace tarnwell::testing {
namespace {

/// What a shell asks while somebody waits for a word to be completed.
TEST(KnownLibrariesTest, AreThoseThatTheLastLookFound) {
    const Device device;
    EXPECT_EQ(device.run({"__libraries"}).output, "") << "nobody has looked yet";
    std::vector<std::string> expected;
    for (const auto& library : device.run({"--json", "apps"}).json()) expected.push_back(library["itemIdentifier"]);
    ASSERT_FALSE(expected.empty());
    const auto known = device.run({"__libraries"});
    EXPECT_EQ(known.status, 0);
    auto lines = known.lines();
    std::ranges::sort(lines);
    std::ranges::sort(expected);
    EXPECT_EQ(lines, expected);
    EXPECT_EQ(known.error, "");
}

TEST(KnownLibrariesTest, DoNotWaitForWhoeverHasTheStore) {
    const Device device;
    const auto expected = device.run({"--json", "apps"}).json().size();
    auto follower = device.start({"changes", "--follow"});
    ASSERT_TRUE(follower.readLine());  // its first anchor: it has the store
    const auto begin = std::chrono::steady_clock::now();
    const auto known = device.run({"__libraries"});
    // Anybody else waits five seconds for the store.
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(4));
    EXPECT_EQ(known.lines().size(), expected);
    follower.sendSignal(SIGINT);
    follower.finish();
}

TEST(KnownLibrariesTest, ADamagedOrMissingListIsSilence) {
    const Device device;
    device.run({"apps"});
    const std::string list = device.path("home/.local/share/Tarnwell Storage/app-libraries.plist");
    ASSERT_TRUE(std::filesystem::exists(list));
    std::ofstream(list) << "bplist00 and nothing that follows from it";
    auto known = device.run({"__libraries"});
    EXPECT_EQ(known.status, 0);
    EXPECT_EQ(known.output + known.error, "");

    known = device.run({"__libraries"}, {{"HOME", "/nonexistent"}, {"XDG_DATA_HOME", "/nonexistent"}});
    EXPECT_EQ(known.status, 0);
    EXPECT_EQ(known.output + known.error, "");
}

TEST(KnownLibrariesTest, TheVerbIsHidden) {
    const Device device;
    EXPECT_EQ(device.run({"--help"}).output.find("__libraries"), std::string::npos);
}

}  // namespace
}  // namespace tarnwell::testing
