#pragma once

#include "platform/base/Descriptor.h"
#include "platform/base/Ids.h"
#include "platform/base/Result.h"

/// Files in memory that nobody can change any more (memfd_create(2), sealed). A message carries the descriptor, so the
/// bus copies nothing of what they hold, and any number of messages may carry the same. Any thread.
namespace tarnwell::bus {

/// `name` is seen in /proc only.
Result<Descriptor> sealedFile(const char* name, ByteView contents);

/// EPERM for a file that is not sealed, EFBIG for one of more than `most` bytes.
Result<Bytes> contentsOfSealedFile(const Descriptor& file, std::size_t most);

}  // namespace tarnwell::bus
