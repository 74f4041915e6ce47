#include "platform/search/Query.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace tarnwell::search {
namespace {

using Texts = std::vector<std::string>;

Phrase begins(std::string text) { return {std::move(text), Phrase::End::prefix}; }
Phrase whole(std::string text) { return {std::move(text), Phrase::End::whole}; }

struct Row {
    std::string text;
    Query query;
};

TEST(SearchQuery, IsReadAsPeopleWriteIt) {
    const std::vector<Row> rows = {
        {"", {}},
        {" \t\n ", {}},
        {"report", {.wanted = {.words = {begins("report")}}}},
        {"annual  report", {.wanted = {.words = {begins("annual"), begins("report")}}}},
        {"\"annual report\"", {.wanted = {.words = {whole("annual report")}}}},
        {"\"a\"b\"c d\"", {.wanted = {.words = {whole("a"), begins("b"), whole("c d")}}}},
        {"rep*", {.wanted = {.words = {begins("rep")}}}},
        {"tag:red", {.wanted = {.tags = {whole("red")}}}},
        {"TAG:Red", {.wanted = {.tags = {whole("Red")}}}},
        {"tag:ber*", {.wanted = {.tags = {begins("ber")}}}},
        {"tag:*", {.wanted = {.tags = {begins("")}}}},
        {"tag:\"in work*\"", {.wanted = {.tags = {whole("in work*")}}}},
        {"type:pdf type:image", {.wanted = {.types = {"pdf", "image"}}}},
        {"in:Notes in:\"My Maps\"", {.wanted = {.places = {"Notes", "My Maps"}}}},
        {"a -b", {.wanted = {.words = {begins("a")}}, .excluded = {.words = {begins("b")}}}},
        {"-tag:x -type:pdf -in:y -\"p q\"",
         {.excluded = {.words = {whole("p q")}, .tags = {whole("x")}, .types = {"pdf"}, .places = {"y"}}}},
        {"a-b", {.wanted = {.words = {begins("a-b")}}}},
        {"--a", {.excluded = {.words = {begins("-a")}}}},
        {"colour:red 12:30", {.wanted = {.words = {begins("colour:red"), begins("12:30")}}}},
        {"intag:x", {.wanted = {.words = {begins("intag:x")}}}},
        {"a OR b AND (c NEAR d) {e}:f ^g + h",
         {.wanted = {.words = {begins("a"), begins("OR"), begins("b"), begins("AND"), begins("(c"), begins("NEAR"),
                               begins("d)"), begins("{e}:f"), begins("^g"), begins("+"), begins("h")}}}},
        {std::string("a\0b", 3), {.wanted = {.words = {begins("a"), begins("b")}}}},
        {"caf\xe9", {.wanted = {.words = {begins("caf\xe9")}}}},
        {"'; DROP TABLE entry",
         {.wanted = {.words = {begins("';"), begins("DROP"), begins("TABLE"), begins("entry")}}}},
    };
    for (const Row& row : rows) {
        const auto query = parseQuery(row.text);
        ASSERT_TRUE(query) << row.text << ": " << describe(query.error());
        EXPECT_EQ(*query, row.query) << row.text;
    }
}

TEST(SearchQuery, ThatIsWrongIsSaidPlainly) {
    const std::vector<std::pair<std::string, std::string>> rows = {
        {"a \"b c", "the quotation mark before \"b c\" is not closed"},
        {"\"", "the quotation mark before \"\" is not closed"},
        {"tag:\"x", "the quotation mark before \"x\" is not closed"},
        {"a - b", "\"-\" needs what it excludes right after it, such as -draft"},
        {"tag:", "\"tag:\" needs a value right after it, such as tag:urgent"},
        {"-type: pdf", "\"type:\" needs a value right after it, such as type:pdf"},
        {"in:\"\"", "\"in:\" needs a value right after it, such as in:Notes"},
        {"\" \"", "there is nothing between the quotation marks"},
        {std::string(kMostQueryBytes + 1, 'a'), "it is longer than 4096 bytes"},
        {std::string(1 << 20, '"'), "it is longer than 4096 bytes"},
    };
    for (const auto& [text, message] : rows) {
        const auto query = parseQuery(text);
        ASSERT_FALSE(query) << text;
        EXPECT_TRUE(query.error().is(ErrorDomain::posix, EINVAL));
        EXPECT_EQ(query.error().userInfo.at(kErrorMessage), message);
    }
}

TEST(SearchQuery, HasItsLimits) {
    EXPECT_TRUE(parseQuery(std::string(kMostQueryBytes, 'a')));
    std::string words;
    for (std::size_t i = 0; i < kMostTerms; ++i) words += "w ";
    EXPECT_TRUE(parseQuery(words));
    const auto tooMany = parseQuery(words + "w");
    ASSERT_FALSE(tooMany);
    EXPECT_EQ(tooMany.error().userInfo.at(kErrorMessage), "it has more than 64 words and filters");
}

}  // namespace
}  // namespace tarnwell::search
