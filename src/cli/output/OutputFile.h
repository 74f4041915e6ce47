#pragma once

#include <string>

#include "platform/base/Ids.h"
#include "platform/base/Result.h"

namespace tarnwell::cli {

enum class IfThere { refuse, replace };

/// Writes a file that a person asked for, whole or not at all: what stands there is kept until the new one is complete.
/// EEXIST where something has the name and it is not to be replaced; a link is replaced, not followed, and a folder
/// never. No temporary file is left behind by a failure.
Result<void> writeOutputFile(const std::string& path, ByteView bytes, IfThere ifThere);

}  // namespace tarnwell::cli
