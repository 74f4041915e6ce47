#include <chrono>
#include <limits>

#include "ItemsFixture.h"
#include "hostframework/TagCodec.h"

namespace tarnwell::items {
namespace {

using archive::ArchivedArray;
using archive::Integer;
using hostframework::TagCodec;

class LocalItemMetadataTest : public ItemsTest {};

TEST_F(LocalItemMetadataTest, ReadsUserMetadataFromItsAttributes) {
    const Date used = Date(std::chrono::seconds(1'700'000'000)) + std::chrono::microseconds(250'000);
    testing::writeFile(device.path("a.txt"), "");
    const std::string path = device.path("a.txt");
    setArchivedAttribute(path, LocalItem::xattrLastUsedDateName, {used});
    setArchivedAttribute(path, LocalItem::xattrTagDataName, {ArchivedArray{{std::string("red")}, {std::string("")}}});
    setArchivedAttribute(path, LocalItem::xattrFavoriteRankName, {Integer::fromUnsigned(7)});
    auto made = item(device.url("a.txt"));
    ASSERT_TRUE(made);
    EXPECT_EQ(made->lastUsedDate(), used);
    EXPECT_EQ(made->tagData(), TagCodec::encode({{"red", std::nullopt}, {"", std::nullopt}}));
    EXPECT_EQ(made->favoriteRank(), 7u);
    EXPECT_EQ(logged(), Texts{});
}

TEST_F(LocalItemMetadataTest, TellsNoTagsFromNoTagData) {
    testing::writeFile(device.path("a.txt"), "");
    EXPECT_EQ(item(device.url("a.txt"))->tagData(), std::nullopt);
    setArchivedAttribute(device.path("a.txt"), LocalItem::xattrTagDataName, {ArchivedArray{}});
    auto made = item(device.url("a.txt"));
    ASSERT_TRUE(made->tagData());
    EXPECT_EQ(*made->tagData(), TagCodec::encode({}));
    EXPECT_FALSE(made->tagData()->empty());
}

TEST_F(LocalItemMetadataTest, TakesARankAsAnUnsignedNumber) {
    testing::writeFile(device.path("a.txt"), "");
    const struct {
        archive::ArchivedObject rank;
        std::uint64_t expected;
    } rows[] = {
        {{Integer::fromUnsigned(0)}, 0},
        {{Integer::fromUnsigned(std::numeric_limits<std::uint64_t>::max())}, std::numeric_limits<std::uint64_t>::max()},
        {{Integer::fromSigned(-1)}, 0},
        {{2.75}, 2},
        {{-2.75}, 0},
    };
    for (const auto& row : rows) {
        setArchivedAttribute(device.path("a.txt"), LocalItem::xattrFavoriteRankName, row.rank);
        EXPECT_EQ(item(device.url("a.txt"))->favoriteRank(), row.expected) << row.expected;
    }
}

TEST_F(LocalItemMetadataTest, TreatsAttributesThatDoNotDecodeAsMissing) {
    testing::writeFile(device.path("a.txt"), "");
    const std::string path = device.path("a.txt");
    const std::string stamp("\x40\x0B\x4F\x65\0\0\0\0\x15\xCD\x5B\x07\0\0\0\0", 16);
    testing::setUserAttribute(path, LocalItem::xattrLastUsedDateName, stamp);
    testing::setUserAttribute(path, LocalItem::xattrFavoriteRankName, std::string(3000, 'x'));
    setArchivedAttribute(path, LocalItem::xattrTagDataName, {std::string("red")});
    auto made = item(device.url("a.txt"));
    ASSERT_TRUE(made);
    EXPECT_EQ(made->lastUsedDate(), std::nullopt);
    EXPECT_EQ(made->tagData(), std::nullopt);
    EXPECT_EQ(made->favoriteRank(), std::nullopt);
    const Bytes tags = archive::archiveRoot({std::string("red")});
    auto refusal = [](const Error& error, std::size_t size) {
        return "[ERROR] got " + describe(error) + " while unarchiving object from " + std::to_string(size) + " bytes";
    };
    EXPECT_EQ(logged(), (Texts{refusal(archive::unarchiveDate(bytesOf(stamp)).error(), 16),
                               refusal(archive::unarchiveStrings(tags).error(), tags.size()),
                               refusal(archive::unarchiveNumber(bytesOf(std::string(3000, 'x'))).error(), 3000)}));
}

}  // namespace
}  // namespace tarnwell::items
