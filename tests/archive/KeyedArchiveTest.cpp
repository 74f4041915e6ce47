#include "platform/archive/KeyedArchive.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <limits>

namespace tarnwell::archive {
namespace {

using registry::ApplicationType;
using registry::ArchivedBundleRecord;
using registry::Origin;

Date dateOf(std::int64_t nanoseconds) { return Date(std::chrono::nanoseconds(nanoseconds)); }

Integer integer(std::uint64_t value) { return Integer::fromUnsigned(value); }

/// An archive around an object table, with parts that a test may replace.
struct HandMadeArchive {
    Value version = Integer::fromUnsigned(100'000);
    Value archiver = "TWKeyedArchiver";
    Value root = Uid{1};
    Array objects = {};

    Bytes build() const {
        return writeBinaryPropertyList(Dictionary{{"$objects", objects},
                                                  {"$top", Dictionary{{"root", root}}},
                                                  {"$archiver", archiver},
                                                  {"$version", version}});
    }
};

Value classRecord(const char* name) { return Dictionary{{"$classes", Array{name, "TWObject"}}, {"$classname", name}}; }

std::string outcome(const Result<ArchivedObject>& result) {
    if (result) return "read";
    EXPECT_EQ(result.error().domain, ErrorDomain::unarchive);
    const bool isDamaged = result.error().code == static_cast<std::int64_t>(UnarchiveError::damaged);
    return (isDamaged ? "damaged: " : "wrong class: ") + result.error().userInfo.at(kErrorMessage);
}

std::string outcomeOf(Array objects) {
    return outcome(unarchiveRoot(HandMadeArchive{.objects = std::move(objects)}.build()));
}

TEST(KeyedArchive, LaysOutTheTopLevelWithNullAsTheFirstObject) {
    const auto list = readBinaryPropertyList(archiveRoot({std::string("root")}));
    ASSERT_TRUE(list);
    EXPECT_EQ(*list, Value(Dictionary{{"$version", integer(100'000)},
                                      {"$archiver", "TWKeyedArchiver"},
                                      {"$top", Dictionary{{"root", Uid{1}}}},
                                      {"$objects", Array{"$null", "root"}}}));
    const Dictionary& top = *list->dictionary();
    EXPECT_EQ(top[0].first, "$version");
    EXPECT_EQ(top[1].first, "$archiver");
    EXPECT_EQ(top[2].first, "$top");
    EXPECT_EQ(top[3].first, "$objects");
}

TEST(KeyedArchive, SharesOneClassRecordBetweenObjectsOfAClass) {
    const auto list = readBinaryPropertyList(archiveRoot({ArchivedArray{{dateOf(1)}, {dateOf(-2)}}}));
    ASSERT_TRUE(list);
    EXPECT_EQ(
        *list->find("$objects"),
        Value(Array{"$null", Dictionary{{"elements", Array{Uid{2}, Uid{4}}}, {"$class", Uid{5}}},
                    Dictionary{{"nanoseconds", integer(1)}, {"$class", Uid{3}}}, classRecord("TWDate"),
                    Dictionary{{"nanoseconds", Integer::fromSigned(-2)}, {"$class", Uid{3}}}, classRecord("TWArray")}));
}

TEST(KeyedArchive, ReadsBackEveryKindOfObject) {
    const ArchivedObject tree{ArchivedDictionary{
        {"", {std::string("empty key")}},
        {"number", {integer(std::numeric_limits<std::uint64_t>::max())}},
        {"negative", {Integer::fromSigned(std::numeric_limits<std::int64_t>::min())}},
        {"real", {0.1}},
        {"flag", {true}},
        {"empty", {ArchivedArray{}}},
        {"nested", {ArchivedArray{{ArchivedDictionary{{"k", {dateOf(5)}}}}, {ArchivedDictionary{}}}}},
        {"records",
         {ArchivedArray{
             {ArchivedBundleRecord{"org.example.notes", "/data/notes", Origin::flatpak, ApplicationType::user}},
             {ArchivedBundleRecord{std::nullopt, "/data/\xFF", Origin::snap, ApplicationType::system}},
             {ArchivedBundleRecord{"", std::nullopt, Origin::desktopEntry, ApplicationType::user}}}}},
    }};
    const Bytes bytes = archiveRoot(tree);
    const auto read = unarchiveRoot(bytes);
    ASSERT_TRUE(read);
    EXPECT_EQ(archiveRoot(*read), bytes);

    const auto& dictionary = *read->as<ArchivedDictionary>();
    ASSERT_EQ(dictionary.size(), 8u);
    EXPECT_EQ(dictionary[0].first, "");
    EXPECT_EQ(*dictionary[0].second.as<std::string>(), "empty key");
    EXPECT_EQ(*dictionary[1].second.as<Integer>(), integer(std::numeric_limits<std::uint64_t>::max()));
    EXPECT_EQ(*dictionary[2].second.as<Integer>(), Integer::fromSigned(std::numeric_limits<std::int64_t>::min()));
    EXPECT_EQ(*dictionary[3].second.as<double>(), 0.1);
    EXPECT_EQ(*dictionary[4].second.as<bool>(), true);
    EXPECT_TRUE(dictionary[5].second.as<ArchivedArray>()->empty());
    const auto& records = *dictionary[7].second.as<ArchivedArray>();
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(*records[0].as<ArchivedBundleRecord>(),
              (ArchivedBundleRecord{"org.example.notes", "/data/notes", Origin::flatpak, ApplicationType::user}));
    EXPECT_EQ(*records[1].as<ArchivedBundleRecord>(),
              (ArchivedBundleRecord{std::nullopt, "/data/\xFF", Origin::snap, ApplicationType::system}));
    EXPECT_EQ(*records[2].as<ArchivedBundleRecord>(),
              (ArchivedBundleRecord{"", std::nullopt, Origin::desktopEntry, ApplicationType::user}));
}

TEST(KeyedArchive, KeepsBothOfTwoEqualKeysInOrder) {
    const auto read = unarchiveRoot(archiveRoot({ArchivedDictionary{{"k", {true}}, {"k", {std::string("last")}}}}));
    ASSERT_TRUE(read);
    const auto& dictionary = *read->as<ArchivedDictionary>();
    ASSERT_EQ(dictionary.size(), 2u);
    EXPECT_EQ(*dictionary[0].second.as<bool>(), true);
    EXPECT_EQ(*dictionary[1].second.as<std::string>(), "last");
}

TEST(KeyedArchive, KeepsEveryDateExactly) {
    constexpr std::int64_t kSecond = 1'000'000'000;
    const std::int64_t rows[] = {0, 1, -1, 999'999'999, 1'709'210'096 * kSecond + 789'012'000,
                                 // 2100-12-31T23:59:59.999999Z
                                 4'133'980'799 * kSecond + 999'999'000, 4'133'980'799 * kSecond + 999'998'000,
                                 std::numeric_limits<std::int64_t>::max(), std::numeric_limits<std::int64_t>::min()};
    for (const std::int64_t nanoseconds : rows)
        EXPECT_EQ(unarchiveDate(archiveRoot({dateOf(nanoseconds)})), dateOf(nanoseconds)) << nanoseconds;
}

TEST(KeyedArchive, KeepsStringsOfAnyBytes) {
    const std::string rows[] = {"",         "plain", "\u00FCber",    "\U0001F3BC",
                                "\xFF\xFE", "a\x80", "\xED\xA0\x80", std::string("a\0b", 3)};
    for (const std::string& text : rows) EXPECT_EQ(unarchiveString(archiveRoot({text})), text) << text;
}

TEST(KeyedArchive, KeepsListsOfStringsEmptyOnesToo) {
    const auto archived = [](const std::vector<std::string>& strings) {
        ArchivedArray array;
        for (const std::string& text : strings) array.push_back({text});
        return archiveRoot({std::move(array)});
    };
    const std::vector<std::string> rows[] = {{}, {""}, {"Red"}, {"Red", "Red", "\u00C5rsrapport"}};
    for (const auto& strings : rows) EXPECT_EQ(unarchiveStrings(archived(strings)), strings);
}

TEST(KeyedArchive, CutsNumbersToTheUnsignedRange) {
    constexpr auto kLast = std::numeric_limits<std::uint64_t>::max();
    struct Row {
        Number number;
        std::uint64_t asUnsigned;
        double asDouble;
    };
    const double infinity = std::numeric_limits<double>::infinity();
    const Row rows[] = {
        {{integer(0)}, 0, 0.0},
        {{integer(kLast)}, kLast, 18446744073709551616.0},
        {{Integer::fromSigned(-5)}, 0, -5.0},
        {{2.9}, 2, 2.9},
        {{-0.5}, 0, -0.5},
        {{18446744073709549568.0}, 18446744073709549568u, 18446744073709549568.0},
        {{18446744073709551616.0}, kLast, 18446744073709551616.0},
        {{infinity}, kLast, infinity},
        {{-infinity}, 0, -infinity},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(row.number.asUnsigned(), row.asUnsigned) << row.asDouble;
        EXPECT_EQ(row.number.asDouble(), row.asDouble);
        const ArchivedObject object = std::visit([](auto value) { return ArchivedObject{value}; }, row.number.value);
        EXPECT_EQ(unarchiveNumber(archiveRoot(object)), row.number) << row.asDouble;
    }
    EXPECT_EQ(Number{std::nan("")}.asUnsigned(), 0u);
}

TEST(KeyedArchive, RefusesARootOfAnotherClassThanExpected) {
    struct Row {
        const char* name;
        ArchivedObject root;
        bool date, number, string, strings;
    };
    const Row rows[] = {
        {"date", {dateOf(1)}, true, false, false, false},
        {"integer", {integer(1)}, false, true, false, false},
        {"real", {1.0}, false, true, false, false},
        {"Boolean", {true}, false, false, false, false},
        {"string", {std::string("x")}, false, false, true, false},
        {"empty array", {ArchivedArray{}}, false, false, false, true},
        {"strings", {ArchivedArray{{std::string("x")}}}, false, false, false, true},
        {"mixed array", {ArchivedArray{{std::string("x")}, {integer(1)}}}, false, false, false, false},
        {"dictionary", {ArchivedDictionary{}}, false, false, false, false},
        {"record", {ArchivedBundleRecord{}}, false, false, false, false},
    };
    const auto check = [](const auto& result, bool expected) {
        if (expected) return result.has_value();
        return !result && result.error().is(ErrorDomain::unarchive,
                                            static_cast<std::int64_t>(UnarchiveError::invalidResultingClass));
    };
    for (const Row& row : rows) {
        const Bytes bytes = archiveRoot(row.root);
        EXPECT_TRUE(check(unarchiveDate(bytes), row.date)) << row.name;
        EXPECT_TRUE(check(unarchiveNumber(bytes), row.number)) << row.name;
        EXPECT_TRUE(check(unarchiveString(bytes), row.string)) << row.name;
        EXPECT_TRUE(check(unarchiveStrings(bytes), row.strings)) << row.name;
    }
}

TEST(KeyedArchive, RefusesValuesThatAreNoArchives) {
    const Bytes timeStamp(16, 0x5A);
    const Bytes plainList = writeBinaryPropertyList(Array{"Red"});
    for (const Bytes& bytes : {Bytes{}, timeStamp, plainList}) {
        for (const Error& error : {unarchiveDate(bytes).error(), unarchiveNumber(bytes).error(),
                                   unarchiveString(bytes).error(), unarchiveStrings(bytes).error()})
            EXPECT_TRUE(error.is(ErrorDomain::unarchive, static_cast<std::int64_t>(UnarchiveError::damaged)));
    }
}

TEST(KeyedArchive, RefusesATopLevelThatIsWrong) {
    struct Row {
        const char* name;
        HandMadeArchive archive;
        const char* outcome;
    };
    const Array good{"$null", "root"};
    const Row rows[] = {
        {"good, keys in another order", {.objects = good}, "read"},
        {"another version", {.version = integer(100'001), .objects = good}, "damaged: no archive of this kind"},
        {"version as a real", {.version = 100'000.0, .objects = good}, "damaged: no archive of this kind"},
        {"another archiver", {.archiver = "Other", .objects = good}, "damaged: no archive of this kind"},
        {"archiver no string", {.archiver = true, .objects = good}, "damaged: no archive of this kind"},
        {"root no UID", {.root = integer(1), .objects = good}, "damaged: no root"},
        {"root outside", {.root = Uid{2}, .objects = good}, "damaged: a UID outside the object table"},
        {"root far outside",
         {.root = Uid{std::numeric_limits<std::uint64_t>::max()}, .objects = good},
         "damaged: a UID outside the object table"},
        {"root null", {.root = Uid{0}, .objects = good}, "wrong class: null"},
        {"empty table", {.objects = {}}, "damaged: no object table"},
        {"table without null", {.objects = {"first", "root"}}, "damaged: no object table"},
    };
    for (const Row& row : rows) EXPECT_EQ(outcome(unarchiveRoot(row.archive.build())), row.outcome) << row.name;

    const Value complete = *readBinaryPropertyList(HandMadeArchive{.objects = good}.build());
    for (const auto& [missing, value] : *complete.dictionary()) {
        Dictionary rest;
        for (const auto& pair : *complete.dictionary())
            if (pair.first != missing) rest.push_back(pair);
        EXPECT_FALSE(unarchiveRoot(writeBinaryPropertyList(rest))) << missing;
    }
}

TEST(KeyedArchive, RefusesObjectsThatAreWrong) {
    const Value date = classRecord("TWDate"), array = classRecord("TWArray"), record = classRecord("TWBundleRecord"),
                dictionary = classRecord("TWDictionary");
    const auto recordWith = [&](Value identifier, Value path, Value origin, Value type) {
        return Array{"$null",
                     Dictionary{{"bundleIdentifier", identifier},
                                {"dataContainerPath", path},
                                {"origin", origin},
                                {"type", type},
                                {"$class", Uid{2}}},
                     record, "text", integer(7)};
    };
    struct Row {
        const char* name;
        Array objects = {};
        const char* outcome;
    };
    const Uid two{2}, three{3};
    const Row rows[] = {
        {"data that is UTF-8", {"$null", Bytes{'a'}}, "wrong class: data"},
        {"plain date", {"$null", PlistDate{1}}, "wrong class: an object of a type that no archived object has"},
        {"plain array", {"$null", Array{}}, "wrong class: an object of a type that no archived object has"},
        {"unknown class",
         {"$null", Dictionary{{"$class", two}}, classRecord("TWOther")},
         "wrong class: an object of class \"TWOther\""},
        {"no class", {"$null", Dictionary{}}, "damaged: an object without a class record"},
        {"class outside", {"$null", Dictionary{{"$class", three}}, date}, "damaged: an object without a class record"},
        {"class no record", {"$null", Dictionary{{"$class", two}}, "TWDate"}, "damaged: a class record without a name"},
        {"class name no string",
         {"$null", Dictionary{{"$class", two}}, Dictionary{{"$classname", true}}},
         "damaged: a class record without a name"},
        {"date without time", {"$null", Dictionary{{"$class", two}}, date}, "damaged: a date without its time"},
        {"date of a real",
         {"$null", Dictionary{{"$class", two}, {"nanoseconds", 1.0}}, date},
         "damaged: a date without its time"},
        {"date past the range",
         {"$null", Dictionary{{"$class", two}, {"nanoseconds", integer(std::uint64_t{1} << 63)}}, date},
         "damaged: a date without its time"},
        {"array without elements",
         {"$null", Dictionary{{"$class", two}}, array},
         "damaged: a container without its elements"},
        {"element no UID",
         {"$null", Dictionary{{"$class", two}, {"elements", Array{"x"}}}, array},
         "damaged: an element that is no UID"},
        {"element outside",
         {"$null", Dictionary{{"$class", two}, {"elements", Array{three}}}, array},
         "damaged: a UID outside the object table"},
        {"element null",
         {"$null", Dictionary{{"$class", two}, {"elements", Array{Uid{0}}}}, array},
         "wrong class: null"},
        {"within itself",
         {"$null", Dictionary{{"$class", two}, {"elements", Array{Uid{1}}}}, array},
         "damaged: an object within itself"},
        {"within itself by another",
         {"$null", Dictionary{{"$class", two}, {"elements", Array{three}}}, array,
          Dictionary{{"$class", two}, {"elements", Array{Uid{1}}}}},
         "damaged: an object within itself"},
        {"dictionary without keys",
         {"$null", Dictionary{{"$class", two}, {"elements", Array{}}}, dictionary},
         "damaged: a container without its elements"},
        {"dictionary without values",
         {"$null", Dictionary{{"$class", two}, {"keys", Array{}}}, dictionary},
         "damaged: a container without its elements"},
        {"more keys than values",
         {"$null", Dictionary{{"$class", two}, {"keys", Array{three}}, {"elements", Array{}}}, dictionary, "k"},
         "damaged: a dictionary with more keys than values or fewer"},
        {"key no string",
         {"$null", Dictionary{{"$class", two}, {"keys", Array{three}}, {"elements", Array{three}}}, dictionary, true},
         "wrong class: another object where a string was expected"},
        {"key null",
         {"$null", Dictionary{{"$class", two}, {"keys", Array{Uid{0}}}, {"elements", Array{three}}}, dictionary, "k"},
         "damaged: a string outside the object table"},
        {"good record", recordWith(three, Uid{0}, integer(2), integer(2)), "read"},
        {"record without identifier", recordWith("text", Uid{0}, integer(0), integer(0)),
         "damaged: an application record without its strings"},
        {"record with a number as path", recordWith(three, Uid{4}, integer(0), integer(0)),
         "wrong class: another object where a string was expected"},
        {"record with a path outside", recordWith(three, Uid{5}, integer(0), integer(0)),
         "damaged: a string outside the object table"},
        {"origin past the last", recordWith(three, three, integer(3), integer(0)),
         "damaged: an application record of unknown kind"},
        {"origin below zero", recordWith(three, three, Integer::fromSigned(-1), integer(0)),
         "damaged: an application record without its numbers"},
        {"type between the two", recordWith(three, three, integer(0), integer(1)),
         "damaged: an application record of unknown kind"},
        {"type 2^32", recordWith(three, three, integer(0), integer(std::uint64_t{1} << 32)),
         "damaged: an application record of unknown kind"},
        {"type no number", recordWith(three, three, integer(0), "0"),
         "damaged: an application record without its numbers"},
    };
    for (const Row& row : rows) EXPECT_EQ(outcomeOf(row.objects), row.outcome) << row.name;
}

/// A table whose root is an array of references to the given objects, the first of which has number 3.
Array arrayOf(const std::vector<Uid>& elements, Array objects) {
    Array uids(elements.begin(), elements.end());
    Array table{"$null", Dictionary{{"elements", std::move(uids)}, {"$class", Uid{2}}}, classRecord("TWArray")};
    for (Value& object : objects) table.push_back(std::move(object));
    return table;
}

TEST(KeyedArchive, ReadsAsManyObjectsAsTheLimitAndNoMore) {
    EXPECT_EQ(outcomeOf(arrayOf(std::vector<Uid>(kMaxArchiveObjects - 1, Uid{3}), {"x"})), "read");
    EXPECT_EQ(outcomeOf(arrayOf(std::vector<Uid>(kMaxArchiveObjects, Uid{3}), {"x"})), "damaged: too many objects");
}

TEST(KeyedArchive, CountsSharedContainersAsOftenAsTheyAreReferredTo) {
    Array objects = {};
    for (std::uint64_t level = 0; level < 30; ++level)
        objects.emplace_back(Dictionary{{"elements", Array(10, Value(Uid{4 + level}))}, {"$class", Uid{2}}});
    objects.emplace_back("again");
    EXPECT_EQ(outcomeOf(arrayOf({Uid{3}}, objects)), "damaged: too many objects");
}

TEST(KeyedArchive, CountsAnApplicationRecordAsThree) {
    const Value record = Dictionary{{"bundleIdentifier", Uid{0}},
                                    {"dataContainerPath", Uid{5}},
                                    {"origin", integer(0)},
                                    {"type", integer(0)},
                                    {"$class", Uid{4}}};
    const Array objects{record, classRecord("TWBundleRecord"), "/path"};
    const std::size_t most = (kMaxArchiveObjects - 1) / 3;
    EXPECT_EQ(outcomeOf(arrayOf(std::vector<Uid>(most, Uid{3}), objects)), "read");
    EXPECT_EQ(outcomeOf(arrayOf(std::vector<Uid>(most + 1, Uid{3}), objects)), "damaged: too many objects");
}

TEST(KeyedArchive, CanArchiveAgainTheLargestThatItReads) {
    const Value empty = Dictionary{{"keys", Array{}}, {"elements", Array{}}, {"$class", Uid{4}}};
    const std::vector<Uid> elements(kMaxArchiveObjects - 1, Uid{3});
    const HandMadeArchive archive{.objects = arrayOf(elements, {empty, classRecord("TWDictionary")})};
    const auto read = unarchiveRoot(archive.build());
    ASSERT_TRUE(read);
    const auto again = unarchiveRoot(archiveRoot(*read));
    ASSERT_TRUE(again) << again.error().userInfo.at(kErrorMessage);
    EXPECT_EQ(again->as<ArchivedArray>()->size(), kMaxArchiveObjects - 1);
}

TEST(KeyedArchive, ReadsAsDeepAsTheLimitAndNoDeeper) {
    const auto nested = [](std::size_t depth) {
        Array objects{"$null"};
        for (std::size_t level = 1; level <= depth; ++level) {
            Array inner;
            if (level < depth) inner.emplace_back(Uid{level + 1});
            objects.emplace_back(Dictionary{{"elements", std::move(inner)}, {"$class", Uid{depth + 1}}});
        }
        objects.push_back(classRecord("TWArray"));
        return objects;
    };
    EXPECT_EQ(outcomeOf(nested(kMaxArchiveDepth)), "read");
    EXPECT_EQ(outcomeOf(nested(kMaxArchiveDepth + 1)), "damaged: too deep");
}

TEST(KeyedArchive, ReadsAsMuchContentAsTheLimitAndNoMore) {
    const Array objects{std::string(1u << 20, 'x'), "y"};
    std::vector<Uid> elements(kMaxArchiveContentBytes >> 20, Uid{3});
    EXPECT_EQ(outcomeOf(arrayOf(elements, objects)), "read");
    elements.push_back(Uid{4});
    EXPECT_EQ(outcomeOf(arrayOf(elements, objects)), "damaged: too much content");
}

TEST(KeyedArchive, ReadsAsManyFieldsAsTheLimitAndNoMore) {
    const auto withFields = [](std::size_t inObject, std::size_t inRecord) {
        Dictionary object{{"nanoseconds", integer(1)}, {"$class", Uid{2}}};
        Dictionary record{{"$classname", "TWDate"}};
        while (object.size() < inObject) object.emplace_back("field " + std::to_string(object.size()), true);
        while (record.size() < inRecord) record.emplace_back("field " + std::to_string(record.size()), true);
        return Array{"$null", std::move(object), std::move(record)};
    };
    EXPECT_EQ(outcomeOf(withFields(kMaxArchiveFields, kMaxArchiveFields)), "read");
    EXPECT_EQ(outcomeOf(withFields(kMaxArchiveFields + 1, 1)), "damaged: an object with too many fields");
    EXPECT_EQ(outcomeOf(withFields(2, kMaxArchiveFields + 1)), "damaged: a class record with too many fields");
}

TEST(KeyedArchive, StopsTheProcessOnAnObjectThatIsTooDeep) {
    ArchivedObject object{ArchivedArray{}};
    for (std::size_t depth = 1; depth < kMaxArchiveDepth; ++depth) object = ArchivedObject{ArchivedArray{object}};
    EXPECT_TRUE(unarchiveRoot(archiveRoot(object)));
    EXPECT_DEATH(archiveRoot({ArchivedArray{object}}), "kMaxArchiveDepth");
}

}  // namespace
}  // namespace tarnwell::archive
