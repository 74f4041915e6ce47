#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tarnwell::registry {

inline constexpr std::size_t kMaxIdentifierBytes = 255;

/// True for an identifier that can name a library and a folder: UTF-8 of 1 to 255 bytes without control characters,
/// "/",
/// "=", "..", and neither "." nor "(null)".
bool isUsableIdentifier(std::string_view identifier);

/// True for the name of an installed Snap: lower-case letters, digits and hyphens, then perhaps "_" and an instance
/// key.
bool isSnapInstanceName(std::string_view name);

/// Snaps are named "snap.<instance name>". A Flatpak ID has at least two dots and a Snap's name none, so the two never
/// meet; other desktop entries of that form are refused.
std::string snapIdentifier(std::string_view instanceName);
/// The instance name of such an identifier; nothing for any other.
std::optional<std::string> snapInstanceOf(std::string_view identifier);

}  // namespace tarnwell::registry
