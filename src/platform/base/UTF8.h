#pragma once

#include <cstddef>
#include <string_view>

namespace tarnwell {

/// The number of bytes (1 to 4) of the character that the text begins with; 0 when it is empty or begins with bytes
/// that are no UTF-8 (cut, overlong, a surrogate, past U+10FFFF).
std::size_t utf8CharacterLength(std::string_view text);

/// True when the whole text is UTF-8; the empty text is.
bool isUTF8(std::string_view text);

}  // namespace tarnwell
