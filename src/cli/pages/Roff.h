#pragma once

#include <string>
#include <string_view>

/// Texts in the language of manual pages.
namespace tarnwell::cli::pages {

/// The text as it stands, whatever it holds: neither a request at the beginning of a line nor an escape. Quotes and
/// hyphens stay what they are, so that commands can be copied from the page. A line end begins a new line.
std::string roffText(std::string_view text);

/// In bold (what is typed as it stands), and in italics (what stands for something else).
std::string bold(std::string_view text);
std::string italic(std::string_view text);

}  // namespace tarnwell::cli::pages
