#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/base/DateText.h"
#include "platform/base/Ids.h"

/// Texts as people and clients see them.
namespace tarnwell::cli {

bool isUtf8(std::string_view bytes);

/// The bytes as UTF-8: each byte that belongs to no valid character becomes U+FFFD.
std::string toUtf8(std::string_view bytes);

/// The same for one line on a terminal: control characters, line and paragraph separators and marks that turn the
/// writing direction are escaped ("\n", "\x1b", "\u202e"), so that a name can neither break the line nor drive the
/// terminal.
std::string toDisplay(std::string_view bytes);

/// Columns that a text from `toDisplay` takes on a terminal: wide characters two, combining ones none.
std::size_t displayWidth(std::string_view text);

/// Standard base64 with padding.
std::string base64(ByteView bytes);
/// Nothing for a text that `base64` gives for no bytes. White space at the ends does not count.
std::optional<Bytes> bytesOfBase64(std::string_view text);

/// "2024-05-01 14:00" in the session's time zone.
std::string localTime(Date date);
/// "917 B", "1.2 KiB", "34 MiB".
std::string humanSize(std::uint64_t bytes);
/// "1,234,567".
std::string grouped(std::uint64_t number);

}  // namespace tarnwell::cli
