#include <string>

#include "fuzz/Fuzz.h"
#include "platform/search/Finder.h"
#include "platform/search/Words.h"

using namespace tarnwell;

namespace {

/// A table in memory with one entry, so that every query is also run.
search::EntryTable& table() {
    static const auto table = [] {
        auto opened = search::EntryTable::open(":memory:", "fuzz");
        TARNWELL_CHECK(opened.has_value());
        (*opened)->begin();
        search::Entry entry;
        entry.key = "k";
        entry.parent = "top";
        entry.name = "Annual-Report_2024.pdf";
        entry.type = "application/pdf";
        entry.tags = {"red", "in work"};
        (*opened)->put(entry);
        TARNWELL_CHECK((*opened)->commit().has_value());
        return std::move(*opened);
    }();
    return *table;
}

}  // namespace

/// Whatever the text is: a query that the database takes, or an error with a sentence.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(textOf({data, size}));
    (void)search::partsOf(text);
    (void)search::wordsOfLabels({text, text});
    auto query = search::parseQuery(text);
    if (!query) {
        TARNWELL_CHECK(query.error().domain == ErrorDomain::posix && query.error().userInfo.contains(kErrorMessage));
        return 0;
    }
    search::Search search;
    search.query = std::move(*query);
    search.below = search.query.wanted.places;
    search.notBelow = search.query.excluded.places;
    const auto hits = search::find(table(), search);
    TARNWELL_CHECK(hits.has_value() || hits.error().domain == ErrorDomain::posix);
    return 0;
}
