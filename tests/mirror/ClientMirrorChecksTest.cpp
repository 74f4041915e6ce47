#include <gtest/gtest.h>

#include <cstdio>

#include "hostframework/ItemIdentifier.h"
#include "tests/mirror/Client.h"
#include "tests/mirror/Truth.h"

namespace tarnwell::mirror {
namespace {

using testing::makeDirectories;
using testing::writeFile;

/// What the comparison would find if the program told something wrong.
class ClientMirrorChecks : public ::testing::Test {
protected:
    ClientMirrorChecks() {
        makeDirectories(device_.path("Documents/folder"));
        writeFile(device_.path("Documents/folder/one.txt"), "1");
        writeFile(device_.path("Documents/two.txt"), "22");
        writeFile(device_.path("Documents/three.txt"), "333");
        EXPECT_EQ(client_.begin(device_), Client::Outcome::caughtUp);
        before_ = client_.mirror();
    }
    Truth truth() {
        auto truth = readTruth(device_);
        EXPECT_TRUE(truth);
        return truth.value_or(Truth());
    }
    /// What remains to be said of a mirror to which all reports but one were applied.
    Problems without(const std::vector<Report>& reports, std::size_t swallowed, const Truth& truth) const {
        Mirror mirror = before_;
        for (std::size_t i = 0; i < reports.size(); ++i) {
            if (i != swallowed) mirror.apply(reports[i]);
        }
        return compare(mirror, truth);
    }

    HostedDevice device_;
    Client client_{hostframework::kRootContainer};
    Mirror before_;
};

TEST_F(ClientMirrorChecks, AreSatisfiedWithAListing) { EXPECT_EQ(compare(before_, truth()), Problems{}); }

TEST_F(ClientMirrorChecks, FindEachUpdateAndEachDeletionThatIsSwallowed) {
    writeFile(device_.path("Documents/new.txt"), "4444");
    writeFile(device_.path("Documents/two.txt"), "55555");
    ASSERT_EQ(std::rename(device_.path("Documents/folder").c_str(), device_.path("Documents/other").c_str()), 0);
    ASSERT_EQ(std::remove(device_.path("Documents/three.txt").c_str()), 0);
    ASSERT_EQ(client_.step(device_), Client::Outcome::caughtUp);
    const Truth now = truth();
    EXPECT_EQ(compare(client_.mirror(), now), Problems{});
    const auto& told = client_.told();
    ASSERT_EQ(told.size(), 4u);
    EXPECT_EQ(without(told, told.size(), now), Problems{});
    for (std::size_t i = 0; i < told.size(); ++i) EXPECT_EQ(without(told, i, now).size(), 1u) << describe(told[i]);
}

TEST_F(ClientMirrorChecks, FindABatchThatGoesOnOneChangeTooLate) {
    for (int i = 0; i < 250; ++i) writeFile(device_.path("Documents/" + std::to_string(i)), "x");
    ASSERT_EQ(client_.step(device_), Client::Outcome::more);
    EXPECT_EQ(client_.told().size(), 200u);
    before_ = client_.mirror();
    ASSERT_EQ(client_.step(device_), Client::Outcome::caughtUp);
    const Truth now = truth();
    EXPECT_EQ(compare(client_.mirror(), now), Problems{});
    EXPECT_EQ(without(client_.told(), 0, now).size(), 1u);
}

TEST_F(ClientMirrorChecks, FindAnIdentifierThatCameToAnotherObject) {
    Truth now = truth();
    std::swap(now.at("Documents/two.txt").identifier, now.at("Documents/three.txt").identifier);
    EXPECT_EQ(compare(before_, now).size(), 2u);
    now.at("Documents/two.txt").identifier = now.at("Documents/three.txt").identifier;
    EXPECT_FALSE(compare(before_, now).empty());
}

TEST_F(ClientMirrorChecks, FindWrongValues) {
    const std::string two = truth().at("Documents/two.txt").identifier;
    const auto with = [&](const auto& change) {
        Kept kept = before_.items().at(two);
        change(kept);
        Mirror mirror = before_;
        mirror.update(two, kept);
        return compare(mirror, truth()).size();
    };
    EXPECT_EQ(with([](Kept&) {}), 0u);
    EXPECT_EQ(with([](Kept& kept) { kept.name = "2.txt"; }), 1u);
    EXPECT_EQ(with([](Kept& kept) { kept.parent = "#Notes"; }), 1u);
    EXPECT_EQ(with([](Kept& kept) { kept.size = 3; }), 1u);
    EXPECT_EQ(with([](Kept& kept) { ++*kept.modified; }), 1u);
    EXPECT_EQ(with([](Kept& kept) { kept.tags = "tags"; }), 1u);
    EXPECT_EQ(with([](Kept& kept) { kept.rank = 1; }), 1u);
}

TEST_F(ClientMirrorChecks, TakeWhatHangsUnderADeletedFolderWithIt) {
    const Truth now = truth();
    Mirror mirror = before_;
    mirror.remove(now.at("Documents/folder").identifier);
    EXPECT_EQ(compare(mirror, now).size(), 2u);
}

}  // namespace
}  // namespace tarnwell::mirror
