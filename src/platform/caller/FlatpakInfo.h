#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "platform/base/Result.h"

namespace tarnwell::caller {

inline constexpr std::size_t kMaxFlatpakInfo = 64 * 1024;

/// True for the ID of a Flatpak: at least three parts between dots, 255 bytes at most, each part of letters, digits and
/// "_" and not beginning with a digit; the last one may also hold "-".
bool isFlatpakID(std::string_view text);

/// The ID of the application in a sandbox, from the file that Flatpak puts into its root. EBADMSG with a message for
/// what is damaged, names no application, or is of a runtime that runs without one.
Result<std::string> applicationOfFlatpakInfo(std::string_view content);

}  // namespace tarnwell::caller
