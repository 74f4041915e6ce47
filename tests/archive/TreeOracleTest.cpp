#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <chrono>
#include <map>
#include <random>

#include "testing/Sanitized.h"
#include "tests/archive/RawPropertyList.h"
#include "tests/archive/TreeOracle.h"
#include "tests/golden/Golden.h"

namespace tarnwell::archive {
namespace {

using registry::ApplicationType;
using registry::ArchivedBundleRecord;
using registry::Origin;
using testing::asciiString;
using testing::bytes;
using testing::RawPropertyList;

/// A sanitizer looks for other faults than a wrong answer, of which a few cases have as many.
constexpr int kRounds = tarnwell::testing::kIsSanitized ? 2'000 : 20'000;

/// Equal in every detail: pairs that do not count and the order of keys too.
bool same(const Value& a, const Value& b) {
    if (const Array* array = a.array())
        return b.array() &&
               std::ranges::equal(*array, *b.array(), [](const auto& x, const auto& y) { return same(x, y); });
    if (const Dictionary* pairs = a.dictionary())
        return b.dictionary() && std::ranges::equal(*pairs, *b.dictionary(), [](const auto& x, const auto& y) {
                   return x.first == y.first && same(x.second, y.second);
               });
    return a == b;
}

bool same(const ArchivedObject& a, const ArchivedObject& b) {
    if (a.value.index() != b.value.index()) return false;
    if (const auto* array = a.as<ArchivedArray>())
        return std::ranges::equal(*array, *b.as<ArchivedArray>(),
                                  [](const auto& x, const auto& y) { return same(x, y); });
    if (const auto* pairs = a.as<ArchivedDictionary>())
        return std::ranges::equal(*pairs, *b.as<ArchivedDictionary>(), [](const auto& x, const auto& y) {
            return x.first == y.first && same(x.second, y.second);
        });
    if (const auto* real = a.as<double>())
        return std::bit_cast<std::uint64_t>(*real) == std::bit_cast<std::uint64_t>(*b.as<double>());
    if (const auto* text = a.as<std::string>()) return *text == *b.as<std::string>();
    if (const auto* integer = a.as<Integer>()) return *integer == *b.as<Integer>();
    if (const auto* flag = a.as<bool>()) return *flag == *b.as<bool>();
    if (const auto* date = a.as<Date>()) return *date == *b.as<Date>();
    return *a.as<ArchivedBundleRecord>() == *b.as<ArchivedBundleRecord>();
}

/// A typed reader gives the root of its type, the root's error, or says that the root is of another.
template <typename T, typename Expected>
void compareTyped(const Result<T>& read, const Result<ArchivedObject>& root, const Expected& expected) {
    if (!root) {
        ASSERT_FALSE(read);
        EXPECT_EQ(read.error(), root.error());
    } else if (expected) {
        ASSERT_TRUE(read);
        EXPECT_EQ(*read, *expected);
    } else {
        ASSERT_FALSE(read);
        EXPECT_TRUE(
            read.error().is(ErrorDomain::unarchive, static_cast<std::int64_t>(UnarchiveError::invalidResultingClass)));
    }
}

std::optional<std::vector<std::string>> stringsOf(const ArchivedObject& root) {
    const auto* array = root.as<ArchivedArray>();
    if (!array) return std::nullopt;
    std::vector<std::string> strings;
    for (const auto& element : *array) {
        const auto* text = element.as<std::string>();
        if (!text) return std::nullopt;
        strings.push_back(*text);
    }
    return strings;
}

/// Compares the readers with the oracle, and counts how the bytes fared.
class Comparer {
public:
    void compare(ByteView list) {
        // A copy that ends with its allocation, so that a sanitizer sees a read past the end.
        const std::vector<std::uint8_t> copy(list.begin(), list.end());
        compareLists(copy);
        compareArchives(copy);
    }

