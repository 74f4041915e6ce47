#pragma once

#include <cstdint>
#include <string>

#include "platform/base/Descriptor.h"
#include "platform/base/Result.h"
#include "platform/filesystem/Beneath.h"
#include "platform/operations/TransferMonitor.h"

namespace tarnwell::operations {

/// Copies the content of one open file into an empty one: shares the blocks where the file system can, else copies in
/// the kernel, else by reading and writing. Holes stay holes. The monitor, which may be null, is told and asked at
/// least each 8 MiB. `size` is the source's as it was last looked at; bytes past it make it EBUSY ("is being changed").
Result<void> copyContent(int source, int target, std::uint64_t size, TransferMonitor* monitor);

/// To whom a copy belongs.
enum class CopiedOwner {
    ofCopier,  ///< an import
    ofSource,  ///< a move, where this process may
};

/// Gives the open target the extended attributes ("user." and access lists), the permissions and the times of the open
/// source. Attributes are left out only where the target's file system holds none; any other refusal is an error.
/// To be called last, since writing moves the times.
Result<void> copyMetadata(int source, int target, CopiedOwner owner);

/// Content and metadata of a regular file into an open empty one. EBUSY where the source changed meanwhile, also at a
/// second try.
Result<void> copyFile(int source, int target, CopiedOwner owner, TransferMonitor* monitor);

}  // namespace tarnwell::operations
