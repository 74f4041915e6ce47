#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "platform/archive/PropertyList.h"
#include "tests/archive/RawPropertyList.h"

namespace tarnwell::archive {
namespace {

using testing::bytes;

Integer integer(std::uint64_t value) { return Integer::fromUnsigned(value); }

/// The bytes of the single object of a list of one scalar.
Bytes objectBytes(const Value& scalar) {
    const Bytes whole = writeBinaryPropertyList(scalar);
    return {whole.begin() + 8, whole.end() - 33};
}

std::uint64_t objectCount(const Bytes& whole) {
    std::uint64_t count = 0;
    for (std::size_t i = 0; i < 8; ++i) count = count << 8 | whole[whole.size() - 24 + i];
    return count;
}

TEST(PropertyListWriter, WritesScalarsInTheirSmallestForm) {
    struct Row {
        const char* name;
        Value value;
        Bytes expected;
    };
    constexpr std::uint64_t kSignBit = std::uint64_t{1} << 63;
    const Row rows[] = {
        {"null", Value(), bytes({0x00})},
        {"false", Value(false), bytes({0x08})},
        {"true", Value(true), bytes({0x09})},
        {"0", integer(0), bytes({0x10, 0})},
        {"negative zero", Integer{0, true}, bytes({0x10, 0})},
        {"255", integer(255), bytes({0x10, 0xFF})},
        {"256", integer(256), bytes({0x11, 1, 0})},
        {"65535", integer(65535), bytes({0x11, 0xFF, 0xFF})},
        {"65536", integer(65536), bytes({0x12, 0, 1, 0, 0})},
        {"2^32-1", integer(0xFFFFFFFF), bytes({0x12, 0xFF, 0xFF, 0xFF, 0xFF})},
        {"2^32", integer(0x100000000), bytes({0x13, 0, 0, 0, 1, 0, 0, 0, 0})},
        {"2^63-1", integer(kSignBit - 1), bytes({0x13, 0x7F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF})},
        {"2^63", integer(kSignBit), bytes({0x14, 0, 0, 0, 0, 0, 0, 0, 0, 0x80, 0, 0, 0, 0, 0, 0, 0})},
        {"-1", Integer::fromSigned(-1), bytes({0x13, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF})},
        {"-2^63", Integer{kSignBit, true}, bytes({0x13, 0x80, 0, 0, 0, 0, 0, 0, 0})},
        {"1.5", Value(1.5), bytes({0x23, 0x3F, 0xF8, 0, 0, 0, 0, 0, 0})},
        {"date", PlistDate{1.5}, bytes({0x33, 0x3F, 0xF8, 0, 0, 0, 0, 0, 0})},
        {"empty string", "", bytes({0x50})},
        {"ASCII", "abc", bytes({0x53, 'a', 'b', 'c'})},
        {"0x7F is ASCII", "\x7F", bytes({0x51, 0x7F})},
        {"two-byte character", "\u00FC", bytes({0x61, 0x00, 0xFC})},
        {"surrogate pair", "\U0001F3BC", bytes({0x62, 0xD8, 0x3C, 0xDF, 0xBC})},
        {"fifteen characters", "123456789012345",
         bytes({0x5F, 0x10, 15, '1', '2', '3', '4', '5', '6', '7', '8', '9', '0', '1', '2', '3', '4', '5'})},
        {"data", Bytes{1, 2}, bytes({0x42, 1, 2})},
        {"UID 255", Uid{255}, bytes({0x80, 0xFF})},
        {"UID 256", Uid{256}, bytes({0x81, 1, 0})},
        {"UID 65536", Uid{65536}, bytes({0x83, 0, 1, 0, 0})},
        {"UID 2^32", Uid{0x100000000}, bytes({0x87, 0, 0, 0, 1, 0, 0, 0, 0})},
        {"empty array", Array{}, bytes({0xA0})},
        {"empty dictionary", Dictionary{}, bytes({0xD0})},
    };
    for (const Row& row : rows) EXPECT_EQ(objectBytes(row.value), row.expected) << row.name;
}

TEST(PropertyListWriter, ReplacesEveryByteThatBeginsNoUtf8SequenceByTheReplacementCharacter) {
    struct Row {
        const char* name;
        std::string text;
        std::string readBack;
    };
    const std::string r = "\uFFFD";
    const Row rows[] = {
        {"lone continuation", "a\x80z", "a" + r + "z"},
        {"cut sequence at the end", "a\xC3", "a" + r},
        {"cut sequence before ASCII", "\xE2\x82z", r + r + "z"},
        {"overlong slash", "\xC0\xAF", r + r},
        {"overlong three bytes", "\xE0\x80\xAF", r + r + r},
        {"surrogate", "\xED\xA0\x80", r + r + r},
        {"above the last code point", "\xF4\x90\x80\x80", r + r + r + r},
        {"bytes of no sequence", "\xFE\xFF", r + r},
        {"last code point stays", "\U0010FFFF", "\U0010FFFF"},
        {"smallest of each length stay", "\u0080\u0800\U00010000", "\u0080\u0800\U00010000"},
    };
    for (const Row& row : rows) {
        const auto read = readBinaryPropertyList(writeBinaryPropertyList(row.text));
        ASSERT_TRUE(read) << row.name;
        EXPECT_EQ(*read, Value(row.readBack)) << row.name;
    }
}

TEST(PropertyListWriter, WritesEqualScalarsOnceAndKeepsTypesApart) {
    const Value same = Array{"a",    "a",    integer(1), integer(1), 1.0,     1.0,     PlistDate{1}, PlistDate{1},
                             Uid{1}, Uid{1}, true,       true,       Value(), Value(), Bytes{'a'},   Bytes{'a'}};
    const Bytes written = writeBinaryPropertyList(same);
    EXPECT_EQ(objectCount(written), 9u);
    EXPECT_EQ(readBinaryPropertyList(written), same);
}

TEST(PropertyListWriter, PutsAContainerBeforeItsKeysAndTheseBeforeItsValues) {
    const Value value = Dictionary{{"b", Array{integer(7)}}, {"a", "b"}};
    const Bytes expected = bytes({'b',  'p', 'l', 'i', 's', 't', '0', '0',  //
                                  0xD2, 1,   2,   3,   1,                   // 0 at 8: {1: 3, 2: 1}
                                  0x51, 'b',                                // 1 at 13
                                  0x51, 'a',                                // 2 at 15
                                  0xA1, 4,                                  // 3 at 17: [4]
                                  0x10, 7,                                  // 4 at 19
                                  8,    13,  15,  17,  19,                  // offset table at 21
                                  0,    0,   0,   0,   0,   0,   1,   1,    //
                                  0,    0,   0,   0,   0,   0,   0,   5,    //
                                  0,    0,   0,   0,   0,   0,   0,   0,    //
                                  0,    0,   0,   0,   0,   0,   0,   21});
    EXPECT_EQ(writeBinaryPropertyList(value), expected);
}

TEST(PropertyListWriter, WidensReferencesAndOffsetsOnlyWhenNeeded) {
    const auto sizes = [](std::size_t distinct, std::size_t padding) {
        Array array;
        for (std::size_t i = 0; i < distinct; ++i) array.emplace_back(integer(i));
        array.emplace_back(Bytes(padding));
        const Value value = array;
        const Bytes written = writeBinaryPropertyList(value);
        EXPECT_EQ(readBinaryPropertyList(written), value);
        return std::pair<int, int>(written[written.size() - 26], written[written.size() - 25]);
    };
    using Sizes = std::pair<int, int>;  // of an offset, of a reference
    EXPECT_EQ(sizes(2, 1), Sizes(1, 1));
    EXPECT_EQ(sizes(254, 1), Sizes(2, 1));  // 256 objects: the last is number 255
    EXPECT_EQ(sizes(255, 1), Sizes(2, 2));
    EXPECT_EQ(sizes(65534, 1), Sizes(4, 2));
    EXPECT_EQ(sizes(65535, 1), Sizes(4, 4));
    EXPECT_EQ(sizes(2, 70000), Sizes(1, 1));  // the last object begins early, however long it is
}

TEST(PropertyListWriter, ReadsBackWhatItWrote) {
    const double infinity = std::numeric_limits<double>::infinity();
    const Value value = Dictionary{
        {"numbers", Array{integer(0), Integer::fromSigned(std::numeric_limits<std::int64_t>::min()),
                          integer(std::numeric_limits<std::uint64_t>::max()), -0.0, infinity, std::nan("")}},
        {"dates", Array{PlistDate{-1e9}, PlistDate{725846400.5}}},
        {"texts", Array{"", "plain", "\u00C5rsrapport \U0001F3BC", std::string("a\0b", 3)}},
        {"data", Array{Bytes{}, Bytes(300, 0xFF)}},
        {"nested", Dictionary{{"", Dictionary{{"", Array{Array{}, Dictionary{}}}}}}},
        {"other", Array{Value(), true, false, Uid{0}, Uid{std::numeric_limits<std::uint64_t>::max()}}},
        {"\u00FC", "key that is no ASCII"},
    };
    EXPECT_EQ(readBinaryPropertyList(writeBinaryPropertyList(value)), value);
}

TEST(PropertyListWriter, StopsTheProcessOnATreeThatIsTooDeep) {
    Value value = Array{};
    for (std::size_t depth = 1; depth < kMaxPlistDepth; ++depth) value = Array{value};
    EXPECT_EQ(readBinaryPropertyList(writeBinaryPropertyList(value)), value);
    const Value tooDeep = Dictionary{{"key", value}};
    EXPECT_DEATH(writeBinaryPropertyList(tooDeep), "kMaxPlistDepth");
}

TEST(PropertyListWriter, StopsTheProcessOnANumberBelowTheSignedRange) {
    EXPECT_DEATH(writeBinaryPropertyList(Integer{(std::uint64_t{1} << 63) + 1, true}), "kSignBit");
}

TEST(PropertyListValue, EqualityLooksAtContentAndAtThePairsThatCount) {
    const Value value = Dictionary{{"a", integer(1)}, {"b", Array{"x"}}};
    EXPECT_EQ(value, Value(Dictionary{{"b", Array{"x"}}, {"a", integer(1)}}));
    EXPECT_EQ(value, Value(Dictionary{{"a", integer(9)}, {"b", Array{"x"}}, {"a", integer(1)}}));
    EXPECT_NE(value, Value(Dictionary{{"a", integer(1)}, {"b", Array{"y"}}}));
    EXPECT_NE(value, Value(Dictionary{{"a", integer(1)}}));
    EXPECT_NE(value, Value(Dictionary{{"a", integer(1)}, {"c", Array{"x"}}}));
    EXPECT_NE(Value(1.0), Value(integer(1)));
    EXPECT_NE(Value(0.0), Value(-0.0));
    EXPECT_EQ(Value(std::nan("")), Value(std::nan("")));
    EXPECT_NE(Value(PlistDate{1}), Value(PlistDate{2}));
    EXPECT_NE(Value(Array{"x", "y"}), Value(Array{"y", "x"}));
}

TEST(PropertyListValue, FindsTheLastOfEqualKeysAndNothingInOtherValues) {
    const Value value = Dictionary{{"a", "first"}, {"a", "last"}};
    ASSERT_NE(value.find("a"), nullptr);
    EXPECT_EQ(*value.find("a"), Value("last"));
    EXPECT_EQ(value.find("b"), nullptr);
    EXPECT_EQ(Value(Array{"a"}).find("a"), nullptr);
    EXPECT_EQ(Value("a").find("a"), nullptr);
}

}  // namespace
}  // namespace tarnwell::archive
