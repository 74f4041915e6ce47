#include "platform/base/UTF8.h"

#include <string>

#include <gtest/gtest.h>

namespace tarnwell {
namespace {

struct Row {
    std::string_view text;
    std::size_t length;
};

TEST(UTF8, LengthIsThatOfTheFirstCharacterAndNoneForWrongBytes) {
    using namespace std::string_view_literals;
    const Row rows[] = {
        {""sv, 0},
        {"a"sv, 1},
        {"\0"sv, 1},
        {"\x7F"sv, 1},
        {"\xC2\x80"sv, 2},
        {"\xDF\xBF"sv, 2},
        {"\xE0\xA0\x80"sv, 3},
        {"\xED\x9F\xBF"sv, 3},
        {"\xEE\x80\x80"sv, 3},
        {"\xEF\xBF\xBF"sv, 3},
        {"\xF0\x90\x80\x80"sv, 4},
        {"\xF4\x8F\xBF\xBF"sv, 4},
        {"\xC3\xA9 and more"sv, 2},
        // wrong: alone, overlong, surrogate, past the end of Unicode, cut, second byte missing
        {"\x80"sv, 0},
        {"\xBF"sv, 0},
        {"\xC0\x80"sv, 0},
        {"\xC1\xBF"sv, 0},
        {"\xE0\x9F\xBF"sv, 0},
        {"\xED\xA0\x80"sv, 0},
        {"\xF0\x8F\xBF\xBF"sv, 0},
        {"\xF4\x90\x80\x80"sv, 0},
        {"\xF5\x80\x80\x80"sv, 0},
        {"\xFF"sv, 0},
        {"\xC3"sv, 0},
        {"\xE2\x82"sv, 0},
        {"\xF0\x9F\x98"sv, 0},
        {"\xE2\x28\xA1"sv, 0},
        {"\xE2\x82\x28"sv, 0},
    };
    for (const Row& row : rows)
        EXPECT_EQ(utf8CharacterLength(row.text), row.length) << ::testing::PrintToString(std::string(row.text));
}

TEST(UTF8, AWholeTextIsUTF8OnlyIfEveryCharacterIs) {
    EXPECT_TRUE(isUTF8(""));
    EXPECT_TRUE(isUTF8("R\xC3\xA9sum\xC3\xA9 \xF0\x9F\x98\x80"));
    EXPECT_FALSE(isUTF8("r\xE9sum\xE9"));
    EXPECT_FALSE(isUTF8("cut \xC3"));
}

TEST(UTF8, AWrongByteIsFoundWhereverItStands) {
    for (std::size_t length = 1; length < 40; ++length) {
        EXPECT_TRUE(isUTF8(std::string(length, 'a')));
        for (std::size_t at = 0; at < length; ++at) {
            std::string text(length, 'a');
            text[at] = '\xE9';
            EXPECT_FALSE(isUTF8(text)) << at << " of " << length;
        }
        for (std::size_t at = 0; at + 1 < length; ++at) {
            EXPECT_TRUE(isUTF8(std::string(length, 'a').replace(at, 2, "\xC3\xA9"))) << at << " of " << length;
        }
    }
}

}  // namespace
}  // namespace tarnwell
