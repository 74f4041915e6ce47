#pragma once

#include <string_view>

namespace tarnwell::files {

/// True when `aside` is a name that programs give to the old version of a file called `original` when they save it:
/// "a~", "a.~3~", "a.bak", "#a#" and their like.
bool isBackupName(std::string_view original, std::string_view aside);

}  // namespace tarnwell::files
