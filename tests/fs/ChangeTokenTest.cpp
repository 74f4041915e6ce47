#include "fs/ChangeToken.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <ostream>
#include <random>

#include "platform/archive/PropertyList.h"
#include "tests/golden/Golden.h"
#include "tests/golden/Python.h"

namespace tarnwell::fs {

void PrintTo(const ChangeToken& token, std::ostream* out) { *out << token.description(); }

namespace {

using archive::Array;
using archive::Dictionary;
using archive::Integer;
using archive::Value;

constexpr auto kLast = std::numeric_limits<std::uint64_t>::max();
constexpr const char* kUUID = "3F2504E0-4F89-11D3-9A0C-0305E82C3301";

ChangeToken token(std::uint64_t version, std::uint64_t event, std::uint64_t offset, std::uint64_t appLibraries) {
    return {version, *UUID::parse(kUUID), EventID{event}, offset, appLibraries};
}

Value number(std::uint64_t value) { return Integer::fromUnsigned(value); }

/// The fields of a token as a dictionary that a test may damage.
Dictionary fields() {
    return {{"version", number(1)},
            {"deviceUUID", kUUID},
            {"streamEventID", number(2)},
            {"offset", number(3)},
            {"appLibraryVersionToken", number(4)}};
}

Value& field(Dictionary& dictionary, std::string_view key) {
    for (auto& pair : dictionary)
        if (pair.first == key) return pair.second;
    ADD_FAILURE() << "no field " << key;
    return dictionary.front().second;
}

std::optional<ChangeToken> decodeList(const Value& list) {
    return ChangeToken::decode(archive::writeBinaryPropertyList(list));
}

TEST(ChangeToken, DecodesToWhatWasEncoded) {
    const std::uint64_t values[] = {0, 1, 255, 256, 65536, 0xFFFFFFFF, (1ull << 63) - 1, 1ull << 63, kLast};
    for (const std::uint64_t value : values) {
        for (const ChangeToken& each : {token(value, 0, 0, 0), token(0, value, 0, 0), token(0, 0, value, 0),
                                        token(0, 0, 0, value), token(value, value, value, value)})
            EXPECT_EQ(ChangeToken::decode(each.encode()), each);
    }
}

TEST(ChangeToken, OfTheCurrentPositionHasZeroesAroundTheDeviceAndTheEvent) {
    ChangeToken current;
    current.deviceUUID = *UUID::parse(kUUID);
    current.streamEventID = EventID{71};
    const auto decoded = ChangeToken::decode(current.encode());
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->version, 0u);
    EXPECT_EQ(decoded->deviceUUID.text(), kUUID);
    EXPECT_EQ(decoded->streamEventID, EventID{71});
    EXPECT_EQ(decoded->offset, 0u);
    EXPECT_EQ(decoded->appLibraryVersionToken, 0u);
}

TEST(ChangeToken, IsADictionaryOfFiveKeysInOrder) {
    const auto list = archive::readBinaryPropertyList(token(1, 2, 3, 4).encode());
    ASSERT_TRUE(list);
    ASSERT_NE(list->dictionary(), nullptr);
    std::vector<std::string> keys;
    for (const auto& [key, value] : *list->dictionary()) keys.push_back(key);
    EXPECT_EQ(keys,
              (std::vector<std::string>{"version", "deviceUUID", "streamEventID", "offset", "appLibraryVersionToken"}));
    EXPECT_TRUE(*list == Value(fields()));
}

TEST(ChangeToken, IsNeverAsLongAsTheRawRecord) {
    EXPECT_GT(ChangeToken{}.encode().size(), 48u);
    EXPECT_GT(token(kLast, kLast, kLast, kLast).encode().size(), 48u);
}

TEST(ChangeToken, IsRefusedAtExactly48BytesWhateverTheyAre) {
    EXPECT_EQ(ChangeToken::decode(Bytes(48, 0)), std::nullopt);
    EXPECT_EQ(ChangeToken::decode(Bytes(48, 0xFF)), std::nullopt);
    // A property list of 48 bytes: 8 of magic, an object, one of offsets, 32 of trailer.
    const Bytes list = archive::writeBinaryPropertyList("offset");
    ASSERT_EQ(list.size(), 48u);
    ASSERT_TRUE(archive::readBinaryPropertyList(list));
    EXPECT_EQ(ChangeToken::decode(list), std::nullopt);
}

TEST(ChangeToken, IsRefusedForBytesOfAnotherFormat) {
    EXPECT_EQ(ChangeToken::decode({}), std::nullopt);
    EXPECT_EQ(ChangeToken::decode(bytesOf("InitialPageSortedByName")), std::nullopt);
    EXPECT_EQ(ChangeToken::decode(bytesOf("{\"version\": 0, \"offset\": 0}")), std::nullopt);
    std::mt19937_64 random(20240229);
    for (std::size_t size = 1; size <= 400; ++size) {
        Bytes bytes(size);
        for (auto& byte : bytes) byte = static_cast<std::uint8_t>(random());
        EXPECT_EQ(ChangeToken::decode(bytes), std::nullopt) << size << " random bytes";
    }
}

TEST(ChangeToken, IsRefusedWithoutAnyOneOfItsKeys) {
    const Dictionary complete = fields();
    ASSERT_TRUE(decodeList(complete));
    for (const auto& [missing, value] : complete) {
        Dictionary rest;
        for (const auto& pair : complete)
            if (pair.first != missing) rest.push_back(pair);
        EXPECT_EQ(decodeList(rest), std::nullopt) << "without " << missing;
    }
    EXPECT_EQ(decodeList(Dictionary{}), std::nullopt);
    EXPECT_EQ(decodeList(Array{complete}), std::nullopt);
}

TEST(ChangeToken, IsRefusedWithAValueOfAnotherType) {
    struct Row {
        const char* name;
        Value value;
    };
    const Row rows[] = {{"null", Value()},
                        {"Boolean", true},
                        {"real", 5.0},
                        {"data", Bytes{1, 2}},
                        {"array", Array{number(1)}},
                        {"dictionary", Dictionary{}},
                        {"date", archive::PlistDate{5}},
                        {"UID", archive::Uid{5}},
                        {"text of a number", "5"},
                        {"negative", Integer::fromSigned(-1)},
                        {"least", Integer::fromSigned(INT64_MIN)}};
    for (const auto& [key, good] : fields()) {
        for (const Row& row : rows) {
            Dictionary dictionary = fields();
            field(dictionary, key) = row.value;
            EXPECT_EQ(decodeList(dictionary), std::nullopt) << key << " as " << row.name;
        }
    }
    Dictionary dictionary = fields();
    field(dictionary, "deviceUUID") = number(5);
    EXPECT_EQ(decodeList(dictionary), std::nullopt);
}

TEST(ChangeToken, ReadsTheCanonicalTextOfAUUIDOfEitherCaseOnly) {
    const auto decodeWith = [](const char* text) {
        Dictionary dictionary = fields();
        field(dictionary, "deviceUUID") = text;
        return decodeList(dictionary);
    };
    const auto lower = decodeWith("3f2504e0-4f89-11d3-9a0c-0305e82c3301");
    ASSERT_TRUE(lower);
    EXPECT_EQ(*lower, token(1, 2, 3, 4));
    EXPECT_EQ(lower->encode(), token(1, 2, 3, 4).encode()) << "written in upper case";
    for (const char* text : {"", "3F2504E0-4F89-11D3-9A0C-0305E82C330", "3F2504E0-4F89-11D3-9A0C-0305E82C33011",
                             "3F2504E04F8911D39A0C0305E82C3301", "{3F2504E0-4F89-11D3-9A0C-0305E82C3301}",
                             "3F2504E0-4F89-11D3-9A0C-0305E82C330G", "3F2504E0+4F89-11D3-9A0C-0305E82C3301",
                             " 3F2504E0-4F89-11D3-9A0C-0305E82C330", "3F2504E0-4F89-11D3-9A0C-0305E82C330\u00FC"})
        EXPECT_EQ(decodeWith(text), std::nullopt) << text;
}

TEST(ChangeToken, ReadsOtherOrdersAndFurtherKeys) {
    Dictionary dictionary = fields();
    std::reverse(dictionary.begin(), dictionary.end());
    dictionary.emplace_back("further", Array{"x"});
    EXPECT_EQ(decodeList(dictionary), token(1, 2, 3, 4));
}

TEST(ChangeToken, DescribesEveryField) {
    EXPECT_EQ(token(0, 7, 200, kLast).description(),
              "version:0 deviceUUID:3F2504E0-4F89-11D3-9A0C-0305E82C3301 streamEventID:7 offset:200 "
              "appLibraryVersionToken:18446744073709551615");
}

TEST(ChangeTokenGolden, EncodesToExactlyTheBytesCheckedInAndBack) {
    const ChangeToken expected = token(0, kLast, 200, 3);
    EXPECT_EQ(expected.encode(), golden::read("change-token.plist"));
    EXPECT_EQ(ChangeToken::decode(golden::read("change-token.plist")), expected);
}

TEST(ChangeTokenGolden, IsRefusedCutAtEveryByte) {
    golden::cutAtEveryByte(golden::read("change-token.plist"),
                           [](ByteView cut) { EXPECT_EQ(ChangeToken::decode(cut), std::nullopt); });
}

TEST(ChangeTokenGolden, IsNothingOrAFullTokenWithAnyBitFlipped) {
    const ChangeToken original = token(0, kLast, 200, 3);
    std::size_t refused = 0, others = 0;
    golden::flipEveryBit(golden::read("change-token.plist"), [&](ByteView flipped) {
        const auto decoded = ChangeToken::decode(flipped);
        if (!decoded) {
            ++refused;
            return;
        }
        if (*decoded != original) ++others;
        EXPECT_EQ(ChangeToken::decode(decoded->encode()), decoded);
    });
    EXPECT_GT(refused, 0u);
    EXPECT_GT(others, 0u);
}

TEST(ChangeTokenInterop, PythonReadsTheFieldsInOrder) {
    EXPECT_EQ(python::json(token(0, kLast, 200, 3).encode()),
              R"({"version": 0, "deviceUUID": "3F2504E0-4F89-11D3-9A0C-0305E82C3301", )"
              R"("streamEventID": 18446744073709551615, "offset": 200, "appLibraryVersionToken": 3})");
}

TEST(ChangeTokenInterop, ReadsATokenThatPythonWrites) {
    const Bytes bytes = python::listOf(
        R"({"version": 2**64 - 1, "deviceUUID": "3f2504e0-4f89-11d3-9a0c-0305e82c3301", "streamEventID": 2**63,
            "offset": 70000, "appLibraryVersionToken": 0})");
    EXPECT_EQ(ChangeToken::decode(bytes), token(kLast, 1ull << 63, 70000, 0));
}

}  // namespace
}  // namespace tarnwell::fs
