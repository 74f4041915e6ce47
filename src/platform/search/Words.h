#pragma once

#include <string>
#include <string_view>
#include <vector>

/// Names, tags and what people look for, as text that the tokenizer of FTS5 cuts into words. Both sides go through the
/// same functions, so that what is written alike is found.
namespace tarnwell::search {

/// The bytes as UTF-8 without control characters. What the tokenizer would not cut is cut here: each Chinese, Japanese
/// or Korean character is a word, as is each symbol (by its number, since symbols are no letters). A byte that belongs
/// to no character, and every other mark, stands between words.
std::string wordsOf(std::string_view bytes);

/// The same, cut further where a person sees a new word begin: "AnnualReport2024" is "Annual Report 2024", "PDFReader"
/// is "PDF Reader". Of bytes that are no UTF-8, also as they read in Latin-1. Empty where it is no other text than
/// `wordsOf`.
std::string partsOf(std::string_view bytes);

/// Labels as one text in which each begins and ends with a word of its own that nobody can write.
std::string wordsOfLabels(const std::vector<std::string>& labels);
inline constexpr std::string_view kLabelBegin = "\uE000";
inline constexpr std::string_view kLabelEnd = "\uE001";

/// What follows the last dot, ASCII letters lowered; empty for a name without one, and for one that begins with its
/// only dot.
std::string extensionOf(std::string_view name);

/// ASCII letters lowered.
std::string lowered(std::string_view text);

}  // namespace tarnwell::search
