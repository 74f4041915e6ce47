#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/base/Result.h"

namespace tarnwell::search {

/// Words that have to stand side by side. The last one may go on where it is a prefix.
struct Phrase {
    enum class End { whole, prefix };
    std::string text;
    End end = End::prefix;
    friend bool operator==(const Phrase&, const Phrase&) = default;
};

/// One side of a query: what has to be there, or what must not.
struct Conditions {
    std::vector<Phrase> words = {};        ///< in the name or a tag
    std::vector<Phrase> tags = {};         ///< a whole tag, or how one begins; "" with a prefix is any tag
    std::vector<std::string> types = {};   ///< see Finder.h; not empty
    std::vector<std::string> places = {};  ///< as the person named them; not empty
    bool empty() const { return words.empty() && tags.empty() && types.empty() && places.empty(); }
    friend bool operator==(const Conditions&, const Conditions&) = default;
};

/// What a person looks for: all of the words and tags, one of the types, one of the places, and nothing of what is
/// excluded.
struct Query {
    Conditions wanted = {}, excluded = {};
    bool empty() const { return wanted.empty() && excluded.empty(); }
    friend bool operator==(const Query&, const Query&) = default;
};

inline constexpr std::size_t kMostQueryBytes = 4096;
inline constexpr std::size_t kMostTerms = 64;

/// Reads what people write:
///
///     report            a word that begins so       "annual report"    these words, as they stand
///     tag:urgent        a tag                       tag:ber*           a tag that begins so; tag:* any tag
///     type:pdf          a type                      in:Notes           below a library or folder
///     -draft            not that; also before "…", tag:, type: and in:
///
/// A value may be quoted. Any bytes are a query or an error of EINVAL with a sentence for people: a quotation mark that
/// is not closed, a colon or a minus without anything after it, more than kMostQueryBytes or kMostTerms. Bytes that are
/// no UTF-8 are looked for as such names are.
Result<Query> parseQuery(std::string_view text);

/// One value of a tag filter as `tag:` has it.
Phrase tagFilter(std::string_view value);

}  // namespace tarnwell::search
