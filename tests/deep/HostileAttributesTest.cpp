#include <gtest/gtest.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <random>

#include "items/LocalItem.h"
#include "platform/archive/KeyedArchive.h"
#include "tests/archive/RawPropertyList.h"
#include "tests/deep/DeepDevice.h"

namespace tarnwell::deep {
namespace {

using archive::ArchivedObject;
using items::LocalItem;
using testing::setUserAttribute;
using testing::writeFile;

std::string text(const Bytes& bytes) { return std::string(textOf(bytes)); }

Bytes archived(auto value) { return archive::archiveRoot(ArchivedObject{std::move(value)}); }

archive::ArchivedArray labels(std::initializer_list<const char*> texts) {
    archive::ArchivedArray array;
    for (const char* label : texts) array.push_back({std::string(label)});
    return array;
}

struct Hostile {
    std::string what;
    Bytes bytes;
};

/// Bytes that a neighbour may have written, none of them the archive of a value that any attribute holds.
std::vector<Hostile> hostileArchives() {
    using archive::testing::RawPropertyList;
    namespace raw = archive::testing;
    std::vector<Hostile> rows;
    rows.push_back({"no bytes", {}});
    rows.push_back({"one byte", {0}});
    rows.push_back({"text", {'h', 'e', 'l', 'l', 'o'}});
    rows.push_back({"zeros", Bytes(3000, 0)});
    rows.push_back({"ones", Bytes(3000, 0xff)});
    rows.push_back({"the magic alone", {'b', 'p', 'l', 'i', 's', 't', '0', '0'}});
    for (const std::uint8_t type : Bytes{0x40, 0x50, 0x60, 0xA0, 0xC0, 0xD0}) {
        for (const std::uint64_t count : {std::uint64_t{10'000'000'000}, ~std::uint64_t{0}}) {
            rows.push_back({"type " + std::to_string(type) + " of " + std::to_string(count),
                            RawPropertyList{.objects = {raw::counted(type, count)}}.build()});
        }
    }
    rows.push_back({"an array of itself", RawPropertyList{.objects = {raw::referring(0xA0, {0, 0})}}.build()});
    rows.push_back({"two arrays of each other",
                    RawPropertyList{.objects = {raw::referring(0xA0, {1}), raw::referring(0xA0, {0})}}.build()});
    rows.push_back({"a dictionary under itself",
                    RawPropertyList{.objects = {raw::dictionary({1}, {0}), raw::asciiString("$top")}}.build()});
    std::vector<Bytes> doubling;
    for (std::uint64_t i = 1; i < 60; ++i) doubling.push_back(raw::referring(0xA0, {i, i}));
    doubling.push_back(raw::referring(0xA0, {}));
    rows.push_back({"arrays that double sixty times", RawPropertyList{.objects = doubling}.build()});
    std::vector<Bytes> deep;
    for (std::uint64_t i = 1; i < 200; ++i) deep.push_back(raw::referring(0xA0, {i}));
    deep.push_back(raw::asciiString("x"));
    rows.push_back({"arrays 200 deep", RawPropertyList{.objects = deep}.build()});
    rows.push_back({"offsets outside", RawPropertyList{.objects = {raw::asciiString("x")},
                                                       .offsets = std::vector<std::uint64_t>{1'000'000}}
                                           .build()});
    rows.push_back({"an archive of a list of numbers",
                    archived(archive::ArchivedArray{{archive::Integer{1, false}}, {archive::Integer{2, false}}})});
    rows.push_back(
        {"an archive of a dictionary", archived(archive::ArchivedDictionary{{"key", {std::string("value")}}})});
    rows.push_back({"an archive of a Boolean", archived(true)});
    return rows;
}

/// One file for each hostile value in one attribute, and an innocent one beside them.
class HostileAttributes : public ::testing::TestWithParam<std::string> {
protected:
    void add(const std::string& name, const Bytes& value) {
        writeFile(device_.device().path(name), "content");
        setUserAttribute(device_.device().path(name), GetParam(), text(value));
    }
    void addInnocent() {
        const std::string path = device_.device().path("innocent");
        writeFile(path, "content");
        setUserAttribute(path, LocalItem::xattrTagDataName, text(archived(labels({"Red", "Blue"}))));
        setUserAttribute(path, LocalItem::xattrFavoriteRankName, text(archived(archive::Integer{77, false})));
        setUserAttribute(path, LocalItem::xattrLastUsedDateName, text(archived(Date(std::chrono::seconds(1000)))));
    }
    static void expectInnocent(const hostframework::ProviderItem& item) {
        EXPECT_TRUE(item.tagData().has_value());
        EXPECT_EQ(item.favoriteRank(), 77u);
        EXPECT_EQ(item.lastUsedDate(), Date(std::chrono::seconds(1000)));
    }

    DeepDevice device_;
};

TEST_P(HostileAttributes, NeverKeepAnItemOutOfItsListing) {
    const auto rows = hostileArchives();
    for (std::size_t i = 0; i < rows.size(); ++i) add("file" + std::to_string(i), rows[i].bytes);
    addInnocent();
    device_.device().settle();  // else the live updates may read them all once more
    device_.device().log().clear();
    const auto items = device_.list(hostframework::kRootContainer, host::Depth::direct);
    ASSERT_TRUE(items.has_value());
    ASSERT_EQ(items->size(), rows.size() + 1);
    const auto errors = device_.device().log().texts(log::Level::error);
    if (GetParam() != LocalItem::xattrTrashPutBackName && GetParam() != LocalItem::xattrTrashDateName) {
        EXPECT_EQ(errors.size(), rows.size()) << "one line for each value";
        for (const auto& line : errors)
            EXPECT_NE(line.find("while unarchiving object from"), std::string::npos) << line;
    }
    for (const auto& [item, path] : *items) {
        if (path == "innocent") {
            expectInnocent(*item);
            continue;
        }
        SCOPED_TRACE(rows[std::stoul(path.substr(4))].what);
        EXPECT_EQ(item->documentSize(), 7u);
        EXPECT_FALSE(item->lastUsedDate().has_value());
        EXPECT_FALSE(item->tagData().has_value());
        EXPECT_FALSE(item->favoriteRank().has_value());
        const auto local = std::dynamic_pointer_cast<const LocalItem>(item);
        ASSERT_NE(local, nullptr);
        EXPECT_FALSE(local->putBackURL().has_value());
    }
}

TEST_P(HostileAttributes, CutOrWithFlippedBitsAreAValueOrNone) {
    const Bytes good = GetParam() == LocalItem::xattrTagDataName        ? archived(labels({"Red", "Blue", "Green"}))
                       : GetParam() == LocalItem::xattrFavoriteRankName ? archived(archive::Integer{12345, false})
                       : GetParam() == LocalItem::xattrLastUsedDateName || GetParam() == LocalItem::xattrTrashDateName
                           ? archived(Date(std::chrono::seconds(1'000'000)))
                           : archived(std::string("Folder/Sub/file.txt"));
    std::size_t count = 0;
    for (std::size_t size = 0; size < good.size(); size += 3) {
        add("cut" + std::to_string(count++), Bytes(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(size)));
    }
    std::mt19937_64 random(4711);
    for (int i = 0; i < 150; ++i) {
        Bytes flipped = good;
        const auto bit = random() % (flipped.size() * 8);
        flipped[bit / 8] = static_cast<std::uint8_t>(flipped[bit / 8] ^ (1u << (bit % 8)));
        add("flipped" + std::to_string(count++), flipped);
    }
    addInnocent();
    const auto items = device_.list(hostframework::kRootContainer, host::Depth::direct);
    ASSERT_TRUE(items.has_value());
    EXPECT_EQ(items->size(), count + 1);
    const std::string root = device_.device().url().path();
    for (const auto& [item, path] : *items) {
        if (path == "innocent") expectInnocent(*item);
        if (path.starts_with("cut")) {
            EXPECT_FALSE(item->lastUsedDate() || item->tagData() || item->favoriteRank()) << path;
        }
        const auto folder = std::dynamic_pointer_cast<const LocalItem>(item)->putBackURL();
        EXPECT_TRUE(!folder || folder->path() == root || folder->path().starts_with(root + "/")) << folder->path();
    }
}

INSTANTIATE_TEST_SUITE_P(InEachAttribute, HostileAttributes,
                         ::testing::Values(LocalItem::xattrLastUsedDateName, LocalItem::xattrTagDataName,
                                           LocalItem::xattrFavoriteRankName, LocalItem::xattrTrashDateName,
                                           LocalItem::xattrTrashPutBackName),
                         [](const auto& row) {
                             return row.param == LocalItem::xattrLastUsedDateName   ? "LastUsedDate"
                                    : row.param == LocalItem::xattrTagDataName      ? "Tags"
                                    : row.param == LocalItem::xattrFavoriteRankName ? "FavoriteRank"
                                    : row.param == LocalItem::xattrTrashDateName    ? "TrashDate"
                                                                                    : "PutBack";
                         });

/// Temporary folders lie there while it lives.
class TestFolderElsewhere {
public:
    explicit TestFolderElsewhere(const char* folder) {
        if (const char* set = std::getenv(kVariable)) before_ = set;
        ::setenv(kVariable, folder, 1);
    }
    ~TestFolderElsewhere() {
        if (before_) {
            ::setenv(kVariable, before_->c_str(), 1);
        } else {
            ::unsetenv(kVariable);
        }
    }

private:
    static constexpr const char* kVariable = "TARNWELL_TEST_DIR";
    std::optional<std::string> before_;
};

TEST(LargeAttributes, OfSixtyFourKiBAreRefusedAsValuesAndTheItemIsListed) {
    constexpr const char* kMemory = "/dev/shm";  // disk file systems keep less in an attribute
    if (::access(kMemory, W_OK) != 0) GTEST_SKIP() << "no /dev/shm";
    const TestFolderElsewhere elsewhere(kMemory);
    DeepDevice device;
    const std::string path = device.device().path("large.txt");
    writeFile(path, "content");
    // The list of labels is a good archive, only as large as an attribute can be.
    archive::ArchivedArray many;
    while (archive::archiveRoot(ArchivedObject{many}).size() < 64 * 1024 - 200) {
        many.push_back({"label " + std::to_string(many.size()) + std::string(100, 'x')});
    }
    const std::string good = text(archive::archiveRoot(ArchivedObject{many}));
    ASSERT_LE(good.size(), 64u * 1024);
    if (::lsetxattr(path.c_str(), ("user." + LocalItem::xattrTagDataName).c_str(), good.data(), good.size(), 0) != 0) {
        GTEST_SKIP() << "/dev/shm keeps no attribute of 64 KiB here: " << errnoName(errno);
    }
    const std::string noise(64 * 1024, '\xa0');
    setUserAttribute(path, LocalItem::xattrFavoriteRankName, noise);
    setUserAttribute(path, LocalItem::xattrLastUsedDateName, noise);
    setUserAttribute(path, "foreign", noise);
    const auto items = device.list(hostframework::kRootContainer, host::Depth::direct);
    ASSERT_TRUE(items.has_value());
    ASSERT_EQ(items->size(), 1u);
    const auto& item = *items->front().item;
    EXPECT_EQ(item.filename(), "large.txt");
    ASSERT_TRUE(item.tagData().has_value());
    EXPECT_GT(item.tagData()->size(), 50'000u);
    EXPECT_FALSE(item.favoriteRank().has_value());
    EXPECT_FALSE(item.lastUsedDate().has_value());
}

}  // namespace
}  // namespace tarnwell::deep
