#pragma once

#include <cstddef>
#include <functional>

#include "platform/base/Ids.h"
#include "platform/base/Result.h"

namespace tarnwell::watch {

/// Reads a queue of the kernel (non-blocking) from its beginning until `body`, which gets the bytes of each read, says
/// false, or until it is empty. On success everything that lay before that point was given to `body`.
Result<void> readQueue(int descriptor, const std::function<bool(ByteView)>& body);

/// What the kernel says waits in the queue, in its own measure (FIONREAD).
Result<std::size_t> queuedNow(int descriptor);

}  // namespace tarnwell::watch
