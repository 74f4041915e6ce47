#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/base/Ids.h"

/// UTF-8 and UTF-16 (big-endian), the two encodings that property lists need.
namespace tarnwell::archive {

/// True for text whose bytes are all below 0x80.
bool isAscii(std::string_view text);

/// UTF-8 as UTF-16BE. Every byte that begins no well-formed sequence becomes one U+FFFD.
Bytes utf16FromUtf8(std::string_view text);

/// The size of UTF-16BE as UTF-8; nothing for an odd number of bytes and for a surrogate without its partner.
std::optional<std::size_t> utf8SizeOfUtf16(ByteView bytes);

/// UTF-16BE as UTF-8. Stops the process on bytes that have no size as UTF-8.
std::string utf8FromUtf16(ByteView bytes);

}  // namespace tarnwell::archive
