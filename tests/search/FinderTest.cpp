#include "platform/search/Finder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

#include "testing/TemporaryDirectory.h"

namespace tarnwell::search {
namespace {

using Texts = std::vector<std::string>;
using namespace std::chrono_literals;

/// A table of entries, each under its name as its key, and what a query finds of them.
class FinderTest : public ::testing::Test {
protected:
    FinderTest() {
        auto table = EntryTable::open(directory_.path("search.sqlite"), "origin");
        if (!table) ADD_FAILURE() << describe(table.error());
        table_ = std::move(*table);
    }

    static Entry named(const std::string& name, const std::string& parent = "top") {
        Entry entry;
        entry.key = name;
        entry.parent = parent;
        entry.name = name;
        entry.type = "text/plain";
        return entry;
    }
    static Entry folder(const std::string& name, const std::string& parent = "top") {
        Entry entry = named(name, parent);
        entry.type = "inode/directory";
        entry.isFolder = true;
        return entry;
    }
    void put(const std::vector<Entry>& entries) {
        table_->begin();
        for (const Entry& entry : entries) table_->put(entry);
        const auto committed = table_->commit();
        ASSERT_TRUE(committed) << describe(committed.error());
    }
    void put(const Texts& names) {
        std::vector<Entry> entries;
        for (const std::string& name : names) entries.push_back(named(name));
        put(entries);
    }
    void remove(const std::string& key) {
        table_->begin();
        table_->remove(key);
        ASSERT_TRUE(table_->commit());
    }
    /// In the order in which they come.
    Texts ranked(const std::string& text, Search search = {}) {
        const auto query = parseQuery(text);
        EXPECT_TRUE(query) << text;
        search.query = *query;
        const auto hits = find(*table_, search);
        if (!hits) {
            ADD_FAILURE() << text << ": " << describe(hits.error());
            return {};
        }
        Texts names;
        for (const Hit& hit : *hits) names.push_back(hit.name);
        return names;
    }
    Texts found(const std::string& text, Search search = {}) {
        Texts names = ranked(text, std::move(search));
        std::ranges::sort(names);
        return names;
    }

