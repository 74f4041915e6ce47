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
