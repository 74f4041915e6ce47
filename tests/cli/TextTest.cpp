#include "cli/output/Text.h"

#include <gtest/gtest.h>

#include "cli/output/HeldLog.h"
#include "cli/output/Output.h"
#include "cli/output/Table.h"
#include "testing/TemporaryDirectory.h"

namespace tarnwell::cli {
namespace {

TEST(Text, Utf8IsToldFromOtherBytes) {
    struct Row {
        std::string bytes, shown;
    };
    const Row rows[] = {
        {"", ""},
        {"plain", "plain"},
        {"Gr\xC3\xB6\xC3\x9F"
         "e",
         "Gr\xC3\xB6\xC3\x9F"
         "e"},
        {"\xF0\x9F\x8C\x8A", "\xF0\x9F\x8C\x8A"},
        {"caf\xE9", "caf\xEF\xBF\xBD"},
        {"\xC3", "\xEF\xBF\xBD"},
        {"\xC0\x80", "\xEF\xBF\xBD\xEF\xBF\xBD"},
        {"\xE0\x80\x80", "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},
        {"\xED\xA0\x80", "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},
        {"\xF4\x90\x80\x80", "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},
        {"a\xFFz", "a\xEF\xBF\xBDz"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.bytes);
        EXPECT_EQ(toUtf8(row.bytes), row.shown);
        EXPECT_EQ(isUtf8(row.bytes), row.bytes == row.shown);
    }
}

TEST(Text, WhatCouldDriveATerminalIsEscaped) {
    EXPECT_EQ(toDisplay("two\nlines\t\r"), "two\\nlines\\t\\r");
    EXPECT_EQ(toDisplay("\x1b[31mred\x7f"), "\\x1b[31mred\\x7f");
    EXPECT_EQ(toDisplay("\xC2\x9B"
                        "31m"),
              "\\x9b31m");
    EXPECT_EQ(toDisplay("txt.\xE2\x80\xAE"
                        "exe"),
              "txt.\\u202eexe");
    EXPECT_EQ(toDisplay("\xE2\x80\xA8"), "\\u2028");
    EXPECT_EQ(toDisplay("caf\xE9"), "caf\xEF\xBF\xBD");
}

TEST(Text, WidthIsWhatATerminalTakes) {
    EXPECT_EQ(displayWidth(""), 0u);
    EXPECT_EQ(displayWidth("abc"), 3u);
    EXPECT_EQ(displayWidth("\xC3\xB6"), 1u);
    EXPECT_EQ(displayWidth("\xE6\x97\xA5\xE6\x9C\xAC"), 4u);
    EXPECT_EQ(displayWidth("o\xCC\x88"), 1u);
}

TEST(Text, Base64HasPadding) {
    const auto encoded = [](std::string_view text) { return base64(bytesOf(text)); };
    EXPECT_EQ(encoded(""), "");
    EXPECT_EQ(encoded("f"), "Zg==");
    EXPECT_EQ(encoded("fo"), "Zm8=");
    EXPECT_EQ(encoded("foo"), "Zm9v");
    EXPECT_EQ(encoded("\xFF\xFE\xFD\xFC"), "//79/A==");
}

TEST(Text, SizesAreRoundedForPeople) {
    EXPECT_EQ(humanSize(0), "0 B");
    EXPECT_EQ(humanSize(1023), "1023 B");
    EXPECT_EQ(humanSize(1024), "1.0 KiB");
    EXPECT_EQ(humanSize(1536), "1.5 KiB");
    EXPECT_EQ(humanSize(10 * 1024), "10 KiB");
    EXPECT_EQ(humanSize(1024 * 1024 - 1), "1.0 MiB");
    EXPECT_EQ(humanSize(UINT64_MAX), "16 EiB");
    EXPECT_EQ(grouped(0), "0");
    EXPECT_EQ(grouped(999), "999");
    EXPECT_EQ(grouped(1234567), "1,234,567");
}

class WrittenOutput {
public:
    std::string text(const Table& table, bool coloured) {
        std::FILE* file = std::fopen(directory_.path("out").c_str(), "w");
        {
            Output output(file, coloured);
            table.write(output);
        }
        std::fclose(file);
        return testing::readFile(directory_.path("out"));
    }

private:
    testing::TemporaryDirectory directory_;
};

TEST(Table, AlignsColumnsAndNeverPadsTheLast) {
    Table table({{"A"}, {"SIZE", Table::Align::right}, {"NAME"}});
    table.add({{"\xE6\x97\xA5"}, {"7"}, {"x", Style::folder, "/"}});
    table.add({{"abc"}, {"12345"}, {"longer"}});
    WrittenOutput written;
    EXPECT_EQ(written.text(table, false),
              "A     SIZE  NAME\n"
              "\xE6\x97\xA5       7  x/\n"
              "abc  12345  longer\n");
    const auto coloured = written.text(table, true);
    EXPECT_NE(coloured.find("\x1b[1;34mx\x1b[0m\x1b[2m/\x1b[0m\n"), std::string::npos) << coloured;
}

TEST(Table, WithoutRowsIsNothing) {
    WrittenOutput written;
    EXPECT_EQ(written.text(Table({{"A"}}), false), "");
}

TEST(HeldLog, KeepsTheFirstLinesAndCountsTheRest) {
    HeldLog log;
    log.write(log::Level::debug, "not kept");
    EXPECT_EQ(log.take(), std::vector<std::string>{});
    for (std::size_t i = 0; i < HeldLog::kMaxLines; ++i) log.write(log::Level::error, "line");
    EXPECT_EQ(log.take().size(), HeldLog::kMaxLines);
    for (std::size_t i = 0; i < HeldLog::kMaxLines + 2; ++i) log.write(log::Level::error, "line");
    const auto lines = log.take();
    ASSERT_EQ(lines.size(), HeldLog::kMaxLines + 1);
    EXPECT_EQ(lines.back(), "and 2 further messages; run with -v to see them");
    EXPECT_TRUE(log.take().empty());
}

TEST(HeldLog, LeavesOutWhatIsOfNoInterestAndDoesNotCountIt) {
    HeldLog log;
    log.ignore("no library");
    for (std::size_t i = 0; i < HeldLog::kMaxLines + 2; ++i) log.write(log::Level::error, "there is no library here");
    log.write(log::Level::error, "the disk is full");
    EXPECT_EQ(log.take(), std::vector<std::string>{"the disk is full"});
}

}  // namespace
}  // namespace tarnwell::cli
