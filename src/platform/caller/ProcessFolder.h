#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <utility>

#include "platform/base/Descriptor.h"
#include "platform/base/Result.h"

namespace tarnwell::caller {

/// Which object of the kernel a path leads to: a namespace, a folder.
struct ObjectNumber {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    friend bool operator==(const ObjectNumber&, const ObjectNumber&) = default;
};

/// An object that is only named, not opened: nothing was asked of its file system.
class ObjectHandle {
public:
    /// What `name` leads to below an open folder; with `follow`, where a link leads.
    enum class Links { follow, refuse };
    static Result<ObjectHandle> open(int folder, const char* name, Links links);

    int descriptor() const { return descriptor_.get(); }
    ObjectNumber number() const { return number_; }
    std::uint64_t mount() const { return mount_; }  ///< the number that mountinfo gives it

private:
    ObjectHandle(Descriptor descriptor, ObjectNumber number, std::uint64_t mount)
        : descriptor_(std::move(descriptor)), number_(number), mount_(mount) {}
    Descriptor descriptor_;
    ObjectNumber number_;
    std::uint64_t mount_ = 0;
};

/// A process's folder in procfs, opened once: what is read later is read of that same process, or fails.
class ProcessFolder {
public:
    static Result<ProcessFolder> open(const std::string& path);

    /// The text of a file in it; EFBIG past `limit` bytes.
    Result<std::string> read(const char* name, std::size_t limit) const;
    /// Which namespace of a kind ("user", "mnt") the process is in.
    Result<ObjectNumber> namespaceNumber(const std::string& kind) const;
    /// What the process sees as "/".
    Result<ObjectHandle> root() const;

private:
    explicit ProcessFolder(Descriptor folder) : folder_(std::move(folder)) {}
    Descriptor folder_;
};

/// The text of a regular file that a handle names; EINVAL for anything else, which is not opened; EFBIG past `limit`
/// bytes. Waits for its file system.
Result<std::string> readRegularFile(const ObjectHandle& file, std::size_t limit);

}  // namespace tarnwell::caller
