#include <gtest/gtest.h>

#include <chrono>
#include <ostream>

#include "platform/archive/KeyedArchive.h"
#include "tests/golden/Golden.h"

namespace tarnwell::archive {
namespace {

using registry::ApplicationType;
using registry::ArchivedBundleRecord;
using registry::Origin;

struct Row {
    const char* file;
    ArchivedObject root;
};

/// What each golden file holds; tests/golden/make_goldens.py writes the same with another implementation.
std::vector<Row> rows() {
    const Date date{std::chrono::seconds(1'709'210'096) + std::chrono::microseconds(789'012)};
    const ArchivedArray records{
        {ArchivedBundleRecord{"org.example.notes", "/home/user/.var/app/org.example.notes/data", Origin::flatpak,
                              ApplicationType::user}},
        {ArchivedBundleRecord{std::nullopt, "/home/user/\u00C9crits", Origin::desktopEntry, ApplicationType::user}},
        {ArchivedBundleRecord{"plain-reader", "/home/user/snap/\xFF\xFE", Origin::snap, ApplicationType::system}},
        {ArchivedBundleRecord{"org.example.empty", std::nullopt, Origin::flatpak, ApplicationType::system}},
    };
    return {
        {"date-attribute.plist", {date}},
        {"number-attribute.plist", {Integer::fromUnsigned(1'099'511'627'776)}},
        {"string-attribute.plist", {std::string("Reports/\u00DCber uns.txt")}},
        {"tags-attribute.plist",
         {ArchivedArray{{std::string("Red")}, {std::string("\u00C5rsrapport")}, {std::string("\U0001F3BC Noten")}}}},
        {"app-library-cache.plist",
         {ArchivedDictionary{{"versionToken", {Integer::fromUnsigned(5)}}, {"bundleProxy", {records}}}}},
    };
}

TEST(ArchiveGolden, ArchivesToExactlyTheBytesCheckedIn) {
    for (const Row& row : rows()) EXPECT_EQ(archiveRoot(row.root), golden::read(row.file)) << row.file;
}

TEST(ArchiveGolden, ReadsTheBytesCheckedInBackToTheSameObjects) {
    for (const Row& row : rows()) {
        const auto read = unarchiveRoot(golden::read(row.file));
        ASSERT_TRUE(read) << row.file;
        EXPECT_EQ(archiveRoot(*read), archiveRoot(row.root)) << row.file;
    }
    EXPECT_EQ(unarchiveDate(golden::read("date-attribute.plist")), std::get<Date>(rows()[0].root.value));
    EXPECT_EQ(unarchiveNumber(golden::read("number-attribute.plist"))->asUnsigned(), 1'099'511'627'776u);
    EXPECT_EQ(unarchiveString(golden::read("string-attribute.plist")), "Reports/\u00DCber uns.txt");
    EXPECT_EQ(unarchiveStrings(golden::read("tags-attribute.plist")),
              (std::vector<std::string>{"Red", "\u00C5rsrapport", "\U0001F3BC Noten"}));
}

TEST(ArchiveGolden, RefusesTheFilesCutAtEveryByte) {
    for (const Row& row : rows()) {
        SCOPED_TRACE(row.file);
        golden::cutAtEveryByte(golden::read(row.file), [](ByteView cut) {
            const auto read = unarchiveRoot(cut);
            ASSERT_FALSE(read);
            EXPECT_TRUE(read.error().is(ErrorDomain::unarchive, static_cast<std::int64_t>(UnarchiveError::damaged)));
        });
    }
}

TEST(ArchiveGolden, ReadsTheFilesWithAnyBitFlippedAsAWholeObjectOrRefusesThem) {
    for (const Row& row : rows()) {
        SCOPED_TRACE(row.file);
        const Bytes whole = golden::read(row.file);
        std::size_t refused = 0, changed = 0;
        golden::flipEveryBit(whole, [&](ByteView flipped) {
            const auto read = unarchiveRoot(flipped);
            if (!read) {
                EXPECT_EQ(read.error().domain, ErrorDomain::unarchive);
                ++refused;
                return;
            }
            const Bytes again = archiveRoot(*read);
            if (again != whole) ++changed;
            const auto readAgain = unarchiveRoot(again);
            ASSERT_TRUE(readAgain);
            EXPECT_EQ(archiveRoot(*readAgain), again);
        });
        // Most flips hit structure and are refused; those in the content are read as another object.
        EXPECT_GT(refused, whole.size());
        EXPECT_GT(changed, 0u);
    }
}

}  // namespace
}  // namespace tarnwell::archive
