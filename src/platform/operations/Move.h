#pragma once

#include <string>

#include "platform/operations/Operations.h"

namespace tarnwell::operations {

/// `moveItem` for an item and a folder that are open already; the name has been checked.
Result<Place> moveOpened(const Context& context, const OpenItem& item, const OpenFolder& folder,
                         const std::string& name, const MoveOptions& options);

}  // namespace tarnwell::operations
