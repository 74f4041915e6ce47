#include "applibraries/AppLibraryCacheFile.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "platform/archive/KeyedArchive.h"

namespace tarnwell::applibraries {
namespace {

using archive::ArchivedArray;
using archive::ArchivedDictionary;
using archive::ArchivedObject;
using archive::Integer;
using registry::ApplicationType;
using registry::ArchivedBundleRecord;
using registry::Origin;

ArchivedBundleRecord fullRecord() {
    return {"org.example.Notes", "/home/someone/.var/app/org.example.Notes", Origin::flatpak, ApplicationType::user};
}

TEST(AppLibraryCacheFile, ReadsBackWhatItWrote) {
    const ArchivedBundleRecord noIdentifier{std::nullopt, "/c/one", Origin::desktopEntry, ApplicationType::system};
    const ArchivedBundleRecord noContainer{"org.example.Draw", std::nullopt, Origin::snap, ApplicationType::user};
    const ArchivedBundleRecord otherText{"org.example.Ünïcode", "/home/größe/☃/𝄞", Origin::snap,
                                         ApplicationType::system};
    const ArchivedBundleRecord notUTF8{"org.example.Bytes", "/home/\xff\xfe/\x80", Origin::flatpak,
                                       ApplicationType::user};
    const AppLibraryList rows[] = {
        {0, {}},
        {1, {fullRecord()}},
        {2, {fullRecord(), noIdentifier, noContainer, otherText}},
        {3, {fullRecord(), fullRecord()}},
        {4, {notUTF8}},
        {std::uint64_t{std::numeric_limits<std::int64_t>::max()} + 1, {}},
        {std::numeric_limits<std::uint64_t>::max(), {fullRecord()}},
        {5, std::vector<ArchivedBundleRecord>(1000, fullRecord())},
    };
    for (const AppLibraryList& row : rows) {
        SCOPED_TRACE("token " + std::to_string(row.versionToken));
        auto list = decodeAppLibraryList(encodeAppLibraryList(row));
        ASSERT_TRUE(list);
        EXPECT_EQ(*list, row);
    }
}

TEST(AppLibraryCacheFile, HoldsADictionaryOfExactlyTwoEntries) {
    auto root = archive::unarchiveRoot(encodeAppLibraryList({7, {fullRecord()}}));
    ASSERT_TRUE(root);
    const auto* dictionary = root->as<ArchivedDictionary>();
    ASSERT_TRUE(dictionary);
    ASSERT_EQ(dictionary->size(), 2u);
    EXPECT_EQ((*dictionary)[0].first, "versionToken");
    ASSERT_TRUE((*dictionary)[0].second.as<Integer>());
    EXPECT_EQ(*(*dictionary)[0].second.as<Integer>(), Integer::fromUnsigned(7));
    EXPECT_EQ((*dictionary)[1].first, "bundleProxy");
    const auto* records = (*dictionary)[1].second.as<ArchivedArray>();
    ASSERT_TRUE(records);
    ASSERT_EQ(records->size(), 1u);
    ASSERT_TRUE((*records)[0].as<ArchivedBundleRecord>());
    EXPECT_EQ(*(*records)[0].as<ArchivedBundleRecord>(), fullRecord());
}

Bytes archived(ArchivedDictionary dictionary) { return archive::archiveRoot({std::move(dictionary)}); }
ArchivedObject number(std::uint64_t value) { return {Integer::fromUnsigned(value)}; }
ArchivedObject noRecords() { return {ArchivedArray{}}; }

TEST(AppLibraryCacheFile, TellsWhichEntryIsDamaged) {
    const auto token = CacheFileDefect::versionToken;
    const auto proxies = CacheFileDefect::bundleProxies;
    const ArchivedObject text{std::string("5")};
    struct Row {
        const char* name;
        Bytes bytes;
        CacheFileDefect defect;
    };
    const Row rows[] = {
        {"nothing", {}, token},
        {"other bytes", Bytes(100, 0x41), token},
        {"the magic alone", {'b', 'p', 'l', 'i', 's', 't', '0', '0'}, token},
        {"a string as the root", archive::archiveRoot(text), token},
        {"an array as the root", archive::archiveRoot(noRecords()), token},
        {"an empty dictionary", archived({}), token},
        {"no token", archived({{"bundleProxy", noRecords()}}), token},
        {"a string as the token", archived({{"versionToken", text}, {"bundleProxy", noRecords()}}), token},
        {"a negative token", archived({{"versionToken", {Integer::fromSigned(-1)}}, {"bundleProxy", noRecords()}}),
         token},
        {"a floating token", archived({{"versionToken", {5.0}}, {"bundleProxy", noRecords()}}), token},
        {"a Boolean token", archived({{"versionToken", {true}}, {"bundleProxy", noRecords()}}), token},
        {"a date as the token", archived({{"versionToken", {Date{}}}, {"bundleProxy", noRecords()}}), token},
        {"a token under another name", archived({{"VersionToken", number(5)}, {"bundleProxy", noRecords()}}), token},
        {"both damaged", archived({{"versionToken", text}, {"bundleProxy", text}}), token},
        {"no records", archived({{"versionToken", number(5)}}), proxies},
        {"a string as the records", archived({{"versionToken", number(5)}, {"bundleProxy", text}}), proxies},
        {"a dictionary as the records",
         archived({{"versionToken", number(5)}, {"bundleProxy", {ArchivedDictionary{}}}}), proxies},
        {"a record in place of the records", archived({{"versionToken", number(5)}, {"bundleProxy", {fullRecord()}}}),
         proxies},
        {"a string among the records",
         archived({{"versionToken", number(5)}, {"bundleProxy", {ArchivedArray{{fullRecord()}, text}}}}), proxies},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        auto list = decodeAppLibraryList(row.bytes);
        ASSERT_FALSE(list);
        EXPECT_EQ(list.error(), row.defect);
    }
}

TEST(AppLibraryCacheFile, PassesOverEntriesThatItDoesNotKnow) {
    auto list = decodeAppLibraryList(
        archived({{"bundleProxy", noRecords()}, {"note", {std::string("later")}}, {"versionToken", number(6)}}));
    ASSERT_TRUE(list);
    EXPECT_EQ(*list, (AppLibraryList{6, {}}));
}

TEST(AppLibraryCacheFile, TakesTheLastOfTwoEntriesWithOneKey) {
    const ArchivedObject text{std::string("5")};
    const ArchivedObject oneRecord{ArchivedArray{{fullRecord()}}};
    auto list = decodeAppLibraryList(archived({{"versionToken", number(7)},
                                               {"bundleProxy", noRecords()},
                                               {"versionToken", number(5)},
                                               {"bundleProxy", oneRecord}}));
    ASSERT_TRUE(list);
    EXPECT_EQ(*list, (AppLibraryList{5, {fullRecord()}}));

    list = decodeAppLibraryList(
        archived({{"versionToken", text}, {"versionToken", number(6)}, {"bundleProxy", noRecords()}}));
    ASSERT_TRUE(list);
    EXPECT_EQ(list->versionToken, 6u);
    list = decodeAppLibraryList(
        archived({{"versionToken", number(6)}, {"versionToken", text}, {"bundleProxy", noRecords()}}));
    ASSERT_FALSE(list);
    EXPECT_EQ(list.error(), CacheFileDefect::versionToken);
}

TEST(AppLibraryCacheFile, ReadsNothingFromAFileCutAnywhere) {
    const Bytes whole = encodeAppLibraryList({3, {fullRecord(), fullRecord()}});
    ASSERT_TRUE(decodeAppLibraryList(whole));
    for (std::size_t size = 0; size < whole.size(); ++size) {
        auto list = decodeAppLibraryList(ByteView(whole).first(size));
        ASSERT_FALSE(list) << "cut at " << size;
        EXPECT_EQ(list.error(), CacheFileDefect::versionToken) << "cut at " << size;
    }
}

TEST(AppLibraryCacheFile, GivesAWholeListOrNoneForEveryFlippedBit) {
    const Bytes whole = encodeAppLibraryList({3, {fullRecord()}});
    std::size_t refused = 0;
    for (std::size_t bit = 0; bit < whole.size() * 8; ++bit) {
        Bytes bytes = whole;
        bytes[bit / 8] = static_cast<std::uint8_t>(bytes[bit / 8] ^ (1u << (bit % 8)));
        auto list = decodeAppLibraryList(bytes);
        if (!list) {
            ++refused;
            continue;
        }
        auto again = decodeAppLibraryList(encodeAppLibraryList(*list));
        ASSERT_TRUE(again) << "bit " << bit;
        EXPECT_EQ(*again, *list) << "bit " << bit;
    }
    EXPECT_GT(refused, 0u);
}

}  // namespace
}  // namespace tarnwell::applibraries
