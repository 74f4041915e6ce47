#include "items/ResourceReaders.h"

#include <cerrno>

#include "ItemsFixture.h"

namespace tarnwell::items {
namespace {

using files::ResourceKey;

class ResourceReadersTest : public ItemsTest {
protected:
    void SetUp() override { testing::writeFile(device.path("a.txt"), "12345"); }
    /// What every reader gives for the key: presence by reader.
    struct Presence {
        bool string, number, date, boolean, bytes;
        friend bool operator==(const Presence&, const Presence&) = default;
    };
    Presence presence(const URL& url, ResourceKey key) {
        return {stringResource(environment, url, key).has_value(), numberResource(environment, url, key).has_value(),
                dateResource(environment, url, key).has_value(), boolResource(environment, url, key).has_value(),
                bytesResource(environment, url, key).has_value()};
    }
};

TEST_F(ResourceReadersTest, GiveValuesOfTheirOwnTypeAndNothingSilentlyForOthers) {
    const struct {
        ResourceKey key;
        Presence expected;
    } rows[] = {
        {ResourceKey::name, {true, false, false, false, false}},
        {ResourceKey::typeIdentifier, {true, false, false, false, false}},
        {ResourceKey::fileSize, {false, true, false, false, false}},
        {ResourceKey::contentModificationDate, {false, false, true, false, false}},
        {ResourceKey::isWritable, {false, false, false, true, false}},
        {ResourceKey::isPackage, {false, false, false, true, false}},
        {ResourceKey::parentDirectoryURL, {false, false, false, false, false}},
    };
    for (const auto& row : rows)
        EXPECT_EQ(presence(device.url("a.txt"), row.key), row.expected) << files::nameOf(row.key);
    EXPECT_EQ(stringResource(environment, device.url("a.txt"), ResourceKey::name), "a.txt");
    EXPECT_EQ(numberResource(environment, device.url("a.txt"), ResourceKey::fileSize), 5u);
    EXPECT_EQ(logged(), Texts{});
}

TEST_F(ResourceReadersTest, LogAFailedReadOnceAtTheErrorLevel) {
    const Error trouble = posixError(EIO);
    files.failResource(ResourceKey::fileSize, trouble);
    const URL url = device.url("a b");
    const std::string line =
        "[ERROR] can't get resource \"fileSize\" for " + url.text() + "; POSIX EIO (Input/output error)";
    EXPECT_EQ(url.text(), "file://" + device.path("a%20b"));
    EXPECT_FALSE(numberResource(environment, url, ResourceKey::fileSize));
    EXPECT_EQ(logged(), Texts{line});
    EXPECT_FALSE(dateResource(environment, url, ResourceKey::fileSize));
    EXPECT_EQ(logged(), Texts{line});
    EXPECT_FALSE(bytesResource(environment, url, ResourceKey::fileSize));
    EXPECT_EQ(logged(), Texts{line});
    EXPECT_FALSE(stringResource(environment, url, ResourceKey::fileSize));
    EXPECT_FALSE(boolResource(environment, url, ResourceKey::fileSize));
    EXPECT_EQ(loggedLines(),
              (std::vector<testing::CapturingLog::Line>{{log::Level::error, line}, {log::Level::error, line}}));
}

TEST_F(ResourceReadersTest, LogAMissingFileAsAnError) {
    const URL url = device.url("gone");
    const Error error = device.files().resourceValue(url, ResourceKey::name).error();
    EXPECT_TRUE(error.is(ErrorDomain::generalFile, kNoSuchFileOnRead));
    EXPECT_FALSE(stringResource(environment, url, ResourceKey::name));
    EXPECT_EQ(logged(), Texts{"[ERROR] can't get resource \"name\" for " + url.text() + "; " + describe(error)});
}

}  // namespace
}  // namespace tarnwell::items
