#include "hostframework/TagCodec.h"

#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/archive/PropertyList.h"

namespace tarnwell::hostframework {
namespace {

using archive::Array;
using archive::Dictionary;
using archive::Integer;
using archive::Value;

TEST(TagCodec, DecodesWhatItEncoded) {
    const std::vector<std::vector<Tag>> rows = {
        {},
        {{"Red", 6}},
        {{"Work", std::nullopt}},
        {{"", 0}},
        {{"same", 1}, {"same", 1}, {"same", std::nullopt}},
        {{"R\xC3\xA9sum\xC3\xA9 \xF0\x9F\x98\x80", 255}, {"two\nlines", 3}},
        {{"latin \xE9", 2}},
        {{std::string("nul\0in", 6), std::nullopt}},
        {{std::string(100'000, 'x'), 4}},
    };
    for (const auto& row : rows) EXPECT_EQ(TagCodec::decode(TagCodec::encode(row)), row) << row.size() << " tags";
}

TEST(TagCodec, KeepsOrder) {
    std::vector<Tag> tags;
    for (int i = 0; i < 300; ++i) tags.push_back({"tag " + std::to_string(300 - i), static_cast<std::uint8_t>(i % 8)});
    EXPECT_EQ(TagCodec::decode(TagCodec::encode(tags)), tags);
}

TEST(TagCodec, NoTagsAreAnArrayAndNotNoData) {
    Bytes none = TagCodec::encode({});
    EXPECT_FALSE(none.empty());
    auto value = archive::readBinaryPropertyList(none);
    ASSERT_TRUE(value);
    EXPECT_EQ(*value, Value(Array{}));
    EXPECT_EQ(TagCodec::decode(none), std::vector<Tag>{});
    EXPECT_EQ(TagCodec::decode({}), std::nullopt);
}

TEST(TagCodec, WritesAnArrayOfDictionariesWithLabelAndColor) {
    auto value = archive::readBinaryPropertyList(TagCodec::encode({{"Red", 6}, {"Work", std::nullopt}}));
    ASSERT_TRUE(value);
    EXPECT_EQ(*value, Value(Array{Value(Dictionary{{"label", "Red"}, {"color", Integer::fromUnsigned(6)}}),
                                  Value(Dictionary{{"label", "Work"}})}));
}

TEST(TagCodec, IgnoresKeysThatItDoesNotKnow) {
    Value value(Array{Value(Dictionary{{"label", "Red"}, {"shape", "round"}, {"color", Integer::fromUnsigned(6)}})});
    EXPECT_EQ(TagCodec::decode(archive::writeBinaryPropertyList(value)), (std::vector<Tag>{{"Red", 6}}));
}

TEST(TagCodec, GivesNothingForPropertyListsThatAreNoTags) {
    struct Row {
        const char* what;
        Value value;
    };
    const Row rows[] = {
        {"a string", Value("Red")},
        {"a dictionary", Value(Dictionary{{"label", "Red"}})},
        {"an array of strings", Value(Array{Value("Red")})},
        {"no label", Value(Array{Value(Dictionary{{"color", Integer::fromUnsigned(1)}})})},
        {"a number for a label", Value(Array{Value(Dictionary{{"label", Integer::fromUnsigned(1)}})})},
        {"a string for a color", Value(Array{Value(Dictionary{{"label", "Red"}, {"color", "6"}})})},
        {"color 256", Value(Array{Value(Dictionary{{"label", "Red"}, {"color", Integer::fromUnsigned(256)}})})},
        {"color -1", Value(Array{Value(Dictionary{{"label", "Red"}, {"color", Integer::fromSigned(-1)}})})},
        {"one good, one bad", Value(Array{Value(Dictionary{{"label", "Red"}}), Value("Red")})},
    };
    for (const Row& row : rows)
        EXPECT_EQ(TagCodec::decode(archive::writeBinaryPropertyList(row.value)), std::nullopt) << row.what;
}

TEST(TagCodec, GivesNothingForBytesCutAnywhere) {
    Bytes whole = TagCodec::encode({{"Red", 6}, {"Work", std::nullopt}});
    for (std::size_t length = 0; length < whole.size(); ++length)
        EXPECT_EQ(TagCodec::decode(ByteView(whole).first(length)), std::nullopt) << length << " bytes";
}

TEST(TagCodec, SurvivesHostileBytes) {
    std::mt19937 random(20);
    Bytes whole = TagCodec::encode({{"Red", 6}, {"Work", std::nullopt}});
    for (int round = 0; round < 20'000; ++round) {
        Bytes damaged = whole;
        for (int changes = 0; changes < 1 + round % 4; ++changes)
            damaged[random() % damaged.size()] = static_cast<std::uint8_t>(random());
        auto tags = TagCodec::decode(damaged);
        if (!tags) continue;
        EXPECT_EQ(TagCodec::decode(TagCodec::encode(*tags)), tags);
    }
    Bytes noise(64);
    for (auto& byte : noise) byte = static_cast<std::uint8_t>(random());
    EXPECT_EQ(TagCodec::decode(noise), std::nullopt);
}

}  // namespace
}  // namespace tarnwell::hostframework
