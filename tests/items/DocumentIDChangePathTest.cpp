#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "items/TWPFileObjectIdentifier.h"

namespace tarnwell::items {
namespace {

constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();

TEST(DocumentIDChangePath, YieldsItsThreeNumbers) {
    const struct {
        std::string path;
        std::int64_t documentID, source, destination;
    } rows[] = {
        {"/.docid/517/changed/12/src=445,dst=460", 12, 445, 460},
        {".docid/517/changed/12/src=445,dst=460", 12, 445, 460},
        {"////.docid/517/changed/12/src=445,dst=460", 12, 445, 460},
        {"/.docid/changed/12/src=445,dst=460", 12, 445, 460},
        {"/.docid/0/changed/0/src=0,dst=0", 0, 0, 0},
        {"/.docid/9223372036854775807/changed/1/src=2,dst=3", 1, 2, 3},
        {"/.docid/1/changed/9223372036854775807/src=-9223372036854775808,dst=007", kMax, kMin, 7},
        {"/.docid/1/changed/+5/src= 6,dst=-7", 5, 6, -7},
    };
    for (const auto& row : rows) {
        auto change = parseDocumentIDChangePath(row.path);
        ASSERT_TRUE(change) << row.path;
        EXPECT_EQ(change->documentID, row.documentID) << row.path;
        EXPECT_EQ(change->source, row.source) << row.path;
        EXPECT_EQ(change->destination, row.destination) << row.path;
    }
}

TEST(DocumentIDChangePath, IsNoOtherText) {
    const std::string rows[] = {
        "",
        "/",
        "/home/someone/Documents/a.txt",
        "/x/.docid/517/changed/12/src=445,dst=460",
        "/.docid",
        "/.docid/",
        "/.docid//changed/12/src=445,dst=460",
        "/.docid/517changed/12/src=445,dst=460",
        "/.docid/-517/changed/12/src=445,dst=460",
        "/.docid/ 517/changed/12/src=445,dst=460",
        "/.docid/9223372036854775808/changed/12/src=445,dst=460",
        "/.docid/517/Changed/12/src=445,dst=460",
        "/.docid/517/changed//src=445,dst=460",
        "/.docid/517/changed/x/src=445,dst=460",
        "/.docid/517/changed/-/src=445,dst=460",
        "/.docid/517/changed/+-1/src=445,dst=460",
        "/.docid/517/changed/9223372036854775808/src=445,dst=460",
        "/.docid/517/changed/12/src=-9223372036854775809,dst=460",
        "/.docid/517/changed/12/src=445,dst=99999999999999999999",
        "/.docid/517/changed/12src=445,dst=460",
        "/.docid/517/changed/12/src=,dst=460",
        "/.docid/517/changed/12/src=445dst=460",
        "/.docid/517/changed/12/src=445, dst=460",
        "/.docid/517/changed/12/src=445,dst=",
        "/.docid/517/changed/12/src=445,dst=460 ",
        "/.docid/517/changed/12/src=445,dst=460/",
        "/.docid/517/changed/12/src=445,dst=460x",
        std::string("/.docid/517/changed/12/src=445,dst=460\0", 39),
        std::string("/.docid/517/changed/12\0/src=445,dst=460", 39),
        std::string(1 << 20, '/'),
        "/.docid/" + std::string(1 << 20, '1') + "/changed/12/src=445,dst=460",
    };
    for (const std::string& row : rows)
        EXPECT_FALSE(parseDocumentIDChangePath(row)) << row.substr(0, 80) << " of " << row.size() << " bytes";
}

TEST(DocumentIDChangePath, IsNoneWhenCutBeforeItsLastNumber) {
    const std::string whole = "/.docid/517/changed/12/src=445,dst=4";
    for (std::size_t length = 0; length < whole.size(); ++length)
        EXPECT_FALSE(parseDocumentIDChangePath(std::string_view(whole).substr(0, length))) << length;
    EXPECT_TRUE(parseDocumentIDChangePath(whole));
}

}  // namespace
}  // namespace tarnwell::items
