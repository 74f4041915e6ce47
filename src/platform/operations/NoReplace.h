#pragma once

#include <string>

#include "platform/base/Result.h"

namespace tarnwell::operations {

/// Gives an entry of one folder another place, never over anything: EEXIST where something has the name. Where the file
/// system has no such rename, a file gets its second name before it loses its first, and where files have no second
/// names it takes the place of an empty one made for it, as a folder does. `isFolder` is what it was found to be.
Result<void> renameWithoutReplacing(int folder, const std::string& name, int newFolder, const std::string& newName,
                                    bool isFolder);

}  // namespace tarnwell::operations
