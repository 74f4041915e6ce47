#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/registry/ParsedFileCache.h"

namespace tarnwell::registry {

inline constexpr std::size_t kMaxFolderEntries = 20'000;

struct FolderEntry {
    std::string name;
    bool isFolder = false;  ///< false for a link to one: links could lead round in circles
};

/// The entries of one folder at one time, by name; hidden ones are left out.
class FolderListing {
public:
    FolderListing() = default;
    explicit FolderListing(std::vector<FolderEntry> entries);
    auto begin() const { return entries_.begin(); }
    auto end() const { return entries_.end(); }
    /// Null where there is none of that name.
    const FolderEntry* find(std::string_view name) const;
    /// Those whose names begin so.
    std::vector<FolderEntry>::const_iterator firstWith(std::string_view beginning) const;

private:
    std::vector<FolderEntry> entries_;
};

/// Folders' entries, read again when a folder changed: of thousands of applications each is looked up by itself. Any
/// thread may call it.
class FolderListings {
public:
    /// At most kMaxFolderEntries; none where there is no such folder. Links on the way are followed.
    std::shared_ptr<const FolderListing> of(const std::string& folder);

private:
    static constexpr std::size_t kMostKept = 1024;
    struct Entry {
        FileStamp stamp;
        std::shared_ptr<const FolderListing> listing;
    };
    std::mutex mutex_;
    std::unordered_map<std::string, Entry> entries_;
};

}  // namespace tarnwell::registry
