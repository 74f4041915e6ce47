#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "platform/base/Result.h"

namespace tarnwell::watch {

/// The kernel's own name of an object on its file system, as bytes to compare: it stays when the object is renamed, and
/// another object never gets it, not even one with the same inode number.
class FileHandle {
public:
    /// Of an open object (O_PATH suffices). Fails with EOPNOTSUPP on a file system that has no lasting handles.
    static Result<FileHandle> of(int descriptor);
    /// Puts the form of `bytes()` together: the type, then the handle's own bytes.
    static std::string bytesOf(int type, std::string_view own);

    const std::string& bytes() const { return bytes_; }

private:
    explicit FileHandle(std::string bytes) : bytes_(std::move(bytes)) {}
    std::string bytes_;
};

}  // namespace tarnwell::watch
