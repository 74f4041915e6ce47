#include "provider/UserMetadata.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <functional>
#include <limits>

#include "hostframework/TagCodec.h"
#include "platform/base/DateText.h"
#include "tests/provider/OperationsFixture.h"

namespace tarnwell::provider {
namespace {

using namespace std::chrono_literals;
using hostframework::invalidParameter;
using hostframework::noSuchItem;
using hostframework::TagCodec;
using items::LocalItem;
using Operation = testing::FaultyFileSystem::Operation;

class UserMetadataTest : public OperationsTest {
protected:
    static inline const Date kDate{1'700'000'000'123'456'789ns};

    UserMetadataTest() {
        makeNote("file.txt");
        makeNoteFolder("Folder");
        file_ = noteIdentifier("file.txt");
        device_.settle();
        newLines();
    }

    ItemAnswer setDate(const std::optional<Date>& date, const std::string& identifier) {
        ItemAnswer answer;
        metadata_.setLastUsedDate(date, identifier, answer);
        return answer;
    }
    ItemAnswer setTags(const std::optional<Bytes>& data, const std::string& identifier) {
        ItemAnswer answer;
        metadata_.setTagData(data, identifier, answer);
        return answer;
    }
    ItemAnswer setRank(std::optional<std::uint64_t> rank, const std::string& identifier) {
        ItemAnswer answer;
        metadata_.setFavoriteRank(rank, identifier, answer);
        return answer;
    }
    Lines errorLines() {
        auto lines = newLines();
        std::erase_if(lines, [](const std::string& line) { return !line.starts_with("[ERROR] "); });
        return lines;
    }
    const URL url() const { return noteURL("file.txt"); }

