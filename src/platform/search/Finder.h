#pragma once

#include <string>
#include <vector>

#include "platform/base/NameOrder.h"
#include "platform/base/Result.h"
#include "platform/search/EntryTable.h"
#include "platform/search/Query.h"

namespace tarnwell::search {

enum class Order { relevance, newestFirst, byName };

struct Search {
    Query query = {};
    /// Folders, by their keys: an entry has to lie below one of the first and below none of the second. The query's own
    /// places are not looked at.
    std::vector<std::string> below = {}, notBelow = {};
    bool withTrashed = false;
    Order order = Order::relevance;
    NameOrder names{"C"};  ///< for Order::byName
};

struct Hit {
    std::string key;
    std::string name;  ///< as the index has it
};

/// All entries that a query describes.
///
/// Words stand in names and tags, accents and case folded; of several matches those come first that have the words
/// whole, in a short name and rarely elsewhere. Equal ones, and those of a query without words, come the newest first.
/// By name, equal names come in that order.
/// A type is "folder", "file" (no folder), a type ("text/plain", "image/*"), one of its halves ("image", "pdf") or what
/// a name ends in ("odt"). EINVAL with a sentence for people where no word of a query has a letter, a digit or a sign.
Result<std::vector<Hit>> find(EntryTable& table, const Search& search);

}  // namespace tarnwell::search
