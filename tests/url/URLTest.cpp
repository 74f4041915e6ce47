#include "platform/url/URL.h"

#include <gtest/gtest.h>

namespace tarnwell {
namespace {

using Components = std::vector<std::string>;

TEST(URL, KeepsPathsInNormalForm) {
    struct Row {
        std::string given, path;
    };
    const Row rows[] = {
        {"/", "/"},
        {"", "/"},
        {"//", "/"},
        {"/.", "/"},
        {"/a/b", "/a/b"},
        {"a/b", "/a/b"},
        {"/a/b/", "/a/b"},
        {"/a//b", "/a/b"},
        {"/a/./b/.", "/a/b"},
        {"./a", "/a"},
        {"/a/../b", "/a/../b"},
        {"/..", "/.."},
        {"/.hidden/...", "/.hidden/..."},
        {"/a./.b", "/a./.b"},
        {"/\xff\xfe/ %41", "/\xff\xfe/ %41"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.given);
        const URL url = URL::file(row.given);
        EXPECT_TRUE(url.isFileURL());
        EXPECT_EQ(url.path(), row.path);
    }
}

TEST(URL, ReadsTextsOfFileURLs) {
    struct Row {
        std::string text, path;
    };
    const Row rows[] = {
        {"file:///a%20b", "/a b"}, {"file:///a/b/", "/a/b"},        {"file:///", "/"},
        {"file://", "/"},          {"file://localhost/a", "/a"},    {"file:/a", "/a"},
        {"FILE:///a", "/a"},       {"file:///%C3%a4", "/\xc3\xa4"}, {"file:///%ff", "/\xff"},
        {"file:///100%", "/100%"}, {"file:///%4", "/%4"},           {"file:///%4g%zz", "/%4g%zz"},
        {"file:///%2541", "/%41"}, {"file:///a%2Fb", "/a/b"},       {"file:///a%3Fb%23c?query#fragment", "/a?b#c"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        const URL url = URL::parse(row.text);
        EXPECT_TRUE(url.isFileURL());
        EXPECT_EQ(url.path(), row.path);
    }
}

TEST(URL, OnlyCarriesTextsOfOtherURLs) {
    for (const std::string text :
         {"https://example.org/a%20b?c", "file://server/a", "file:", "file:a", "", "plain", "/a/b", "fileb:///a"}) {
        SCOPED_TRACE(text);
        const URL url = URL::parse(text);
        EXPECT_FALSE(url.isFileURL());
        EXPECT_EQ(url.path(), text);
        EXPECT_EQ(url.text(), text);
        EXPECT_EQ(url.pathComponents(), Components{});
        EXPECT_EQ(url.deletingLastPathComponent(), url);
    }
    EXPECT_EQ(URL::parse("https://example.org/a/b").lastPathComponent(), "b");
    EXPECT_EQ(URL::parse("https://example.org/a").appending("b").path(), "https://example.org/a/b");
}

TEST(URL, GivesItsComponentsNameAndParent) {
    struct Row {
        std::string path;
        Components components;
        std::string last, parent;
    };
    const Row rows[] = {
        {"/", {"/"}, "/", "/"},
        {"/a", {"/", "a"}, "a", "/"},
        {"/a/b", {"/", "a", "b"}, "b", "/a"},
        {"/a/..", {"/", "a", ".."}, "..", "/a"},
        {"/a/ \xff", {"/", "a", " \xff"}, " \xff", "/a"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.path);
        const URL url = URL::file(row.path);
        EXPECT_EQ(url.pathComponents(), row.components);
        EXPECT_EQ(url.lastPathComponent(), row.last);
        EXPECT_EQ(url.deletingLastPathComponent(), URL::file(row.parent));
    }
}

TEST(URL, AppendsComponents) {
    struct Row {
        std::string base, component, path;
    };
    const Row rows[] = {
        {"/a", "b", "/a/b"},     {"/", "b", "/b"},         {"/a", "", "/a"},      {"/a", ".", "/a"},
        {"/a", "/b", "/a/b"},    {"/a", "b/c/", "/a/b/c"}, {"/a", "..", "/a/.."}, {"/a", "b//./c", "/a/b/c"},
        {"/a", "%20", "/a/%20"}, {"/a", ".b", "/a/.b"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.base + " + " + row.component);
        EXPECT_EQ(URL::file(row.base).appending(row.component).path(), row.path);
    }
}

TEST(URL, EncodesEveryByteThatIsNotPlain) {
    EXPECT_EQ(URL::file("/a b").text(), "file:///a%20b");
    EXPECT_EQ(URL::file("/AZaz09-._~/x").text(), "file:///AZaz09-._~/x");
    EXPECT_EQ(URL::file("/%?#:@\n").text(), "file:///%25%3F%23%3A%40%0A");
    EXPECT_EQ(URL::file("/\xc3\xa4\xff").text(), "file:///%C3%A4%FF");
    EXPECT_EQ(URL::file("/").text(), "file:///");
}

TEST(URL, ComesBackFromItsText) {
    std::string everyByte = "/x";
    for (int byte = 1; byte < 256; ++byte) everyByte += static_cast<char>(byte);
    for (const URL& url :
         {URL::file(everyByte), URL::file("/"), URL::file("/a/../b"), URL::parse("https://example.org/a%20b")}) {
        EXPECT_EQ(URL::parse(url.text()), url);
    }
}

TEST(URL, IsEqualByKindAndPath) {
    EXPECT_EQ(URL::file("/a"), URL::parse("file:///a/"));
    EXPECT_EQ(URLHash{}(URL::file("/a")), URLHash{}(URL::parse("file:///a/")));
    EXPECT_NE(URL::file("/a"), URL::file("/A"));
    EXPECT_NE(URL::file("/a"), URL::parse("/a"));
    EXPECT_NE(URL::file("/a/b/.."), URL::file("/a"));
}

TEST(URL, SharesItsCacheWithCopiesOnly) {
    const URL url = URL::file("/a");
    url.cache().setFileID(FileID{7});
    const URL copy = url;
    EXPECT_EQ(copy.cache().fileID(), FileID{7});
    copy.cache().setDocumentID(DocumentID{9});
    EXPECT_EQ(url.cache().documentID(), DocumentID{9});
    EXPECT_EQ(URL::file("/a").cache().fileID(), std::nullopt);
    EXPECT_EQ(url.appending("b").cache().fileID(), std::nullopt);
    EXPECT_EQ(url.appending("").cache().fileID(), std::nullopt);
    EXPECT_EQ(URL::file("/").deletingLastPathComponent().cache().documentID(), std::nullopt);
}

TEST(Relationship, ComparesWholeComponents) {
    struct Row {
        std::string directory, item;
        Relationship expected;
    };
    const Row rows[] = {
        {"/a/b", "/a/b", Relationship::same},
        {"/a/b", "/a/b/c", Relationship::contains},
        {"/a/b", "/a/bc", Relationship::other},
        {"/a/b", "/a", Relationship::other},
        {"/a/b", "/a/c", Relationship::other},
        {"/", "/a", Relationship::contains},
        {"/", "/", Relationship::same},
        {"/a/", "/a", Relationship::same},
        {"/a/", "/a/b/", Relationship::contains},
        {"/a", "/a/../b", Relationship::contains},
        {"/a/b", "/a/b/c/d", Relationship::contains},
        {"/A", "/a/b", Relationship::other},
        {"", "", Relationship::same},
        {"/a", "", Relationship::other},
        {"", "/a", Relationship::other},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.directory + " and " + row.item);
        EXPECT_EQ(relationship(row.directory, row.item), row.expected);
    }
    EXPECT_EQ(relationship(URL::file("/a"), URL::file("/a/b")), Relationship::contains);
}

}  // namespace
}  // namespace tarnwell
