#pragma once

#include <functional>
#include <string>

#include "platform/base/Result.h"
#include "platform/operations/OpenFolder.h"

namespace tarnwell::operations {

/// What becomes of a name that is taken.
enum class Taken { refused, freeName };

/// Calls `put` with the name, then with free names like it, for as long as it fails with EEXIST and free names are
/// allowed. Returns the name that it was put under; EEXIST becomes the collision with what has the name.
Result<std::string> putUnderName(const OpenFolder& folder, const std::string& name, Taken taken,
                                 const std::function<Result<void>(const std::string&)>& put);

}  // namespace tarnwell::operations
