#pragma once

#include <string>
#include <string_view>

namespace tarnwell::hostframework {

/// Names an item between host and provider.
using ItemIdentifier = std::string;

/// The host-defined identifiers; none of them names a file. Their values are their symbolic names.
inline const ItemIdentifier kRootContainer = "RootContainer";
inline const ItemIdentifier kWorkingSetContainer = "WorkingSetContainer";
inline const ItemIdentifier kAllDirectoriesContainer = "AllDirectoriesContainer";
inline const ItemIdentifier kTemporaryLocalFolder = "TemporaryLocalFolder";

}  // namespace tarnwell::hostframework
