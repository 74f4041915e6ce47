#include <gtest/gtest.h>

#include <algorithm>

#include "tests/cli/Program.h"

namespace tarnwell::testing {
namespace {

TEST(StatusVerb, ShowsEveryRootAndWhatIsKnown) {
    const Device device;
    ASSERT_EQ(device.run({"ls", "root", "--recursive"}).status, 0);
    const auto finished = device.run({"--json", "status"});
    ASSERT_EQ(finished.status, 0) << finished.error;
    const auto lines = finished.json();
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(lines.front()["root"], device.document("").substr(0, device.document("").size() - 1));
    for (std::size_t i = 0; i + 1 < lines.size(); ++i) {
        EXPECT_EQ(lines[i]["available"], true);
        EXPECT_EQ(lines[i]["source"], "comparing") << "a command that ends lets nobody watch";
        EXPECT_TRUE(lines[i]["liveSource"].is_string());
    }
    const auto& facts = lines.back();
    EXPECT_GT(facts["objects"], 450);
    EXPECT_GT(facts["databaseBytes"], 0);
    EXPECT_GT(facts["journalEnd"], 450);
    EXPECT_EQ(facts["journalBegin"], 0);
    EXPECT_EQ(facts["watches"], 0);
    EXPECT_EQ(facts["overflows"], 0);
}

TEST(StatusVerb, KnowsWhenEverythingWasCompared) {
    const Device device;
    const auto compared = [&]() -> nlohmann::json {
        return device.run({"--json", "status"}).json().back()["lastCompared"];
    };
    EXPECT_TRUE(compared().is_null());
    EXPECT_NE(device.run({"status"}).output.find("never yet"), std::string::npos);
    const auto anchor = device.run({"anchor", "workingset"}).output;
    ASSERT_EQ(device.run({"changes", "workingset", "--since", anchor.substr(0, anchor.find('\n'))}).status, 0);
    const auto when = compared();
    ASSERT_TRUE(when.is_string());
    EXPECT_TRUE(when.get<std::string>().starts_with("20")) << when;
}

TEST(StatusVerb, IsReadable) {
    const Device device;
    const auto finished = device.run({"status"});
    ASSERT_EQ(finished.status, 0) << finished.error;
    EXPECT_NE(finished.output.find("ROOT"), std::string::npos);
    EXPECT_NE(finished.output.find("available"), std::string::npos);
    EXPECT_NE(finished.output.find("journal"), std::string::npos);
    EXPECT_TRUE(finished.error.empty()) << finished.error;
}

TEST(StatusVerb, SaysWhatIsUnavailable) {
    const Device device;
    ASSERT_EQ(device.run({"ls"}).status, 0);
    const auto finished = device.run({"--storage", device.path("nowhere"), "status"});
    EXPECT_EQ(finished.status, 1);
    EXPECT_NE(finished.error.find("does not exist"), std::string::npos) << finished.error;
}

}  // namespace
}  // namespace tarnwell::testing