    std::size_t kinds() const { return outcomes_.size(); }
    std::size_t count(const std::string& outcome) const {
        const auto found = outcomes_.find(outcome);
        return found == outcomes_.end() ? 0 : found->second;
    }

private:
    void compareLists(const Bytes& list) {
        const auto expected = testing::readTree(list);
        const auto read = readBinaryPropertyList(list);
        ASSERT_EQ(read.has_value(), expected.has_value());
        if (expected) {
            EXPECT_TRUE(same(*read, *expected));
            ++outcomes_["read"];
        } else {
            EXPECT_EQ(read.error(), expected.error());
        }
    }

    void compareArchives(const Bytes& list) {
        const auto expected = testing::unarchiveTree(list);
        const auto root = unarchiveRoot(list);
        ASSERT_EQ(root.has_value(), expected.has_value());
        if (expected) {
            EXPECT_TRUE(same(*root, *expected));
        } else {
            EXPECT_EQ(root.error(), expected.error());
        }
        ++outcomes_[expected ? "unarchived" : expected.error().userInfo.at(kErrorMessage)];

        const auto typed = [&]<typename T>(T) {
            return expected && expected->as<T>() ? std::optional(*expected->as<T>()) : std::nullopt;
        };
        compareTyped(unarchiveDate(list), expected, typed(Date()));
        compareTyped(unarchiveString(list), expected, typed(std::string()));
        compareTyped(unarchiveStrings(list), expected, expected ? stringsOf(*expected) : std::nullopt);
        std::optional<Number> number;
        if (const auto integer = typed(Integer())) number = Number{*integer};
        if (const auto real = typed(double()); real && *real == *real) number = Number{*real};
        if (const auto real = typed(double()); real && *real != *real) return;  // a NaN is not equal to itself
        compareTyped(unarchiveNumber(list), expected, number);
    }

    std::map<std::string, std::size_t> outcomes_;
};

using Random = std::mt19937;

std::size_t below(Random& random, std::size_t end) { return random() % end; }

/// A list with the value's objects one by one, each ASCII string in a form of its own: short, with a long count, as
/// UTF-16.
class RawWriter {
public:
    explicit RawWriter(Random& random) : random_(random) {}

    Bytes write(const Value& value) {
        add(value);
        TARNWELL_CHECK(list_.objects.size() < 256);
        return list_.build();
    }

private:
    std::uint64_t add(const Value& value) {
        const std::size_t number = list_.objects.size();
        list_.objects.emplace_back();
        Bytes object;
        const auto* text = value.as<std::string>();
        if (text && std::ranges::all_of(*text, [](char c) { return static_cast<std::uint8_t>(c) < 0x80; })) {
            object = string(*text);
        } else if (const auto* array = value.array()) {
            std::vector<std::uint64_t> references;
            for (const Value& element : *array) references.push_back(add(element));
            object = testing::referring(below(random_, 8) == 0 ? 0xC0 : 0xA0, references);
        } else if (const auto* pairs = value.dictionary()) {
            std::vector<std::uint64_t> keys, values;
            for (const auto& [key, element] : *pairs) {
                keys.push_back(add(Value(key)));
                values.push_back(add(element));
            }
            object = testing::dictionary(keys, values);
        } else {
            // The writer's form, which is all that lies before the offset table of one byte and the trailer.
            const Bytes written = writeBinaryPropertyList(value);
            object.assign(written.begin() + 8, written.end() - 33);
        }
        list_.objects[number] = std::move(object);
        return number;
    }

    Bytes string(const std::string& text) {
        const std::size_t form = below(random_, 3);
        if (form == 0) return asciiString(text);
        if (form == 1 && text.size() < 15) {
            Bytes object = bytes({0x50 | static_cast<int>(text.size())});
            object.insert(object.end(), text.begin(), text.end());
            return object;
        }
        Bytes object = testing::counted(0x60, text.size());
        for (const char c : text) testing::appendNumber(object, static_cast<std::uint8_t>(c), 2);
        return object;
    }

