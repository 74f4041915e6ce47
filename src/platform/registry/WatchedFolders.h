#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>

namespace tarnwell::registry {

/// The folders in which something may happen that changes what a set of paths lead to: the folders above each, by their
/// real paths, and those above whatever the links on the way lead to. Of each folder either everything in it counts, or
/// some names. Looks at the disk while it is filled. Not for two threads at once.
class WatchedFolders {
public:
    /// The file or folder at the absolute path counts, also where it does not exist yet: that it comes, goes or leads
    /// elsewhere, and that its bytes or attributes change.
    void add(const std::string& path);
    /// The same, and everything directly in the folder.
    void addContents(const std::string& folder);

    struct Names {
        bool all = false;
        bool contents = false;  ///< files in it may be written to, not only come and go
        std::set<std::string, std::less<>> names;
        bool hold(std::string_view name) const { return all || names.contains(name); }
    };
    const std::map<std::string, Names>& folders() const { return folders_; }
    static constexpr std::size_t kMostFolders = 50'000;
    /// False where some are left out because there are too many.
    bool isComplete() const { return isComplete_; }

private:
    /// The real path of what the path leads to; nothing where there is no such thing.
    std::optional<std::string> follow(const std::string& path, int linksLeft);
    Names* namesIn(const std::string& folder);
    const std::optional<std::string>& entryOf(const std::string& folder, const std::string& name, int linksLeft);

    std::map<std::string, Names> folders_;
    std::unordered_map<std::string, std::optional<std::string>> followed_;  ///< by the path of the entry
    bool isComplete_ = true;
};

}  // namespace tarnwell::registry
