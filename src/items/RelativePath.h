#pragma once

#include <optional>
#include <string>

#include "platform/url/URL.h"

namespace tarnwell::items {

/// The item's path from the folder that holds it, near or far: "Folder/Sub/file.txt". Nothing for the folder itself and
/// for what is not below it.
std::optional<std::string> relativePath(const URL& item, const URL& folder);

}  // namespace tarnwell::items
