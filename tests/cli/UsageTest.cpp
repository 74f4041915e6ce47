#include <gtest/gtest.h>

#include <algorithm>

#include "tests/cli/Program.h"

namespace tarnwell::testing {
namespace {

using Arguments = std::vector<std::string>;

/// Runs that never reach the device.
Finished run(const Arguments& arguments) {
    return ChildProgram(arguments, {{"HOME", "/none such"}}, ChildProgram::Person::same).finish();
}

TEST(Usage, WrongUsageGivesOneLineAndStatusTwo) {
    const Arguments rows[] = {{},
                              {"frobnicate"},
                              {"--frobnicate"},
                              {"ls", "--frobnicate"},
                              {"ls", "root", "another"},
                              {"ls", "--sort", "size"},
                              {"ls", "--sort"},
                              {"info"},
                              {"id"},
                              {"path"},
                              {"--storage"},
                              {"apps", "extra"}};
    for (const auto& arguments : rows) {
        SCOPED_TRACE(::testing::PrintToString(arguments));
        const auto finished = run(arguments);
        EXPECT_EQ(finished.status, 2);
        EXPECT_EQ(finished.output, "");
        EXPECT_TRUE(finished.error.starts_with("tarnwell: ")) << finished.error;
        EXPECT_EQ(std::ranges::count(finished.error, '\n'), 1) << finished.error;
    }
}

TEST(Usage, VersionIsOneLine) {
    const auto finished = run({"--version"});
    EXPECT_EQ(finished.status, 0);
    EXPECT_EQ(finished.output, "tarnwell " TARNWELL_VERSION "\n");
    EXPECT_EQ(finished.error, "");
}

TEST(Usage, HelpNamesEveryVerbAndEachVerbHelpsWithAnExample) {
    const auto help = run({"--help"});
    EXPECT_EQ(help.status, 0);
    for (const char* verb : {"apps", "ls", "info", "id", "path", "anchor", "doctor"}) {
        SCOPED_TRACE(verb);
        EXPECT_NE(help.output.find(std::string("\n  ") + verb + " "), std::string::npos) << help.output;
        const auto finished = run({verb, "--help"});
        EXPECT_EQ(finished.status, 0);
        EXPECT_NE(finished.output.find("Example:\n  "), std::string::npos) << finished.output;
        EXPECT_NE(finished.output.find(std::string("tarnwell ") + verb), std::string::npos) << finished.output;
    }
}

TEST(Usage, OptionsMayFollowTheVerb) {
    Device device;
    const auto before = device.run({"--json", "info", "root"});
    const auto after = device.run({"info", "root", "--json"});
    EXPECT_EQ(after.status, 0) << after.error;
    EXPECT_EQ(after.output, before.output);
}

TEST(Output, AFullDiskIsAFailure) {
    Device device;
    const auto finished = device.runInto(ChildProgram::Output::fullDisk, {"ls", device.document("Many")});
    EXPECT_EQ(finished.status, 1);
    EXPECT_EQ(finished.error, "tarnwell: the output could not be written: No space left on device\n");
}

TEST(Output, AReaderThatHasSeenEnoughIsNoFailure) {
    Device device;
    const auto finished = device.runInto(ChildProgram::Output::noReader, {"ls", device.document("Many")});
    EXPECT_EQ(finished.status, 0);
    EXPECT_EQ(finished.error, "");
}

}  // namespace
}  // namespace tarnwell::testing
