#pragma once

#include <string>

#include "platform/base/Ids.h"
#include "platform/base/Result.h"

/// Files of the program's own (caches, settings), outside the roots, by real path.
namespace tarnwell::filesystem {

/// The whole file; EFBIG past `limit` bytes, EINVAL for anything but a regular file.
Result<Bytes> readFile(const std::string& path, std::size_t limit);
/// Whether what was written is there after a power cut, or may be neither old nor new then.
enum class Durability { synchronized, none };
/// Writes a temporary file (mode 0600) beside it, synchronizes it and renames it over `path`, so that a reader sees the
/// old bytes or the new; on failure the old file stands and no temporary is left. Only where the folder cannot be
/// synchronized at the very end, the new file stands already. A link at `path` is replaced, not followed.
/// Without durability nothing is synchronized: for what can be checked and made again.
Result<void> writeFileAtomically(const std::string& path, ByteView bytes,
                                 Durability durability = Durability::synchronized);
/// Creates the folder and those above it, mode 0700; one that stands already is fine.
Result<void> createDirectories(const std::string& path);

}  // namespace tarnwell::filesystem
