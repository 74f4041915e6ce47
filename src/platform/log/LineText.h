#pragma once

#include <string>
#include <string_view>

namespace tarnwell::log {

/// The text as one line that is safe to show: control characters and bytes that are no UTF-8 become "\n", "\t", "\r" or
/// "\x1b", everything else (a backslash too) stays. File names are in messages, and a name may hold any byte but "/"
/// and 0: none may forge a line or steer a terminal.
std::string asOneLine(std::string_view text);

}  // namespace tarnwell::log
