#include "hostframework/HostError.h"

#include <map>
#include <string>

#include <gtest/gtest.h>

#include "hostframework/ProviderEnumerator.h"

namespace tarnwell::hostframework {
namespace {

TEST(HostError, SyncAnchorExpiredHasNoUserInfo) {
    EXPECT_EQ(syncAnchorExpired(), (Error{ErrorDomain::host, -1002, {}}));
    EXPECT_EQ(describe(syncAnchorExpired()), "host error -1002 (sync anchor expired)");
}

TEST(HostError, NoSuchItemCarriesTheIdentifier) {
    Error error = noSuchItem("did=12");
    EXPECT_TRUE(error.is(ErrorDomain::host, kNoSuchItem));
    EXPECT_EQ(error.userInfo.at(kErrorItemIdentifier), "did=12");
    EXPECT_EQ(describe(error), "host error -1005 (no such item): did=12");
}

/// Of an item, only what an error carries.
class NamedItem : public ProviderItem {
public:
    const ItemIdentifier& itemIdentifier() const override { return identifier_; }
    const ItemIdentifier& parentItemIdentifier() const override { return kRootContainer; }
    const std::string& filename() const override { return name_; }
    const std::string& typeIdentifier() const override { return name_; }
    std::optional<std::uint64_t> documentSize() const override { return {}; }
    std::optional<Date> creationDate() const override { return {}; }
    std::optional<Date> contentModificationDate() const override { return {}; }
    std::optional<std::uint16_t> childItemCount() const override { return {}; }
    std::uint64_t capabilities() const override { return 0; }
    const std::optional<Bytes>& versionIdentifier() const override { return noBytes_; }
    bool isTrashed() const override { return false; }
    std::optional<Date> lastUsedDate() const override { return {}; }
    const std::optional<Bytes>& tagData() const override { return noBytes_; }
    std::optional<std::uint64_t> favoriteRank() const override { return {}; }
    std::optional<FileID> fileID() const override { return {}; }
    std::optional<std::int64_t> docID() const override { return {}; }
    const URL& fileURL() const override { return url_; }
    const std::optional<std::string>& searchDomainIdentifier() const override { return noText_; }
    const std::optional<std::string>& appContainerBundleIdentifier() const override { return noText_; }
    bool isUbiquitous() const override { return false; }
    bool isFolder() const override { return false; }
    bool isContainer() const override { return false; }
    std::string description() const override { return name_; }

private:
    const ItemIdentifier identifier_ = "did=7";
    const std::string name_ = "a.txt";
    const std::optional<Bytes> noBytes_;
    const std::optional<std::string> noText_;
    const URL url_ = URL::file("/a.txt");
};

TEST(HostError, FilenameCollisionCarriesTheItemThatHasTheName) {
    const Error error = filenameCollision(NamedItem());
    EXPECT_TRUE(error.is(ErrorDomain::host, kFilenameCollision));
    EXPECT_EQ(error.userInfo.at(kErrorItemIdentifier), "did=7");
    EXPECT_EQ(error.userInfo.at(kErrorItemName), "a.txt");
    EXPECT_EQ(describe(error), "host error -1001 (filename collision): \"a.txt\" is already there");
}

TEST(HostError, InvalidParameterCarriesParameterAndValue) {
    Error error = invalidParameter("sourceURL", "file:///x");
    EXPECT_TRUE(error.is(ErrorDomain::host, kInvalidParameter));
    EXPECT_EQ(error.userInfo.at(kErrorParameter), "sourceURL");
    EXPECT_EQ(error.userInfo.at(kErrorValue), "file:///x");
    EXPECT_EQ(describe(error), "host error -1100 (invalid parameter): sourceURL is \"file:///x\"");
}

TEST(HostError, EveryCodeHasItsOwnText) {
    EXPECT_EQ(describe({ErrorDomain::host, kFilenameCollision, {}}), "host error -1001 (filename collision)");
    EXPECT_EQ(describe({ErrorDomain::host, kSyncAnchorExpired, {}}), "host error -1002 (sync anchor expired)");
    EXPECT_EQ(describe({ErrorDomain::host, kNoSuchItem, {}}), "host error -1005 (no such item)");
    EXPECT_EQ(describe({ErrorDomain::host, kInvalidParameter, {}}), "host error -1100 (invalid parameter)");
}

TEST(InitialPages, AreTwoPagesThatAreNotEmpty) {
    EXPECT_FALSE(kInitialPageSortedByName.empty());
    EXPECT_FALSE(kInitialPageSortedByDate.empty());
    EXPECT_NE(kInitialPageSortedByName, kInitialPageSortedByDate);
}

}  // namespace
}  // namespace tarnwell::hostframework
