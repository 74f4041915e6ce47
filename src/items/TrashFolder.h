#pragma once

#include <string_view>

namespace tarnwell::items {

/// The folder that takes what is trashed, directly inside a folder "Documents".
inline constexpr std::string_view kTrashFolderName = ".Trash";

/// True for the path of a trash folder and of a folder anywhere below one: it has a component ".Trash" right after a
/// component "Documents". An item is trashed when that is so of the folder that holds it.
bool liesInTrash(std::string_view folderPath);

}  // namespace tarnwell::items
