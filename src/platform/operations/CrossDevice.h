#pragma once

#include <string>

#include "platform/operations/Operations.h"

namespace tarnwell::operations {

/// A move to a folder to which the kernel cannot rename. Errors have no sentences yet where they are the kernel's.
Result<std::string> moveByCopying(const Context& context, const OpenItem& item, const OpenFolder& folder,
                                  const std::string& name, const MoveOptions& options);

}  // namespace tarnwell::operations
