#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>

namespace tarnwell::testing {

/// Tells one object of a disk from all others, also where inode numbers are used again.
using ObjectKey = std::pair<std::uint64_t, std::int64_t>;  ///< inode number, birth in nanoseconds

/// One name on the disk, as this test reads it with calls of its own.
struct DiskObject {
    ObjectKey key;
    ObjectKey parent;
    std::uint32_t mode = 0;
    std::uint32_t links = 0;
    std::uint64_t size = 0;
    std::int64_t modified = 0;  ///< nanoseconds since 1970
    std::int64_t changed = 0;
    std::uint32_t entries = 0;  ///< folders: names in it, hidden ones too
    /// Clients may be told of it: no hidden component but a ".Trash" at the top, not in an "Inbox" folder at the top,
    /// not in a package.
    bool visible = false;
    bool package = false;

    bool isFolder() const;
    bool isFile() const;
    bool hasSeveralNames() const { return !isFolder() && links > 1; }
};

/// All names below the folder, links not followed, by their path below it.
using Disk = std::map<std::string, DiskObject>;
/// Folders whose names end with the suffix are packages.
Disk readDisk(const std::string& root, const std::optional<std::string>& packageSuffix = std::nullopt);

}  // namespace tarnwell::testing