    std::string file_;
    UserMetadata metadata_{providerContext_};
};

TEST_F(UserMetadataTest, TheLastUsedDateIsKeptAndCleared) {
    for (const Date date : {kDate, Date{}, Date{-1ns}, Date{(std::chrono::nanoseconds::max)()}}) {
        const auto item = setDate(date, file_).wait();
        ASSERT_TRUE(item.has_value());
        EXPECT_EQ((*item)->lastUsedDate(), date);
        EXPECT_EQ(attribute(LocalItem::xattrLastUsedDateName, url()), archive::archiveRoot({date}));
    }
    const auto item = setDate(std::nullopt, file_).wait();
    ASSERT_TRUE(item.has_value());
    EXPECT_EQ((*item)->lastUsedDate(), std::nullopt);
    EXPECT_EQ(attribute(LocalItem::xattrLastUsedDateName, url()), std::nullopt);
}

TEST_F(UserMetadataTest, ClearingADateThatIsNotThereGivesTheItemAndSaysNothing) {
    const auto item = setDate(std::nullopt, file_).wait();
    ASSERT_TRUE(item.has_value());
    EXPECT_EQ((*item)->itemIdentifier(), file_);
    EXPECT_EQ(errorLines(), Lines{});
}

TEST_F(UserMetadataTest, EachOperationRunsInASectionWithItsLookups) {
    const std::string lookup = kOpen + "fetching URL for \"" + file_ + "\"";
    struct Row {
        std::string title;
        std::function<ItemAnswer()> set;
    };
    const Row rows[] = {
        {"set last used date \"" + iso8601(kDate) + "\" to item \"" + file_ + "\"",
         [&] { return setDate(kDate, file_); }},
        {"clearing last used date for item \"" + file_ + "\"", [&] { return setDate(std::nullopt, file_); }},
        {"set tag data to item \"" + file_ + "\"", [&] { return setTags(TagCodec::encode({{"a", {}}}), file_); }},
        {"set tag data to item \"" + file_ + "\"", [&] { return setTags(std::nullopt, file_); }},
        {"set favorite rank \"7\" to item \"" + file_ + "\"", [&] { return setRank(7, file_); }},
        {"set favorite rank \"nil\" to item \"" + file_ + "\"", [&] { return setRank(std::nullopt, file_); }},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.title);
        device_.settle();
        newLines();
        const auto answer = row.set();
        ASSERT_TRUE(answer.hasCome());
        EXPECT_EQ(answer.thread(), std::this_thread::get_id());
        const auto item = answer.wait();
        ASSERT_TRUE(item.has_value());
        EXPECT_EQ(newLines(), (Lines{kOpen + row.title, lookup, "[DEBUG] found " + url().text(), kClose,
                                     kOpen + "fetching item's properties for \"" + file_ + "\"",
                                     "[DEBUG] found " + (*item)->description(), kClose, kClose}));
    }
}

TEST_F(UserMetadataTest, AnAppLibraryHasNoLastUsedDateAndNoSectionIsOpened) {
    for (const std::string& identifier : {kLibrary, std::string("#org.example.none"), std::string("#")}) {
        EXPECT_EQ(setDate(kDate, identifier).wait().error(), invalidParameter("itemIdentifier", identifier));
        EXPECT_EQ(setDate(std::nullopt, identifier).wait().error(), invalidParameter("itemIdentifier", identifier));
    }
    EXPECT_EQ(newLines(), Lines{});
    EXPECT_EQ(device_.accessScopes().granted(), Lines{});
}

TEST_F(UserMetadataTest, AnUnknownItemIsTheHostsNoSuchItem) {
    for (const std::string unknown : {"did=4000000", "fid=999999999999", "nonsense", ""}) {
        SCOPED_TRACE(unknown);
        EXPECT_EQ(setDate(kDate, unknown).wait().error(), noSuchItem(unknown));
        EXPECT_EQ(setTags(std::nullopt, unknown).wait().error(), noSuchItem(unknown));
        EXPECT_EQ(setRank(7, unknown).wait().error(), noSuchItem(unknown));
    }
    EXPECT_EQ(setTags(std::nullopt, "#org.example.none").wait().error(), noSuchItem("#org.example.none"));
    EXPECT_EQ(device_.accessScopes().granted(), Lines{});
}

TEST_F(UserMetadataTest, OfTagsTheLabelsAreKeptInTheirOrder) {
    const auto item = setTags(TagCodec::encode({{"red", 6}, {"Ärger", {}}, {"", {}}, {"red", {}}}), file_).wait();
    ASSERT_TRUE(item.has_value());
    EXPECT_EQ((*item)->tagData(), TagCodec::encode({{"red", {}}, {"Ärger", {}}, {"", {}}, {"red", {}}}));
    const auto bytes = attribute(LocalItem::xattrTagDataName, url());
    ASSERT_TRUE(bytes.has_value());
    EXPECT_EQ(items::decodeStrings(device_.programLog(), *bytes), (Lines{"red", "Ärger", "", "red"}));
}

TEST_F(UserMetadataTest, NoTagsAreKeptAsAnEmptyList) {
    const std::optional<Bytes> rows[] = {std::nullopt, TagCodec::encode({}), Bytes{}, Bytes{1, 2, 3},
                                         archive::archiveRoot({std::string("no tags")})};
    for (const auto& data : rows) {
        ASSERT_TRUE(setTags(TagCodec::encode({{"red", {}}}), file_).wait().has_value());
        const auto item = setTags(data, file_).wait();
        ASSERT_TRUE(item.has_value());
        EXPECT_EQ((*item)->tagData(), TagCodec::encode({}));
        EXPECT_EQ(attribute(LocalItem::xattrTagDataName, url()), archive::archiveRoot({archive::ArchivedArray{}}));
    }
}

TEST_F(UserMetadataTest, TheFavoriteRankIsKeptAndCleared) {
    for (const std::uint64_t rank : {std::uint64_t{0}, std::uint64_t{7}, std::numeric_limits<std::uint64_t>::max()}) {
        const auto item = setRank(rank, file_).wait();
        ASSERT_TRUE(item.has_value());
        EXPECT_EQ((*item)->favoriteRank(), rank);
    }
    for (int times = 0; times < 2; ++times) {
        const auto item = setRank(std::nullopt, file_).wait();
        ASSERT_TRUE(item.has_value());
        EXPECT_EQ((*item)->favoriteRank(), std::nullopt);
        EXPECT_EQ(attribute(LocalItem::xattrFavoriteRankName, url()), std::nullopt);
    }
    EXPECT_EQ(errorLines(), Lines{});
}

TEST_F(UserMetadataTest, FoldersAndLibrariesTakeTagsAndARank) {
    for (const std::string& identifier : {noteIdentifier("Folder"), kLibrary}) {
        SCOPED_TRACE(identifier);
        ASSERT_TRUE(setTags(TagCodec::encode({{"red", {}}}), identifier).wait().has_value());
        const auto item = setRank(7, identifier).wait();
        ASSERT_TRUE(item.has_value());
        EXPECT_EQ((*item)->itemIdentifier(), identifier);
        EXPECT_EQ((*item)->favoriteRank(), 7u);
        EXPECT_EQ((*item)->tagData(), TagCodec::encode({{"red", {}}}));
    }
    EXPECT_EQ(device_.accessScopes().granted(),
              (Lines{noteURL("Folder").path(), noteURL("Folder").path(), documents_.path(), documents_.path()}));
}

TEST_F(UserMetadataTest, ADateThatCannotBeWrittenIsLoggedAndTheItemIsGiven) {
    for (const auto& date : {std::optional(kDate), std::optional<Date>()}) {
        device_.accessScopes().failNext(posixError(EROFS));
        newLines();
        const auto item = setDate(date, file_).wait();
        ASSERT_TRUE(item.has_value());
        EXPECT_EQ((*item)->lastUsedDate(), std::nullopt);
        EXPECT_EQ(errorLines(), Lines{"[ERROR] can't set xattr com.vellum.lastuseddate#PS on " + url().path() + "; " +
                                      describe(posixError(EROFS))});
    }
}

TEST_F(UserMetadataTest, TagsAndARankThatCannotBeWrittenFailTheOperation) {
    device_.accessScopes().failNext(posixError(EROFS));
    EXPECT_EQ(setTags(std::nullopt, file_).wait().error(), posixError(EROFS));
    EXPECT_EQ(errorLines(),
              Lines{"[ERROR] can't set xattr com.vellum.metadata:_kMDItemUserTags; " + describe(posixError(EROFS))});
    for (const auto& rank : {std::optional<std::uint64_t>(7), std::optional<std::uint64_t>()}) {
        device_.accessScopes().failNext(posixError(ENOSPC));
        EXPECT_EQ(setRank(rank, file_).wait().error(), posixError(ENOSPC));
        EXPECT_EQ(errorLines(),
                  Lines{"[ERROR] can't set xattr com.vellum.favorite-rank.number#PS; " + describe(posixError(ENOSPC))});
    }
}

TEST_F(UserMetadataTest, WhatTheFileSystemRefusesIsTheErrorOfTheCall) {
    const UserMetadata faulty(faultyContext_);
    faultyFiles_.fail(Operation::setAttribute, EACCES);
    ItemAnswer tags, rank, date;
    faulty.setTagData(std::nullopt, file_, tags);
    EXPECT_EQ(tags.wait().error(), posixError(EACCES));
    faulty.setFavoriteRank(7, file_, rank);
    EXPECT_EQ(rank.wait().error(), posixError(EACCES));
    newLines();
    faulty.setLastUsedDate(kDate, file_, date);
    EXPECT_TRUE(date.wait().has_value());
    // The one who wrote says it at the debug level, who asked for it at the error level.
    const auto lines = newLines();
    EXPECT_EQ(std::ranges::count(
                  lines, "[DEBUG] can't set xattr \"com.vellum.lastuseddate#PS\"; " + describe(posixError(EACCES))),
              1);
    EXPECT_EQ(std::ranges::count(lines, "[ERROR] can't set xattr com.vellum.lastuseddate#PS on " + url().path() + "; " +
                                            describe(posixError(EACCES))),
              1);
}

TEST_F(UserMetadataTest, ALinkKeepsNothingAndItsTargetIsNotTouched) {
    std::filesystem::create_symlink(notePath("file.txt"), notePath("link"));
    device_.settle();
    ItemAnswer answer;
    const std::string link = noteIdentifier("link");
    metadata_.setFavoriteRank(7, link, answer);
    EXPECT_FALSE(answer.wait().has_value());
    EXPECT_EQ(attribute(LocalItem::xattrFavoriteRankName, url()), std::nullopt);
}

TEST_F(UserMetadataTest, AnItemThatGoesMeanwhileIsReportedAsNoItem) {
    const UserMetadata faulty(faultyContext_);
    faultyFiles_.fail(Operation::pathOfFileID, ENOENT, 1, 1);
    ItemAnswer rank;
    faulty.setFavoriteRank(7, file_, rank);
    EXPECT_EQ(rank.wait().error(), kInvalidIdentifier);
}

}  // namespace
}  // namespace tarnwell::provider