    testing::TemporaryDirectory directory_;
    std::unique_ptr<EntryTable> table_;
};

struct NameRow {
    const char* name;
    Texts finding, notFinding;
};

TEST_F(FinderTest, NamesAreFoundByTheirParts) {
    const std::vector<NameRow> rows = {
        {"Annual-Report_2024.pdf",
         {"report", "REPORT", "rep", "annual report", "2024", "pdf", ".pdf", "annual-rep", "\"annual report\"",
          "2024.pdf -draft", "AnnualReport", "report2024", "-draft"},
         {"nnual", "\"annual rep\"", "\"report annual\"", "report -pdf", "reporter"}},
        {"Été.txt", {"éte", "ete", "ÉTÉ", "Ete.TXT"}, {"ta"}},
        {"e\u0301tude.txt", {"étude", "etude", "ÉTU"}, {}},
        {"Grüße aus Köln", {"grusse", "koln", "KÖLN", "Grüße", "GRÜSSE"}, {}},
        {"Smørrebrød Œuvre Łódź", {"smorre", "smørre", "oeuvre", "œuv", "lodz"}, {}},
        {"HTTPServerNotes.md", {"http", "server", "notes", "serverNotes", "httpservernotes", "md"}, {"tps"}},
        {"IMG20240501.jpg", {"img", "20240501", "IMG2024", "img20240501"}, {"0501"}},
        {"年度报告2024.pdf", {"报告", "年度", "年度报告", "度报", "2024", "报告 pdf"}, {"告报"}},
        {"東京タワーのしゃしん", {"タワー", "しゃしん", "東京"}, {"京東"}},
        {"서울여행.txt", {"여행", "서울"}, {}},
        {"Ｆｕｌｌ－Ｗｉｄｔｈ", {"full", "width"}, {}},
        {"🔥hot⭐.txt", {"🔥", "hot", "⭐", "🔥hot"}, {"🍎"}},
        {"caf\xe9 menu.txt", {"caf\xe9", "café", "cafe", "menu", "caf"}, {}},
        {"\xff\xfe.dat", {"dat", "\xff.dat"}, {}},
        {"don't.txt", {"don't", "don"}, {}},
        {"C++ notes (2).txt", {"c++", "2", "notes ("}, {}},
        {"a.b.c", {"a.b", "c", "b.c"}, {}},
        {"Москва.doc", {"москва", "МОСК"}, {}},
        {".hidden name", {"hidden", "name"}, {}},
        {"100% \"quoted\" name", {"quoted", "100%", "\"100% quoted\""}, {}},
        {"OR", {"or", "OR", "\"OR\""}, {"NOT"}},
        {"line\nbreak", {"line break", "\"line break\""}, {}},
    };
    for (const NameRow& row : rows) {
        put(Texts{row.name});
        for (const std::string& query : row.finding) {
            EXPECT_EQ(found(query), Texts{row.name}) << query;
        }
        for (const std::string& query : row.notFinding) EXPECT_EQ(found(query), Texts{}) << query;
        remove(row.name);
        EXPECT_EQ(found(row.finding.front()), Texts{}) << row.name;
    }
}

TEST_F(FinderTest, TagsAreFoundWholeOrByTheirBeginning) {
    Entry red = named("one"), blue = named("two"), bare = named("three");
    red.tags = {"Red", "in work", "🔥"};
    blue.tags = {"redundant", "work", "Berlin"};
    put({red, blue, bare});
    const Texts both = {"one", "two"};
    EXPECT_EQ(found("tag:red"), Texts{"one"});
    EXPECT_EQ(found("tag:RED*"), both);
    EXPECT_EQ(found("tag:work"), Texts{"two"});
    EXPECT_EQ(found("tag:\"in work\""), Texts{"one"});
    EXPECT_EQ(found("tag:\"work red\""), Texts{});
    EXPECT_EQ(found("tag:🔥"), Texts{"one"});
    EXPECT_EQ(found("tag:🍎"), Texts{});
    EXPECT_EQ(found("tag:*"), both);
    EXPECT_EQ(found("-tag:*"), Texts{"three"});
    EXPECT_EQ(found("-tag:red"), (Texts{"three", "two"}));
    EXPECT_EQ(found("tag:red tag:work"), Texts{});
    EXPECT_EQ(found("tag:red one"), Texts{"one"});
    EXPECT_EQ(found("berl"), Texts{"two"});
    EXPECT_EQ(found("\uE000"), Texts{});
}

TEST_F(FinderTest, TypesAreWholeHalvesOrEndings) {
    Entry pdf = named("a.pdf"), photo = named("b.JPG"), text = named("c.odt");
    pdf.type = "application/pdf";
    photo.type = "image/jpeg";
    text.type = "application/vnd.oasis.opendocument.text";
    put({pdf, photo, text, folder("d.pdf")});
    EXPECT_EQ(found("type:pdf"), Texts{"a.pdf"});
    EXPECT_EQ(found("type:application/pdf"), Texts{"a.pdf"});
    EXPECT_EQ(found("type:Image"), Texts{"b.JPG"});
    EXPECT_EQ(found("type:image/*"), Texts{"b.JPG"});
    EXPECT_EQ(found("type:jpg"), Texts{"b.JPG"});
    EXPECT_EQ(found("type:.odt"), Texts{"c.odt"});
    EXPECT_EQ(found("type:folder"), Texts{"d.pdf"});
    EXPECT_EQ(found("type:file"), (Texts{"a.pdf", "b.JPG", "c.odt"}));
    EXPECT_EQ(found("type:pdf type:odt"), (Texts{"a.pdf", "c.odt"}));
    EXPECT_EQ(found("-type:image type:file"), (Texts{"a.pdf", "c.odt"}));
    EXPECT_EQ(found("type:ima"), Texts{});
    EXPECT_EQ(found("type:'"), Texts{});
}

TEST_F(FinderTest, WhatLiesBelowAFolderIsFoundThere) {
    put({folder("f"), folder("g", "f"), named("x1", "f"), named("x2", "g"), named("x3")});
    EXPECT_EQ(found("x1"), Texts{"x1"});
    EXPECT_EQ(found("type:file", {.below = {"f"}}), (Texts{"x1", "x2"}));
    EXPECT_EQ(found("type:file", {.below = {"g", "top"}}), (Texts{"x1", "x2", "x3"}));
    EXPECT_EQ(found("type:file", {.notBelow = {"g"}}), (Texts{"x1", "x3"}));
    EXPECT_EQ(found("type:file", {.below = {"none"}}), Texts{});
}

TEST_F(FinderTest, WhatIsInTheTrashIsFoundWhereItIsAskedFor) {
    Entry trash = folder("bin");
    trash.isHidden = true;
    trash.below.isTrashed = true;
    Entry old = named("old", "bin");
    old.own.isTrashed = true;
    put({trash, old, named("older")});
    EXPECT_EQ(found("old"), Texts{"older"});
    EXPECT_EQ(found("old", {.withTrashed = true}), (Texts{"old", "older"}));
    EXPECT_EQ(found("bin", {.withTrashed = true}), Texts{});
}

TEST_F(FinderTest, WholeWordsComeBeforeBeginningsAndNewOnesBeforeOld) {
    Entry old = named("art old.txt"), young = named("art new.txt");
    old.modified = Date(1s);
    young.modified = Date(2s);
    put({named("artichoke.txt"), named("art.txt"), named("a long name of many words with art in it.txt"), old, young});
    const Texts names = ranked("art");
    ASSERT_EQ(names.size(), 5u);
    EXPECT_EQ(names[0], "art.txt");
    EXPECT_LT(std::ranges::find(names, "art new.txt"), std::ranges::find(names, "art old.txt"));
    EXPECT_EQ(ranked("art", {.order = Order::newestFirst}).front(), "art new.txt");
    EXPECT_EQ(ranked("type:file").front(), "art new.txt");
}

TEST_F(FinderTest, ByNameTheOrderIsThatOfTheLocale) {
    Entry old = named("art b.txt"), young = named("art b.txt");
    old.key = "1", old.modified = Date(1s);
    young.key = "2", young.modified = Date(2s);
    put({old, young, named("art c.txt"), named("Art a.txt"), named("art \xff.txt"), named("art .txt")});
    const Texts byBytes{"Art a.txt", "art .txt", "art b.txt", "art b.txt", "art c.txt", "art \xff.txt"};
    EXPECT_EQ(ranked("art", {.order = Order::byName}), byBytes);
    EXPECT_EQ(ranked("type:file", {.order = Order::byName}), byBytes);
    EXPECT_EQ(ranked("art", {.order = Order::byName, .names = NameOrder("no such locale")}), byBytes);
    // Of equal names the newest comes first.
    Search search{.query = *parseQuery("art b"), .order = Order::byName};
    const auto hits = find(*table_, search);
    ASSERT_TRUE(hits && hits->size() == 2U);
    EXPECT_EQ(hits->front().key, "2");
}

TEST_F(FinderTest, AQueryWithoutALetterIsWrongUnlessSomethingElseIsLookedFor) {
    put(Texts{"foo & bar"});
    Search search;
    search.query = *parseQuery("& ... %");
    const auto hits = find(*table_, search);
    ASSERT_FALSE(hits);
    EXPECT_TRUE(hits.error().is(ErrorDomain::posix, EINVAL));
    EXPECT_EQ(found("foo & bar"), Texts{"foo & bar"});
    EXPECT_EQ(found("foo -&"), Texts{"foo & bar"});
}

TEST_F(FinderTest, NoQueryIsASyntaxErrorOfTheDatabase) {
    put(Texts{"name"});
    const Texts hostile = {
        "*",        "a*b",      "a^b",          "^",       "a:b",        "name:x",     "{name}:x",
        "(a",       "a)",       "NEAR(a b)",    "a AND",   "AND",        "NOT a",      "a NOT",
        "a + b",    "'",        "''",           "a'b",     "%",          "\\",         "`a`",
        "--x",      "/*x*/",    "?1",           ":a",      "@a",         "$a",         "a;b",
        "\x01\x02", "\xc0\x80", "\xed\xa0\x80", "\u202e",  "tag:{a}:b",  "tag:\uE001", "type:?1",
        "type:%/",  "type://",  "type:*",       "tag:'*'", "tag:a*b*c*", "\"*\"",      "\"a* OR b\""};
    for (const std::string& text : hostile) {
        for (const std::string& asked : {text, "-" + text, "name " + text, text + " name"}) {
            const auto query = parseQuery(asked);
            if (!query) continue;
            Search search;
            search.query = *query;
            const auto hits = find(*table_, search);
            EXPECT_TRUE(hits || hits.error().is(ErrorDomain::posix, EINVAL)) << asked << describe(hits.error());
        }
    }
    std::string longest, many;
    while (longest.size() + 3 <= kMostQueryBytes) longest += "報 ";
    longest.erase(std::remove(longest.begin(), longest.end(), ' '), longest.end());
    for (std::size_t i = 0; i < kMostTerms; ++i) many += "fooBar" + std::to_string(i) + " ";
    EXPECT_EQ(found(longest), Texts{});
    EXPECT_EQ(found(many), Texts{});
    EXPECT_EQ(found("\"" + std::string(kMostQueryBytes - 2, 'a') + "\""), Texts{});
}

}  // namespace
}  // namespace tarnwell::search
