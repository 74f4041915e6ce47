#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>

#include "fs/ChangeToken.h"
#include "hostframework/HostError.h"
#include "items/TarnwellError.h"
#include "tests/deep/DeepDevice.h"

namespace tarnwell::deep {
namespace {

using hostframework::EnumerationPage;
using testing::makeDirectories;
using testing::writeFile;

const Error kInvalidIdentifier = items::makeError(items::TarnwellError::invalidItemIdentifier);

/// A folder of 250 files, "folder", and a file beside it.
class MalformedInput : public ::testing::Test {
protected:
    MalformedInput() {
        makeDirectories(device_.device().path("folder"));
        for (int i = 0; i < 250; ++i) writeFile(device_.device().path("folder/file" + std::to_string(i)), "x");
        writeFile(device_.device().path("single.txt"), "x");
        folder_ = device_.identifierOf("folder").value_or("");
        single_ = device_.identifierOf("single.txt").value_or("");
        device_.device().log().clear();
    }

    /// A page of the folder's listing, the first one done.
    EnumerationPage secondPage() {
        auto first = device_.page(folder_, hostframework::kInitialPageSortedByName);
        EXPECT_TRUE(first.next.has_value());
        return first.next.value_or(EnumerationPage{});
    }

    DeepDevice device_;
    std::string folder_, single_;
};

TEST_F(MalformedInput, AnIdentifierThatNamesNothingGivesOneClearError) {
    const std::string number = folder_.substr(4);
    const std::string rows[] = {"",
                                " ",
                                "=",
                                "==",
                                "fid",
                                "did",
                                "fid=",
                                "did=",
                                "fid=0",
                                "did=0",
                                "fid=-1",
                                "did=-1",
                                "fid=18446744073709551615",
                                "fid=18446744073709551616",
                                "did=4294967295",
                                "did=4294967296",
                                "did=18446744073709551616",
                                "fid=" + std::string(100'000, '9'),
                                "did=" + std::string(100'000, '9'),
                                "fid=abc",
                                "did=0x1",
                                "fid=1e3",
                                "fid=" + number + "=",
                                "fid=" + number + "=" + number,
                                "=" + folder_,
                                "FID=" + number,
                                "did=" + number,
                                "fid =" + number,
                                " " + folder_,
                                "xid=" + number,
                                "fid:" + number,
                                std::string("fid\0=", 5) + number,
                                std::string("fid=\0", 5) + number,
                                "fid=\xff\xfe",
                                "\xff\xfe\xfd",
                                std::string(1, '\0'),
                                std::string(1 << 20, 'f'),
                                "#",
                                "##",
                                "#org.example.none",
                                "#../../etc",
                                "#" + std::string(1 << 20, 'a'),
                                std::string("#\0", 2),
                                "/etc/passwd",
                                "file:///etc/passwd",
                                "../single.txt",
                                device_.device().path("single.txt"),
                                "rootcontainer",
                                "RootContainer ",
                                std::string("RootContainer\0", 14)};
    for (const std::string& identifier : rows) {
        SCOPED_TRACE("\"" + identifier.substr(0, 60) + "\"");
        device_.device().log().clear();
        const auto item = device_.provider().itemForIdentifier(identifier);
        ASSERT_FALSE(item.has_value()) << (*item)->description();
        EXPECT_EQ(item.error(), kInvalidIdentifier);
        const auto errors = device_.device().log().texts(log::Level::error);
        ASSERT_GE(errors.size(), 1u);
        EXPECT_LE(errors.size(), 2u) << "one for the reason at most, and one for the request";
        EXPECT_EQ(errors.back(), "[ERROR] item lookup failed for identifier \"" + identifier + "\"");
        EXPECT_FALSE(device_.provider().URLForItemWithPersistentIdentifier(identifier).has_value());
        const auto enumerator = device_.provider().enumeratorForContainerItemIdentifier(identifier);
        ASSERT_FALSE(enumerator.has_value());
        EXPECT_EQ(enumerator.error(), hostframework::noSuchItem(identifier));
    }
}

TEST_F(MalformedInput, ANumberIsReadLenientlyButAnItemHasItsOneIdentifier) {
    const std::string number = folder_.substr(4);
    for (const std::string& identifier :
         {"fid=0" + number, "fid=+" + number, "fid= " + number, "fid=" + number + "x", "fid=" + number + "\n"}) {
        SCOPED_TRACE(identifier);
        const auto item = device_.provider().itemForIdentifier(identifier);
        if (item) {
            EXPECT_EQ((*item)->itemIdentifier(), folder_);
        } else {
            EXPECT_EQ(item.error(), kInvalidIdentifier);
        }
    }
}

TEST_F(MalformedInput, AURLThatNamesNoPlaceOfTheDeviceHasNoIdentifier) {
    const std::string root = device_.device().url().path();
    const URL rows[] = {URL::file("/"),
                        URL::file("/etc/passwd"),
                        URL::file(root + "/../../etc/passwd"),
                        URL::file(root + "/folder/../../x"),
                        URL::file(root + "/missing"),
                        URL::file(root + "/single.txt/below"),
                        URL::file(root + std::string("/single.txt\0", 12)),
                        URL::file(root + "/" + std::string(256, 'n')),
                        URL::file(root + "/" + std::string(1 << 20, 'n')),
                        URL::file("/.tarnwell/Documents"),
                        URL::file(root + "/folder/Documents"),
                        URL::parse("http://example.org/Documents"),
                        URL::parse("file://elsewhere" + root + "/single.txt"),
                        URL::parse("")};
    for (const URL& url : rows) {
        SCOPED_TRACE(url.path().substr(0, 100));
        EXPECT_FALSE(device_.provider().persistentIdentifierForItemAtURL(url).has_value());
    }
}

TEST_F(MalformedInput, BytesThatAreNoPageExpireTheListing) {
    const EnumerationPage page = secondPage();
    std::vector<EnumerationPage> rows{{},
                                      EnumerationPage(48, 0),
                                      EnumerationPage(48, 0xff),
                                      EnumerationPage(47, 0),
                                      EnumerationPage(49, 0),
                                      EnumerationPage(1 << 20, 'x'),
                                      EnumerationPage(page.begin(), page.begin() + 48)};
    for (std::size_t size = 0; size < page.size(); ++size) {
        rows.emplace_back(page.begin(), page.begin() + static_cast<std::ptrdiff_t>(size));
    }
    for (const std::string& container : {folder_, hostframework::kRootContainer, hostframework::kWorkingSetContainer,
                                         hostframework::kAllDirectoriesContainer}) {
        auto enumerator = device_.provider().enumeratorForContainerItemIdentifier(container);
        ASSERT_TRUE(enumerator.has_value());
        for (const EnumerationPage& row : rows) {
            device_.device().log().clear();
            const auto outcome = pageOf(**enumerator, row);
            ASSERT_EQ(outcome.finishes, 1) << container << ", " << row.size() << " bytes";
            ASSERT_EQ(outcome.error, hostframework::syncAnchorExpired()) << container << ", " << row.size() << " bytes";
            EXPECT_TRUE(outcome.items.empty());
            EXPECT_EQ(device_.device().log().texts(log::Level::error),
                      std::vector<std::string>{"[ERROR] can't create change token from anchor data, resetting"});
        }
        (*enumerator)->invalidate();
    }
}

TEST_F(MalformedInput, APageWithAnyBitFlippedEndsTheListingOnceInOneWayOrTheOther) {
    const EnumerationPage page = secondPage();
    auto enumerator = device_.provider().enumeratorForContainerItemIdentifier(folder_);
    ASSERT_TRUE(enumerator.has_value());
    int expired = 0, listed = 0;
    for (std::size_t bit = 0; bit < page.size() * 8; ++bit) {
        EnumerationPage flipped = page;
        flipped[bit / 8] = static_cast<std::uint8_t>(flipped[bit / 8] ^ (1u << (bit % 8)));
        const auto outcome = pageOf(**enumerator, flipped);
        ASSERT_EQ(outcome.finishes, 1) << "bit " << bit;
        if (outcome.error) {
            ASSERT_EQ(*outcome.error, hostframework::syncAnchorExpired()) << "bit " << bit;
            ++expired;
        } else {
            ASSERT_LE(outcome.items.size(), 200u);
            ++listed;
        }
    }
    EXPECT_GT(expired, 0);
    EXPECT_GT(listed, 0) << "another offset is a token as well";
    const auto good = pageOf(**enumerator, page);
    EXPECT_EQ(good.items.size(), 50u);
    EXPECT_FALSE(good.error.has_value());
    (*enumerator)->invalidate();
}

TEST_F(MalformedInput, ATokenOfAnotherPositionOrDeviceIsHonouredOrExpired) {
    const auto good = fs::ChangeToken::decode(secondPage());
    ASSERT_TRUE(good.has_value());
    struct Row {
        const char* what;
        fs::ChangeToken token;
        std::optional<std::size_t> items;  ///< nothing where it expires
    };
    auto with = [&](auto change) {
        fs::ChangeToken token = *good;
        change(token);
        return token;
    };
    constexpr auto kLast = std::numeric_limits<std::uint64_t>::max();
    const Row rows[] = {
        {"as it was", *good, 50},
        {"of another device", with([](auto& t) { t.deviceUUID = UUID::random(); }), std::nullopt},
        {"of the future", with([](auto& t) { t.streamEventID = EventID{raw(t.streamEventID) + 1'000'000}; }),
         std::nullopt},
        {"at the last event", with([](auto& t) { t.streamEventID = EventID{kLast}; }), std::nullopt},
        {"past the end", with([](auto& t) { t.offset = 251; }), 0},
        {"far past the end", with([](auto& t) { t.offset = kLast; }), 0},
        {"just below the end of numbers", with([](auto& t) { t.offset = kLast - 100; }), 0},
        {"of a version to come", with([](auto& t) { t.version = kLast; }), 50},
        {"of an app library list", with([](auto& t) { t.appLibraryVersionToken = kLast; }), 50},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        const auto outcome = device_.page(folder_, row.token.encode());
        EXPECT_EQ(outcome.finishes, 1);
        if (row.items) {
            EXPECT_FALSE(outcome.error.has_value());
            EXPECT_EQ(outcome.items.size(), *row.items);
            EXPECT_FALSE(outcome.next.has_value());
        } else {
            EXPECT_EQ(outcome.error, hostframework::syncAnchorExpired());
        }
    }
}

TEST_F(MalformedInput, APageWhoseEntriesWereReplacedUnderTheirNamesExpires) {
    const EnumerationPage page = secondPage();
    // Gone and seen to be gone, then another object under the same name: the places behind it have moved up.
    ASSERT_TRUE(std::filesystem::remove(device_.device().path("folder/file0")));
    device_.device().settle();
    writeFile(device_.device().path("folder/file0"), "another one");
    EXPECT_EQ(device_.page(folder_, page).error, hostframework::syncAnchorExpired());
}

TEST_F(MalformedInput, WhatIsNoFolderIsListedAsNothing) {
    const auto outcome = device_.page(single_, hostframework::kInitialPageSortedByName);
    EXPECT_EQ(outcome.finishes, 1);
    EXPECT_TRUE(outcome.items.empty());
}

}  // namespace
}  // namespace tarnwell::deep
