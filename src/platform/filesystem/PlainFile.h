#pragma once

#include <sys/types.h>

#include <string>
#include <utility>

#include "platform/base/Descriptor.h"
#include "platform/base/Ids.h"
#include "platform/base/Result.h"

/// Files of the program's own (caches, settings), outside the roots, by real path.
namespace tarnwell::filesystem {

/// The whole file; EFBIG past `limit` bytes, EINVAL for anything but a regular file.
Result<Bytes> readFile(const std::string& path, std::size_t limit);
/// Whether what was written is there after a power cut, or may be neither old nor new then.
enum class Durability { synchronized, none };

/// A new file that is to take another's place once it is complete. Goes with this object, unless it was kept.
class PendingFile {
public:
    /// Makes it under a name of its own that begins like `path`, with that mode (less the umask's bits).
    static Result<PendingFile> create(const std::string& path, mode_t mode);
    PendingFile(PendingFile&& other) noexcept
        : path_(std::exchange(other.path_, {})), descriptor_(std::move(other.descriptor_)) {}
    PendingFile& operator=(PendingFile&&) = delete;
    ~PendingFile();

    Result<void> write(ByteView bytes, Durability durability);
    const std::string& path() const { return path_; }
    /// It has another name now.
    void keep() { path_.clear(); }

private:
    PendingFile(std::string path, Descriptor descriptor) : path_(std::move(path)), descriptor_(std::move(descriptor)) {}
    std::string path_;
    Descriptor descriptor_;
};

/// Writes a temporary file (mode 0600) beside it, synchronizes it and renames it over `path`, so that a reader sees the
/// old bytes or the new; on failure the old file stands and no temporary is left. Only where the folder cannot be
/// synchronized at the very end, the new file stands already. A link at `path` is replaced, not followed.
/// Without durability nothing is synchronized: for what can be checked and made again.
Result<void> writeFileAtomically(const std::string& path, ByteView bytes,
                                 Durability durability = Durability::synchronized);
/// Creates the folder and those above it, mode 0700; one that stands already is fine.
Result<void> createDirectories(const std::string& path);

}  // namespace tarnwell::filesystem
