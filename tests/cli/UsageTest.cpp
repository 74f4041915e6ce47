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

TEST(Usage, AnUnknownVerbIsNamedWithTheOneThatWasProbablyMeant) {
    struct Row {
        Arguments arguments;
        std::string complaint;
    };
    const Row rows[] = {
        {{"frobnicate"}, "there is no verb \"frobnicate\"; see tarnwell --help"},
        {{"--json", "frobnicate"}, "there is no verb \"frobnicate\"; see tarnwell --help"},
        {{"frobnicate", "root", "--sort", "date"}, "there is no verb \"frobnicate\"; see tarnwell --help"},
        {{"frobnicate", "--help"}, "there is no verb \"frobnicate\"; see tarnwell --help"},
        {{"lss", "root"}, "there is no verb \"lss\"; did you mean \"ls\"? See tarnwell --help"},
        {{"sl"}, "there is no verb \"sl\"; did you mean \"ls\"? See tarnwell --help"},
        {{"LS"}, "there is no verb \"LS\"; did you mean \"ls\"? See tarnwell --help"},
        {{"app"}, "there is no verb \"app\"; did you mean \"apps\"? See tarnwell --help"},
        {{"doc"}, "there is no verb \"doc\"; did you mean \"doctor\"? See tarnwell --help"},
        {{"docter"}, "there is no verb \"docter\"; did you mean \"doctor\"? See tarnwell --help"},
        {{"anhcors"}, "there is no verb \"anhcors\"; did you mean \"anchor\"? See tarnwell --help"},
        {{"informations"}, "there is no verb \"informations\"; see tarnwell --help"},
        {{"x"}, "there is no verb \"x\"; see tarnwell --help"},
        {{"xx"}, "there is no verb \"xx\"; see tarnwell --help"},
        {{""}, "there is no verb \"\"; see tarnwell --help"},
        {{"two\nlines\xff"}, "there is no verb \"two\\nlines\xEF\xBF\xBD\"; see tarnwell --help"},
        {{std::string(100'000, 'l')}, "there is no verb \"" + std::string(100'000, 'l') + "\"; see tarnwell --help"},
    };
    for (const auto& [arguments, complaint] : rows) {
        SCOPED_TRACE(arguments.front().substr(0, 100));
        const auto finished = run(arguments);
        EXPECT_EQ(finished.status, 2);
        EXPECT_EQ(finished.output, "");
        EXPECT_EQ(finished.error, "tarnwell: " + complaint + "\n");
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
    for (const char* verb :
         {"apps",  "ls",     "info",   "id",     "path",      "anchor",  "changes",          "import",
          "mkdir", "rename", "move",   "trash",  "restore",   "delete",  "clean-trash",      "tag",
          "rank",  "used",   "status", "doctor", "thumbnail", "refresh", "default-container"}) {
        SCOPED_TRACE(verb);
        EXPECT_NE(help.output.find(std::string("\n  ") + verb + " "), std::string::npos) << help.output;
        const auto finished = run({verb, "--help"});
        EXPECT_EQ(finished.status, 0);
        EXPECT_NE(finished.output.find("Example:\n  "), std::string::npos) << finished.output;
        EXPECT_NE(finished.output.find(std::string("tarnwell ") + verb), std::string::npos) << finished.output;
    }
}

TEST(Usage, TheHelpOfAVerbEndsWithItsExampleEachLineIndented) {
    EXPECT_TRUE(run({"ls", "--help"})
                    .output.ends_with("\n\nExample:\n"
                                      "  tarnwell ls root --recursive --sort date     everything, the newest first\n"
                                      "  tarnwell --json ls '#org.example.Notes'      one application's documents, one "
                                      "JSON object a line\n"));
    EXPECT_TRUE(run({"path", "--help"})
                    .output.ends_with("\n\nExample:\n"
                                      "  tarnwell path did=17          follows the document wherever it was moved\n"
                                      "  cd \"$(tarnwell path '#org.example.Notes')\"\n"));
    EXPECT_EQ(run({"--help"}).output.find("Example:"), std::string::npos);
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
