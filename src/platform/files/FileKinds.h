#pragma once

#include <cstdint>

#include "platform/url/ResourceCache.h"

namespace tarnwell::files {

/// The kind that the type bits of a mode name.
FileKind kindOf(std::uint32_t mode);

}  // namespace tarnwell::files
