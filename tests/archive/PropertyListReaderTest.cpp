#include <gtest/gtest.h>

#include <cerrno>
#include <limits>
#include <ostream>

#include "platform/archive/PropertyList.h"
#include "tests/archive/RawPropertyList.h"

namespace tarnwell::archive {

void PrintTo(const Value& value, std::ostream* out) { *out << "Value of type " << value.storage.index(); }

namespace {

using testing::appendNumber;
using testing::asciiString;
using testing::bytes;
using testing::counted;
using testing::dictionary;
using testing::RawPropertyList;
using testing::referring;

constexpr std::uint64_t kAlmostAll = std::numeric_limits<std::uint64_t>::max();

/// Why the bytes are refused; "read" when they are not.
std::string refusal(ByteView list) {
    const auto result = readBinaryPropertyList(list);
    if (result) return "read";
    EXPECT_TRUE(result.error().is(ErrorDomain::posix, EBADMSG));
    const std::string prefix = "not a property list: ";
    const std::string message = result.error().userInfo.at(kErrorMessage);
    EXPECT_EQ(message.substr(0, prefix.size()), prefix);
    return message.substr(prefix.size());
}

Value readObject(const Bytes& object) {
    const auto result = readBinaryPropertyList(RawPropertyList{.objects = {object}}.build());
    EXPECT_TRUE(result);
    return result.value_or(Value("refused"));
}

std::string refusalOfObject(const Bytes& object) { return refusal(RawPropertyList{.objects = {object}}.build()); }

TEST(PropertyListReader, ReadsEveryObjectType) {
    struct Row {
        const char* name;
        Bytes object;
        Value expected;
    };
    const auto integer = [](std::uint64_t value) { return Integer::fromUnsigned(value); };
    const Row rows[] = {
        {"null", bytes({0x00}), Value()},
        {"false", bytes({0x08}), false},
        {"true", bytes({0x09}), true},
        {"one byte is unsigned", bytes({0x10, 0xFF}), integer(255)},
        {"two bytes are unsigned", bytes({0x11, 0xFF, 0xFF}), integer(65535)},
        {"four bytes are unsigned", bytes({0x12, 0xFF, 0xFF, 0xFF, 0xFF}), integer(0xFFFFFFFF)},
        {"eight bytes are signed", bytes({0x13, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE}),
         Integer::fromSigned(-2)},
        {"wider than needed", bytes({0x13, 0, 0, 0, 0, 0, 0, 0, 5}), integer(5)},
        {"sixteen bytes", bytes({0x14, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}),
         integer(kAlmostAll)},
        {"sixteen bytes below zero",
         bytes({0x14, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE}),
         Integer::fromSigned(-2)},
        {"four-byte real", bytes({0x22, 0x3F, 0xC0, 0, 0}), 1.5},
        {"eight-byte real", bytes({0x23, 0x3F, 0xF8, 0, 0, 0, 0, 0, 0}), 1.5},
        {"date", bytes({0x33, 0x3F, 0xF8, 0, 0, 0, 0, 0, 0}), PlistDate{1.5}},
        {"data", bytes({0x42, 1, 2}), Bytes{1, 2}},
        {"ASCII", bytes({0x52, 'h', 'i'}), "hi"},
        {"count that needs no integer", asciiString("hi"), "hi"},
        {"UTF-16", bytes({0x62, 0xD8, 0x3C, 0xDF, 0xBC}), "\U0001F3BC"},
        {"UTF-16 below 0x80", bytes({0x61, 0, 'a'}), "a"},
        {"UID of three bytes", bytes({0x82, 1, 0, 0}), Uid{65536}},
        {"UID of sixteen bytes", bytes({0x8F, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0}),
         Uid{std::uint64_t{1} << 56}},
        {"empty array", bytes({0xA0}), Array{}},
        {"empty set", bytes({0xC0}), Array{}},
        {"empty dictionary", bytes({0xD0}), Dictionary{}},
    };
    for (const Row& row : rows) EXPECT_EQ(readObject(row.object), row.expected) << row.name;
}

TEST(PropertyListReader, ReadsSetsAsArraysAndSharedObjectsAtEveryPlace) {
    const RawPropertyList list{.objects = {referring(0xC0, {1, 1, 2}), referring(0xA0, {2}), asciiString("x")}};
    const auto result = readBinaryPropertyList(list.build());
    ASSERT_TRUE(result);
    EXPECT_EQ(*result, Value(Array{Array{"x"}, Array{"x"}, "x"}));
}

TEST(PropertyListReader, ReadsEverySizeOfOffsetsAndReferencesAndAnyTopObject) {
    for (std::uint8_t size = 1; size <= 8; ++size) {
        const RawPropertyList list{.objects = {asciiString("x"), referring(0xA0, {0, 0}, size)},
                                   .top = 1,
                                   .offsetSize = size,
                                   .referenceSize = size};
        const auto result = readBinaryPropertyList(list.build());
        ASSERT_TRUE(result) << "size " << int(size);
        EXPECT_EQ(*result, Value(Array{"x", "x"})) << "size " << int(size);
    }
}

TEST(PropertyListReader, KeepsBothOfTwoEqualKeysOfWhichTheLastCounts) {
    const RawPropertyList list{.objects = {dictionary({1, 1}, {2, 3}), asciiString("k"), bytes({0x08}), bytes({0x09})}};
    const auto result = readBinaryPropertyList(list.build());
    ASSERT_TRUE(result);
    EXPECT_EQ(*result, Value(Dictionary{{"k", true}}));
    EXPECT_EQ(*result->find("k"), Value(true));
}

TEST(PropertyListReader, RefusesWhatIsNoPropertyListOfThisVersion) {
    const Bytes good = RawPropertyList{.objects = {bytes({0x09})}}.build();
    ASSERT_EQ(refusal(good), "read");
    EXPECT_EQ(refusal({}), "too short");
    EXPECT_EQ(refusal(Bytes(39)), "too short");
    EXPECT_EQ(refusal(Bytes(40)), "another format or version");
    EXPECT_EQ(refusal(RawPropertyList{.objects = {bytes({0x09})}, .magic = "bplist01"}.build()),
              "another format or version");
    const std::string_view xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><true/></plist>";
    EXPECT_EQ(refusal(bytesOf(xml)), "another format or version");
}

TEST(PropertyListReader, RefusesTrailersThatDoNotFitTheFile) {
    struct Row {
        const char* name;
        RawPropertyList list;
        const char* why;
    };
    const std::vector<Bytes> one{bytes({0x09})};
    const Row rows[] = {
        {"offsets of no size", {.objects = one, .offsetSize = 0}, "sizes in the trailer"},
        {"offsets of nine bytes", {.objects = one, .offsetSize = 9}, "sizes in the trailer"},
        {"references of no size", {.objects = one, .referenceSize = 0}, "sizes in the trailer"},
        {"references of 255 bytes", {.objects = one, .referenceSize = 255}, "sizes in the trailer"},
        {"no objects", {.objects = {}}, "no top object"},
        {"no objects declared", {.objects = one, .objectCount = 0}, "no top object"},
        {"top object past the last", {.objects = one, .top = 1}, "no top object"},
        {"top object near 2^64", {.objects = one, .top = kAlmostAll}, "no top object"},
        {"one object more than the table holds", {.objects = one, .objectCount = 2}, "offset table cut"},
        {"count near 2^64", {.objects = one, .objectCount = kAlmostAll}, "too many objects"},
        {"count whose table size wraps to 4",
         {.objects = one, .objectCount = (std::uint64_t{1} << 62) + 1},
         "too many objects"},
        {"table in the magic", {.objects = one, .offsetTable = 7}, "offset table outside"},
        {"table past the end", {.objects = one, .offsetTable = 1000}, "offset table outside"},
        {"table in the trailer", {.objects = one, .offsetTable = 14}, "offset table outside"},
        {"table near 2^64", {.objects = one, .offsetTable = kAlmostAll - 3}, "offset table outside"},
        {"offset in the magic", {.objects = one, .offsets = {{7}}}, "offset outside"},
        {"offset of the table", {.objects = one, .offsets = {{9}}}, "offset outside"},
        {"offset near 2^64", {.objects = one, .offsetSize = 8, .offsets = {{kAlmostAll}}}, "offset outside"},
        {"offset of an object that nothing refers to",
         {.objects = {bytes({0x09}), bytes({0x08})}, .offsets = {{8, 99}}},
         "offset outside"},
    };
    for (const Row& row : rows) EXPECT_EQ(refusal(row.list.build()), row.why) << row.name;
}

TEST(PropertyListReader, RefusesObjectsThatAreCutOrUnknown) {
    struct Row {
        const char* name;
        Bytes object;
        const char* why;
    };
    const std::uint64_t tenGigabytes = 10'000'000'000;
    const auto declared = [](int type, std::uint64_t count) { return counted(static_cast<std::uint8_t>(type), count); };
    const Row rows[] = {
        {"integer cut", bytes({0x12, 1, 2, 3}), "integer cut"},
        {"integer of 32 bytes", bytes({0x15, 0}), "integer of unknown size"},
        {"integer beyond 64 bits", bytes({0x14, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0}),
         "integer beyond 64 bits"},
        {"integer below the signed range",
         bytes({0x14, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F, 0, 0, 0, 0, 0, 0, 0}),
         "integer beyond 64 bits"},
        {"four-byte real cut", bytes({0x22, 0, 0, 0}), "real cut"},
        {"eight-byte real cut", bytes({0x23, 0, 0, 0, 0, 0, 0, 0}), "real or date cut"},
        {"date cut", bytes({0x33}), "real or date cut"},
        {"date of four bytes", bytes({0x32, 0, 0, 0, 0}), "unknown marker"},
        {"UID cut", bytes({0x81, 0}), "UID cut"},
        {"UID beyond 64 bits", bytes({0x88, 1, 0, 0, 0, 0, 0, 0, 0, 0}), "UID beyond 64 bits"},
        {"fill byte", bytes({0x0F}), "unknown marker"},
        {"unknown type 7", bytes({0x70}), "unknown marker"},
        {"unknown type B", bytes({0xB0}), "unknown marker"},
        {"unknown type E", bytes({0xE0}), "unknown marker"},
        {"unknown type F", bytes({0xFF}), "unknown marker"},
        {"data cut", bytes({0x42, 1}), "string or data cut"},
        {"ASCII cut", bytes({0x51}), "string or data cut"},
        {"UTF-16 cut", bytes({0x61, 0}), "string or data cut"},
        {"ten gigabytes of data", declared(0x40, tenGigabytes), "string or data cut"},
        {"ten gigabytes of ASCII", declared(0x50, tenGigabytes), "string or data cut"},
        {"UTF-16 whose size wraps to 2", declared(0x60, (std::uint64_t{1} << 63) + 1), "string or data cut"},
        {"data of 2^64-1 bytes", declared(0x40, kAlmostAll), "string or data cut"},
        {"array of ten billion", declared(0xA0, tenGigabytes), "container cut"},
        {"array of 2^64-1", declared(0xA0, kAlmostAll), "container cut"},
        {"dictionary whose size wraps to 0", declared(0xD0, std::uint64_t{1} << 63), "container cut"},
        {"array without its reference", bytes({0xA1}), "container cut"},
        {"dictionary without its value", bytes({0xD1, 0}), "container cut"},
        {"reference outside", bytes({0xA1, 1}), "reference outside"},
        {"count cut off", bytes({0x4F}), "count is no integer"},
        {"count is a string", bytes({0x4F, 0x50}), "count is no integer"},
        {"count cut", bytes({0x4F, 0x13, 0}), "count cut"},
        {"count of sixteen bytes", bytes({0x4F, 0x14, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}),
         "count of unknown size"},
        {"ASCII with a byte from 0x80", bytes({0x52, 'a', 0x80}), "string is no ASCII"},
        {"high surrogate at the end", bytes({0x61, 0xD8, 0x00}), "string is no UTF-16"},
        {"high surrogate before a letter", bytes({0x62, 0xD8, 0x00, 0, 'a'}), "string is no UTF-16"},
        {"low surrogate alone", bytes({0x61, 0xDC, 0x00}), "string is no UTF-16"},
    };
    for (const Row& row : rows) EXPECT_EQ(refusalOfObject(row.object), row.why) << row.name;
}

TEST(PropertyListReader, RefusesKeysThatAreNoStrings) {
    const RawPropertyList list{.objects = {dictionary({1}, {1}), bytes({0x10, 1})}};
    EXPECT_EQ(refusal(list.build()), "dictionary key is no string");
}

TEST(PropertyListReader, RefusesContainersWithinThemselves) {
    EXPECT_EQ(refusalOfObject(bytes({0xA1, 0})), "a container within itself");
    EXPECT_EQ(refusalOfObject(bytes({0xC1, 0})), "a container within itself");
    const RawPropertyList throughAValue{.objects = {dictionary({1}, {2}), asciiString("k"), bytes({0xA1, 0})}};
    EXPECT_EQ(refusal(throughAValue.build()), "a container within itself");
    const RawPropertyList asKey{.objects = {dictionary({0}, {0})}};
    EXPECT_EQ(refusal(asKey.build()), "a container within itself");
}

TEST(PropertyListReader, RefusesSharedContainersThatMultiplyPastTheLimit) {
    RawPropertyList list;
    for (std::uint64_t level = 1; level <= 40; ++level)
        list.objects.push_back(referring(0xA0, std::vector<std::uint64_t>(10, level)));
    list.objects.push_back(asciiString("again"));
    EXPECT_EQ(refusal(list.build()), "too many objects");
}

TEST(PropertyListReader, ReadsAsManyBytesAsTheLimitAndNoMore) {
    const auto fileOf = [](std::size_t size) {
        RawPropertyList list{.objects = {counted(0x40, 0)}};
        const std::size_t content = size - list.build().size();
        list.objects[0] = counted(0x40, content);
        list.objects[0].resize(list.objects[0].size() + content);
        return list.build();
    };
    const Bytes largest = fileOf(kMaxPlistBytes);
    ASSERT_EQ(largest.size(), kMaxPlistBytes);
    EXPECT_EQ(refusal(largest), "read");
    EXPECT_EQ(refusal(fileOf(kMaxPlistBytes + 1)), "too many bytes");
}

TEST(PropertyListReader, ReadsAsManyTableEntriesAsTheLimitAndNoMore) {
    const auto listOf = [](std::size_t objects) {
        return RawPropertyList{.objects = std::vector<Bytes>(objects, bytes({0x09}))}.build();
    };
    EXPECT_EQ(refusal(listOf(kMaxPlistObjects)), "read");
    EXPECT_EQ(refusal(listOf(kMaxPlistObjects + 1)), "too many objects");
}

TEST(PropertyListReader, ReadsAsManyValuesAsTheLimitAndNoMore) {
    const auto arrayOf = [](std::size_t elements) {
        return RawPropertyList{.objects = {referring(0xA0, std::vector<std::uint64_t>(elements, 1)), bytes({0x09})}}
            .build();
    };
    EXPECT_EQ(refusal(arrayOf(kMaxPlistObjects - 1)), "read");
    EXPECT_EQ(refusal(arrayOf(kMaxPlistObjects)), "too many objects");

    // Keys count as values do: the dictionary, its keys and its values are one, n and n.
    const auto dictionaryOf = [](std::size_t pairs) {
        const std::vector<std::uint64_t> keys(pairs, 1);
        return RawPropertyList{.objects = {dictionary(keys, keys), asciiString("")}}.build();
    };
    EXPECT_EQ(refusal(dictionaryOf(kMaxPlistObjects / 2 - 1)), "read");
    EXPECT_EQ(refusal(dictionaryOf(kMaxPlistObjects / 2)), "too many objects");
}

TEST(PropertyListReader, ReadsAsDeepAsTheLimitAndNoDeeper) {
    const auto nested = [](std::uint8_t type, std::size_t depth) {
        RawPropertyList list;
        for (std::size_t level = 1; level < depth; ++level) list.objects.push_back(referring(type, {level}));
        list.objects.push_back(referring(type, {}));
        return list.build();
    };
    for (const std::uint8_t type : {std::uint8_t{0xA0}, std::uint8_t{0xC0}}) {
        EXPECT_EQ(refusal(nested(type, kMaxPlistDepth)), "read");
        EXPECT_EQ(refusal(nested(type, kMaxPlistDepth + 1)), "too deep");
    }
}

TEST(PropertyListReader, ReadsAsMuchContentAsTheLimitAndNoMore) {
    struct Row {
        const char* name;
        Bytes megabyte;
    };
    Bytes data = counted(0x40, 1u << 20);
    data.resize(data.size() + (1u << 20));
    Bytes wide = counted(0x60, 1u << 19);  // U+0100: as long in UTF-8 as in UTF-16
    for (std::size_t i = 0; i < (1u << 19); ++i) appendNumber(wide, 0x0100, 2);
    const Row rows[] = {{"data", data}, {"ASCII", asciiString(std::string(1u << 20, 'x'))}, {"UTF-16", wide}};
    for (const Row& row : rows) {
        std::vector<std::uint64_t> references(kMaxPlistContentBytes >> 20, 1);
        RawPropertyList list{.objects = {referring(0xA0, references), row.megabyte, bytes({0x51, 'x'})}};
        EXPECT_EQ(refusal(list.build()), "read") << row.name;
        references.push_back(2);
        list.objects[0] = referring(0xA0, references);
        EXPECT_EQ(refusal(list.build()), "too much content") << row.name;
    }
}

}  // namespace
}  // namespace tarnwell::archive
