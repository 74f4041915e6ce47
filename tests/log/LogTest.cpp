#include "platform/log/Log.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/log/LineText.h"

namespace tarnwell::log {
namespace {

class Lines : public Log {
public:
    std::vector<std::string> lines;

protected:
    void emit(Level, std::string_view text) override { lines.emplace_back(text); }
};

TEST(Log, ThresholdKeepsLowerLevelsOut) {
    struct Row {
        Level threshold;
        std::vector<std::string> expected;
    };
    const Row rows[] = {
        {Level::debug, {"d", "i", "e"}}, {Level::info, {"i", "e"}}, {Level::error, {"e"}}, {Level::off, {}}};
    for (const Row& row : rows) {
        Lines log;
        log.setThreshold(row.threshold);
        log.write(Level::debug, "d");
        log.write(Level::info, "i");
        log.write(Level::error, "e");
        EXPECT_EQ(log.lines, row.expected) << "threshold " << static_cast<int>(row.threshold);
    }
}

TEST(Log, AMessageThatIsOffIsNeverComposed) {
    Lines log;
    int composed = 0;
    auto compose = [&] { return "number " + std::to_string(++composed); };
    log.setThreshold(Level::info);
    log.writeLazily(Level::debug, compose);
    EXPECT_EQ(composed, 0);
    log.writeLazily(Level::info, compose);
    EXPECT_EQ(composed, 1);
    EXPECT_EQ(log.lines, std::vector<std::string>{"number 1"});
}

TEST(Log, WritesEverythingUnlessToldOtherwise) {
    Lines log;
    EXPECT_TRUE(log.isEnabled(Level::debug));
}

TEST(LineText, IsOneLineWithoutControlCharacters) {
    using namespace std::string_view_literals;
    struct Row {
        std::string_view text, line;
    };
    const Row rows[] = {
        {""sv, ""sv},
        {"plain text"sv, "plain text"sv},
        {"two\nlines"sv, "two\\nlines"sv},
        {"a\r\n\tb"sv, "a\\r\\n\\tb"sv},
        {"\x1b[31mred"sv, "\\x1b[31mred"sv},
        {"nul\0in"sv, "nul\\x00in"sv},
        {"del\x7F"sv, "del\\x7f"sv},
        {"\xC2\x9B[2J"sv, "\\xc2\\x9b[2J"sv},
        {"\xC2\xA0space"sv, "\xC2\xA0space"sv},
        {"back\\slash 100% {} %s"sv, "back\\slash 100% {} %s"sv},
        {"R\xC3\xA9sum\xC3\xA9 \xE2\x94\x8F"sv, "R\xC3\xA9sum\xC3\xA9 \xE2\x94\x8F"sv},
        {"latin \xE9"sv, "latin \\xe9"sv},
        {"cut \xE2\x82"sv, "cut \\xe2\\x82"sv},
    };
    for (const Row& row : rows) EXPECT_EQ(asOneLine(row.text), row.line);
}

}  // namespace
}  // namespace tarnwell::log
