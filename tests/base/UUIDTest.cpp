#include "platform/base/UUID.h"

#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace tarnwell {
namespace {

constexpr const char* kText = "01234567-89AB-CDEF-FEDC-BA9876543210";

TEST(UUID, TextIsUpperCaseWithFourHyphens) {
    UUID uuid{{0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF, 0xFE, 0xDC, 0xBA, 0x98, 0x76, 0x54, 0x32, 0x10}};
    EXPECT_EQ(uuid.text(), kText);
    EXPECT_EQ(UUID{}.text(), "00000000-0000-0000-0000-000000000000");
}

TEST(UUID, ParseReadsEitherCase) {
    auto upper = UUID::parse(kText);
    auto lower = UUID::parse("01234567-89ab-cdef-fedc-ba9876543210");
    ASSERT_TRUE(upper && lower);
    EXPECT_EQ(upper->text(), kText);
    EXPECT_EQ(*lower, *upper);
}

TEST(UUID, ParseRefusesEverythingElse) {
    const std::string text = kText;
    std::vector<std::string> wrong = {"{" + text + "}",
                                      text + "0",
                                      text + " ",
                                      "0123456789ABCDEFFEDCBA9876543210",
                                      "0123456-789AB-CDEF-FEDC-BA9876543210",
                                      "01234567-89AB-CDEF-FEDC-BA987654321G",
                                      "01234567-89AB-CDEF-FEDC+BA9876543210",
                                      "------------------------------------"};
    for (std::size_t length = 0; length < text.size(); ++length) wrong.push_back(text.substr(0, length));
    for (const std::string& row : wrong) EXPECT_FALSE(UUID::parse(row)) << row;
}

TEST(UUID, RandomOnesDifferAndSayThatTheyAreRandom) {
    std::set<std::string> seen;
    for (int i = 0; i < 1000; ++i) {
        std::string text = UUID::random().text();
        EXPECT_EQ(text[14], '4') << text;
        EXPECT_TRUE(std::string("89AB").find(text[19]) != std::string::npos) << text;
        EXPECT_TRUE(seen.insert(text).second) << text;
    }
}

TEST(UUID, TextAndParseAreInverse) {
    for (int i = 0; i < 100; ++i) {
        UUID uuid = UUID::random();
        EXPECT_EQ(UUID::parse(uuid.text()), uuid);
    }
}

}  // namespace
}  // namespace tarnwell
