#pragma once

#include <string_view>

namespace tarnwell::filesystem {

/// True for what may be a direct entry of a folder, so that a call with it stays in there.
inline bool isEntryName(std::string_view name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos;
}

}  // namespace tarnwell::filesystem
