#include "platform/registry/FolderListings.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>

namespace tarnwell::registry {
namespace {

bool isFolder(const std::string& path, unsigned char type) {
    if (type != DT_UNKNOWN) return type == DT_DIR;
    struct stat status{};
    return lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

FolderListing read(const std::string& folder, DIR* open) {
    std::vector<FolderEntry> entries;
    while (const dirent* entry = readdir(open)) {
        if (entry->d_name[0] == '.') continue;
        if (entries.size() == kMaxFolderEntries) break;
        entries.push_back({entry->d_name, isFolder(folder + "/" + entry->d_name, entry->d_type)});
    }
    return FolderListing(std::move(entries));
}

}  // namespace

FolderListing::FolderListing(std::vector<FolderEntry> entries) : entries_(std::move(entries)) {
    std::ranges::sort(entries_, {}, &FolderEntry::name);
}

std::vector<FolderEntry>::const_iterator FolderListing::firstWith(std::string_view beginning) const {
    return std::ranges::lower_bound(entries_, beginning, {}, &FolderEntry::name);
}

const FolderEntry* FolderListing::find(std::string_view name) const {
    const auto found = firstWith(name);
    return found != entries_.end() && found->name == name ? &*found : nullptr;
}

std::shared_ptr<const FolderListing> FolderListings::of(const std::string& folder) {
    const auto stamp = stampOfFolder(folder);
    {
        const std::lock_guard lock(mutex_);
        const auto known = entries_.find(folder);
        if (known != entries_.end()) {
            if (stamp && known->second.stamp == *stamp) return known->second.listing;
            entries_.erase(known);
        }
    }
    const std::unique_ptr<DIR, int (*)(DIR*)> open(stamp ? opendir(folder.c_str()) : nullptr, closedir);
    if (!open) return std::make_shared<const FolderListing>();
    const bool settled = isSettledFolder(*stamp, dirfd(open.get()));
    auto listing = std::make_shared<const FolderListing>(read(folder, open.get()));
    // It may have changed while it was read, or another one may have come to stand there.
    const auto after = stampOfFolder(folder);
    if (settled && after && *after == *stamp) {
        const std::lock_guard lock(mutex_);
        if (entries_.size() >= kMostKept) entries_.clear();
        entries_.insert_or_assign(folder, Entry{*stamp, listing});
    }
    return listing;
}

}  // namespace tarnwell::registry