    Random& random_;
    RawPropertyList list_;
};

std::vector<Bytes> archives() {
    const Date date{std::chrono::nanoseconds(1'709'210'096'789'012'000)};
    const ArchivedArray strings{{std::string("Red")}, {std::string("\u00C5rsrapport")}, {std::string("\xFF\xFE")}};
    const ArchivedArray records{
        {ArchivedBundleRecord{"org.example.notes", "/data/notes", Origin::flatpak, ApplicationType::user}},
        {ArchivedBundleRecord{std::nullopt, "/data/\xFF", Origin::snap, ApplicationType::system}}};
    const ArchivedDictionary twice{{"k", {true}}, {"k", {0.5}}, {"nested", {ArchivedArray{{date}, {strings}}}}};
    std::vector<Bytes> all;
    for (const ArchivedObject& root :
         {ArchivedObject{date}, ArchivedObject{Integer::fromSigned(-7)}, ArchivedObject{std::string("a longer text")},
          ArchivedObject{strings}, ArchivedObject{records}, ArchivedObject{twice}})
        all.push_back(archiveRoot(root));
    Random random(1);
    for (std::size_t i = 0, count = all.size(); i < count; ++i)
        all.push_back(RawWriter(random).write(*readBinaryPropertyList(all[i])));
    all.push_back(golden::read("app-library-cache.plist"));
    all.push_back(golden::read("change-token.plist"));
    return all;
}

TEST(TreeOracle, AgreesOnWholeArchivesWhateverTheirStringsAreWrittenAs) {
    Comparer comparer;
    const auto all = archives();
    for (const Bytes& archive : all) comparer.compare(archive);
    EXPECT_EQ(comparer.count("read"), all.size());
    // The last is none.
    EXPECT_EQ(comparer.count("unarchived"), all.size() - 1);
}

TEST(TreeOracle, AgreesOnArchivesCutAtEveryByte) {
    Comparer comparer;
    for (const Bytes& archive : archives())
        golden::cutAtEveryByte(archive, [&](ByteView cut) { comparer.compare(cut); });
    EXPECT_EQ(comparer.count("unarchived"), 0u);
}

TEST(TreeOracle, AgreesOnArchivesWithAnyBitFlipped) {
    Comparer comparer;
    for (const Bytes& archive : archives())
        golden::flipEveryBit(archive, [&](ByteView flipped) { comparer.compare(flipped); });
    EXPECT_GT(comparer.count("unarchived"), 1000u);
    EXPECT_GT(comparer.kinds(), 30u);
}

TEST(TreeOracle, AgreesOnArchivesWithSeveralBytesChanged) {
    Comparer comparer;
    Random random(2);
    const auto all = archives();
    for (int round = 0; round < kRounds; ++round) {
        Bytes changed = all[below(random, all.size())];
        for (std::size_t changes = 2 + below(random, 3); changes-- > 0;)
            changed[below(random, changed.size())] = static_cast<std::uint8_t>(random());
        SCOPED_TRACE("round " + std::to_string(round));
        comparer.compare(changed);
    }
    EXPECT_GT(comparer.count("unarchived"), kRounds / 400u);
}

/// An object of any kind, right or slightly wrong, that refers to any of so many objects.
Bytes randomObject(Random& random, std::size_t objects) {
    const auto references = [&](std::size_t count) {
        std::vector<std::uint64_t> all;
        while (all.size() < count) all.push_back(below(random, objects + (below(random, 60) == 0 ? 1 : 0)));
        return all;
    };
    switch (below(random, 9)) {
        case 0:
        case 1:
            return asciiString(std::string(below(random, 20), 'k'));
        case 2:
            return bytes({0x52, 'a', below(random, 8) == 0 ? 0x80 : 'b'});
        case 3:
            return bytes({0x62, 0xD8, 0x3C, below(random, 4) == 0 ? 0x00 : 0xDF, 0xBC});
        case 4:
            return testing::referring(0xA0, references(below(random, 4)));
        case 5: {
            // Keys are mostly strings, else hardly any list would be good.
            const std::size_t count = below(random, 3);
            return testing::dictionary(
                below(random, 8) == 0 ? references(count) : std::vector<std::uint64_t>(count, objects - 1),
                references(count));
        }
        case 6: {
            Bytes scalar = bytes({static_cast<int>(below(random, 0x100))});
            for (int i = 0; i < 17; ++i) scalar.push_back(below(random, 3) == 0 ? 0xFF : 0);
            return scalar;
        }
        case 7:
            return bytes({0x42, 1, 2});
        default:
            return bytes({0x13, 0, 0, 0, 0, 0, 0, 0, static_cast<int>(below(random, 256))});
    }
}

TEST(TreeOracle, AgreesOnTablesOfRandomObjects) {
    Comparer comparer;
    Random random(3);
    for (int round = 0; round < kRounds; ++round) {
        RawPropertyList list;
        const std::size_t objects = 2 + below(random, 12);
        while (list.objects.size() + 1 < objects) list.objects.push_back(randomObject(random, objects));
        list.objects.push_back(bytes({0x51, 'k'}));
        list.top = below(random, objects);
        list.offsetSize = static_cast<std::uint8_t>(2 + below(random, 7));
        SCOPED_TRACE("round " + std::to_string(round));
        comparer.compare(list.build());
    }
    EXPECT_GT(comparer.count("read"), kRounds / 4u);
    EXPECT_GT(comparer.count("not a property list: a container within itself"), kRounds / 200u);
}

/// A field of an archived object, mostly one of the right type.
Value randomField(Random& random, std::size_t objects) {
    const auto uid = [&] { return Value(Uid{below(random, objects + (below(random, 30) == 0 ? 1 : 0))}); };
    switch (below(random, 12)) {
        case 0:
            return Integer::fromSigned(static_cast<std::int64_t>(below(random, 5)) - 1);
        case 1:
            return "text";
        case 2:
            return 1.5;
        case 3:
        case 4:
        case 5:
            return uid();
        case 6:
            return Array{Value(true)};
        default: {
            Array uids;
            for (std::size_t count = below(random, 4); count > 0; --count) uids.push_back(uid());
            return uids;
        }
    }
}

TEST(TreeOracle, AgreesOnArchivesOfRandomObjects) {
    Comparer comparer;
    Random random(4);
    const char* classes[] = {"TWDate", "TWArray", "TWDictionary", "TWBundleRecord", "TWOther"};
    const char* fields[] = {"nanoseconds",       "elements", "keys", "bundleIdentifier",
                            "dataContainerPath", "origin",   "type"};
    for (int round = 0; round < kRounds; ++round) {
        Array table{"$null"};
        for (const char* name : classes) table.push_back(Dictionary{{"$classname", name}});
        const std::size_t objects = table.size() + 6;
        while (table.size() < objects - 3) {
            Dictionary object{{"$class", Uid{1 + below(random, 5 + (below(random, 20) == 0 ? 2 : 0))}}};
            for (const char* field : fields) object.emplace_back(field, randomField(random, objects));
            if (below(random, 4) == 0) object.emplace_back("elements", Array{Uid{objects - 1}});
            if (below(random, 4) == 0) object.emplace_back("keys", Array{Uid{objects - 1}});
            if (below(random, 2) == 0) object.emplace_back("type", Integer::fromUnsigned(2 * below(random, 2)));
            table.push_back(std::move(object));
        }
        table.push_back(Bytes{static_cast<std::uint8_t>(below(random, 2) == 0 ? 0xFF : 'a')});
        table.push_back(randomField(random, objects));
        table.push_back("text");
        const Value archive = Dictionary{{"$version", Integer::fromUnsigned(100'000)},
                                         {"$archiver", "TWKeyedArchiver"},
                                         {"$top", Dictionary{{"root", Uid{6 + below(random, 6)}}}},
                                         {"$objects", std::move(table)}};
        SCOPED_TRACE("round " + std::to_string(round));
        comparer.compare(RawWriter(random).write(archive));
    }
    EXPECT_GT(comparer.count("unarchived"), kRounds / 10u);
    EXPECT_GT(comparer.count("an object within itself"), kRounds / 1000u);
    EXPECT_GT(comparer.kinds(), tarnwell::testing::kIsSanitized ? 12u : 15u);
}

TEST(TreeOracle, AgreesOnWhichOfSeveralFaultsIsTold) {
    // A chain of arrays, whose last object is each of these in turn.
    const auto chain = [](std::size_t depth, const Bytes& last) {
        RawPropertyList list;
        while (list.objects.size() < depth) list.objects.push_back(testing::referring(0xA0, {list.objects.size() + 1}));
        list.objects.push_back(last);
        return list.build();
    };
    Comparer comparer;
    for (std::size_t depth = 0; depth <= kMaxPlistDepth + 1; ++depth) {
        comparer.compare(chain(depth, bytes({0xA1, 0})));                                // within itself
        comparer.compare(chain(depth, bytes({0xA1, static_cast<int>(depth)})));          // directly
        comparer.compare(chain(depth, testing::counted(0xA0, 1000)));                    // cut
        comparer.compare(chain(depth, testing::counted(0xD0, std::uint64_t{1} << 63)));  // cut, sizes wrap
        comparer.compare(chain(depth, testing::referring(0xC0, {0, 200})));              // the first fault counts
        comparer.compare(chain(depth, testing::dictionary({0}, {200})));                 // in the key
        comparer.compare(chain(depth, bytes({0xAF, 0x50})));                             // in the count
    }
    // Each array refers twice to the next.
    RawPropertyList doubling;
    while (doubling.objects.size() < 40)
        doubling.objects.push_back(
            testing::referring(0xA0, {doubling.objects.size() + 1, doubling.objects.size() + 1}));
    doubling.objects.push_back(bytes({0xA1, 0}));
    comparer.compare(doubling.build());
    doubling.objects.back() = bytes({0x08});
    comparer.compare(doubling.build());
    for (const char* why :
         {"too deep", "a container within itself", "container cut", "count is no integer", "too many objects"})
        EXPECT_GT(comparer.count(std::string("not a property list: ") + why), 0u) << why;
}

TEST(TreeOracle, AgreesAtTheLimitOfContent) {
    // Strings of each form, as often as fills the limit to the last byte, then one byte more.
    Comparer comparer;
    const std::size_t size = 1u << 20;
    Bytes wide = testing::counted(0x60, size / 2);
    for (std::size_t i = 0; i < size / 2; ++i) testing::appendNumber(wide, 0x0100, 2);
    Bytes data = testing::counted(0x40, size);
    data.resize(data.size() + size);
    std::vector<Bytes> forms{data};
    if (!tarnwell::testing::kIsSanitized) forms.insert(forms.end(), {asciiString(std::string(size, 'x')), wide});
    for (const Bytes& large : forms)
        for (const Bytes& small :
             {bytes({0x51, 'x'}), bytes({0x61, 0, 'x'}), bytes({0x61, 1, 0}), bytes({0x41, 0}), bytes({0x50})}) {
            std::vector<std::uint64_t> references(kMaxPlistContentBytes / size, 1);
            references.push_back(2);
            comparer.compare(RawPropertyList{.objects = {testing::referring(0xA0, references), large, small}}.build());
        }
    EXPECT_EQ(comparer.count("read"), forms.size());
    EXPECT_EQ(comparer.count("not a property list: too much content"), 4 * forms.size());
}

}  // namespace
}  // namespace tarnwell::archive
