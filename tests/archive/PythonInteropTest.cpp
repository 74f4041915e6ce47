#include <gtest/gtest.h>

#include <chrono>

#include "platform/archive/KeyedArchive.h"
#include "tests/golden/Python.h"

namespace tarnwell::archive {
namespace {

using registry::ApplicationType;
using registry::ArchivedBundleRecord;
using registry::Origin;

Integer integer(std::uint64_t value) { return Integer::fromUnsigned(value); }

TEST(PythonInterop, PythonReadsEveryValueWrittenHere) {
    const Value value = Dictionary{
        {"integers", Array{integer(0), integer(255), integer(65536), integer(9223372036854775807u),
                           integer(18446744073709551615u), Integer::fromSigned(-1)}},
        {"reals", Array{0.1, -2.5}},
        {"flags", Array{true, false}},
        {"date", PlistDate{86400}},
        {"texts", Array{"", "plain", "\u00C5r \U0001F3BC", "sixteen letters."}},
        {"data", Bytes{0, 255}},
        {"uid", Uid{300}},
        {"nested", Dictionary{{"empty", Array{}}, {"none", Dictionary{}}}},
    };
    EXPECT_EQ(python::json(writeBinaryPropertyList(value)),
              R"({"integers": [0, 255, 65536, 9223372036854775807, 18446744073709551615, -1], )"
              R"("reals": [0.1, -2.5], "flags": [true, false], "date": "2001-01-02T00:00:00", )"
              R"("texts": ["", "plain", "\u00c5r \ud83c\udfbc", "sixteen letters."], "data": {"data": "00ff"}, )"
              R"("uid": {"UID": 300}, "nested": {"empty": [], "none": {}}})");
}

TEST(PythonInterop, PythonReadsListsThatNeedWideReferencesAndOffsets) {
    Array array;
    for (std::uint64_t i = 0; i < 70'000; ++i) array.emplace_back(integer(i));
    const Bytes bytes = writeBinaryPropertyList(array);
    EXPECT_EQ(bytes[bytes.size() - 25], 4);
    // Too long for an argument: the script builds the same list and compares digests.
    std::uint64_t sum = 0;
    for (const std::uint8_t byte : bytes) sum = sum * 31 % 1'000'000'007 + byte;
    const std::string digest = python::run(R"(
import plistlib
total = 0
for byte in plistlib.dumps(list(range(70000)), fmt=plistlib.FMT_BINARY):
    total = total * 31 % 1000000007 + byte
print(total)
)");
    EXPECT_EQ(digest, std::to_string(sum));
}

TEST(PythonInterop, ReadsEveryValueThatPythonWrites) {
    const Bytes bytes = python::listOf(
        R"({"n": [0, 255, 65536, 2**63 - 1, 2**64 - 1, -1, -2**63], "r": [0.1], "f": [True, False],
            "d": datetime.datetime(2001, 1, 2), "t": ["", "\u00c5r \U0001f3bc", "x" * 300], "b": b"\0\xff",
            "u": UID(300), "e": [[], {}]})");
    const auto read = readBinaryPropertyList(bytes);
    ASSERT_TRUE(read);
    const Value expected = Dictionary{
        {"n",
         Array{integer(0), integer(255), integer(65536), integer(9223372036854775807u), integer(18446744073709551615u),
               Integer::fromSigned(-1), Integer::fromSigned(std::numeric_limits<std::int64_t>::min())}},
        {"r", Array{0.1}},
        {"f", Array{true, false}},
        {"d", PlistDate{86400}},
        {"t", Array{"", "\u00C5r \U0001F3BC", std::string(300, 'x')}},
        {"b", Bytes{0, 255}},
        {"u", Uid{300}},
        {"e", Array{Array{}, Dictionary{}}},
    };
    EXPECT_TRUE(*read == expected);
}

TEST(PythonInterop, PythonReadsAnArchivedDate) {
    const Date date{std::chrono::microseconds(1'709'210'096'789'012)};
    EXPECT_EQ(python::json(archiveRoot({date})),
              R"({"$version": 100000, "$archiver": "TWKeyedArchiver", "$top": {"root": {"UID": 1}}, )"
              R"("$objects": ["$null", {"nanoseconds": 1709210096789012000, "$class": {"UID": 2}}, )"
              R"({"$classname": "TWDate", "$classes": ["TWDate", "TWObject"]}]})");
}

TEST(PythonInterop, PythonReadsArchivedPlainRoots) {
    const std::string before = R"({"$version": 100000, "$archiver": "TWKeyedArchiver", )"
                               R"("$top": {"root": {"UID": 1}}, "$objects": ["$null", )";
    EXPECT_EQ(python::json(archiveRoot({integer(7)})), before + "7]}");
    EXPECT_EQ(python::json(archiveRoot({2.5})), before + "2.5]}");
    EXPECT_EQ(python::json(archiveRoot({std::string("Notes/a.txt")})), before + "\"Notes/a.txt\"]}");
    EXPECT_EQ(python::json(archiveRoot({std::string("Notes/\xFF")})), before + R"({"data": "4e6f7465732fff"}]})");
}

TEST(PythonInterop, PythonReadsArchivedTags) {
    EXPECT_EQ(python::json(archiveRoot({ArchivedArray{{std::string("Red")}, {std::string("\u00FC")}}})),
              R"({"$version": 100000, "$archiver": "TWKeyedArchiver", "$top": {"root": {"UID": 1}}, )"
              R"("$objects": ["$null", {"elements": [{"UID": 2}, {"UID": 3}], "$class": {"UID": 4}}, )"
              R"("Red", "\u00fc", {"$classname": "TWArray", "$classes": ["TWArray", "TWObject"]}]})");
}

TEST(PythonInterop, PythonReadsAnArchivedListOfApplications) {
    const ArchivedBundleRecord record{"org.example.notes", std::nullopt, Origin::snap, ApplicationType::system};
    const ArchivedObject root{
        ArchivedDictionary{{"versionToken", {integer(3)}}, {"bundleProxy", {ArchivedArray{{record}}}}}};
    EXPECT_EQ(python::json(archiveRoot(root)),
              R"({"$version": 100000, "$archiver": "TWKeyedArchiver", "$top": {"root": {"UID": 1}}, )"
              R"("$objects": ["$null", {"keys": [{"UID": 2}, {"UID": 3}], "elements": [{"UID": 4}, {"UID": 5}], )"
              R"("$class": {"UID": 10}}, "versionToken", "bundleProxy", 3, )"
              R"({"elements": [{"UID": 6}], "$class": {"UID": 9}}, )"
              R"({"bundleIdentifier": {"UID": 7}, "dataContainerPath": {"UID": 0}, "origin": 1, "type": 2, )"
              R"("$class": {"UID": 8}}, "org.example.notes", )"
              R"({"$classname": "TWBundleRecord", "$classes": ["TWBundleRecord", "TWObject"]}, )"
              R"({"$classname": "TWArray", "$classes": ["TWArray", "TWObject"]}, )"
              R"({"$classname": "TWDictionary", "$classes": ["TWDictionary", "TWObject"]}]})");
}

/// An archive made by Python; its keys come out sorted, unlike ours.
Bytes archiveOf(const std::string& objects, const std::string& root = "UID(1)") {
    return python::listOf(R"({"$version": 100000, "$archiver": "TWKeyedArchiver", "$top": {"root": )" + root +
                          R"(}, "$objects": ["$null", )" + objects + "]}");
}

TEST(PythonInterop, ReadsAttributesThatPythonWrites) {
    const std::string date = R"({"$classname": "TWDate", "$classes": ["TWDate", "TWObject"]})";
    const std::string array = R"({"$classname": "TWArray", "$classes": ["TWArray", "TWObject"]})";
    EXPECT_EQ(unarchiveDate(archiveOf(R"({"$class": UID(2), "nanoseconds": -1500}, )" + date)),
              Date(std::chrono::nanoseconds(-1500)));
    EXPECT_EQ(unarchiveNumber(archiveOf("2**64 - 1")), Number{integer(18446744073709551615u)});
    EXPECT_EQ(unarchiveNumber(archiveOf("-2.5")), Number{-2.5});
    EXPECT_EQ(unarchiveString(archiveOf(R"("Notes/\u00fc.txt")")), "Notes/\u00FC.txt");
    EXPECT_EQ(
        unarchiveStrings(archiveOf(array + R"(, "Red", {"$class": UID(1), "elements": [UID(2), UID(2)]})", "UID(3)")),
        (std::vector<std::string>{"Red", "Red"}));
    EXPECT_EQ(unarchiveStrings(archiveOf(R"({"$class": UID(2), "elements": []}, )" + array)),
              std::vector<std::string>{});
}

}  // namespace
}  // namespace tarnwell::archive
