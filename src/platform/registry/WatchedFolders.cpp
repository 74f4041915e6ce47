#include "platform/registry/WatchedFolders.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>

namespace tarnwell::registry {
namespace {

/// As many as the kernel follows (path_resolution(7)).
constexpr int kMostLinks = 40;

std::string joined(const std::string& folder, std::string_view name) {
    return (folder == "/" ? folder : folder + "/") + std::string(name);
}

std::string parentOf(const std::string& realPath) {
    const std::size_t slash = realPath.rfind('/');
    return slash == 0 || slash == std::string::npos ? "/" : realPath.substr(0, slash);
}

/// What the link holds; nothing for anything else.
std::optional<std::string> targetOf(const std::string& link) {
    std::array<char, PATH_MAX> target{};
    const ssize_t length = readlink(link.c_str(), target.data(), target.size());
    if (length <= 0 || static_cast<std::size_t>(length) == target.size()) return std::nullopt;
    return std::string(target.data(), static_cast<std::size_t>(length));
}

bool exists(const std::string& path) {
    struct stat status{};
    return lstat(path.c_str(), &status) == 0;
}

bool isFolder(const std::string& path) {
    struct stat status{};
    return lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

}  // namespace

void WatchedFolders::add(const std::string& path) {
    const auto real = follow(path, kMostLinks);
    if (!real || isFolder(*real)) return;
    if (Names* names = namesIn(parentOf(*real))) names->contents = true;
}

void WatchedFolders::addContents(const std::string& folder) {
    const auto real = follow(folder, kMostLinks);
    if (!real || !isFolder(*real)) return;
    if (Names* names = namesIn(*real)) names->all = names->contents = true;
}

WatchedFolders::Names* WatchedFolders::namesIn(const std::string& folder) {
    const auto known = folders_.find(folder);
    if (known != folders_.end()) return &known->second;
    isComplete_ = isComplete_ && folders_.size() < kMostFolders;
    return isComplete_ ? &folders_[folder] : nullptr;
}

std::optional<std::string> WatchedFolders::follow(const std::string& path, int linksLeft) {
    if (!path.starts_with('/') || path.size() >= PATH_MAX) return std::nullopt;
    std::string real = "/";
    for (std::size_t at = 1; at < path.size();) {
        const std::size_t end = std::min(path.find('/', at), path.size());
        const std::string name = path.substr(at, end - at);
        at = end + 1;
        if (name.empty() || name == ".") continue;
        if (name == "..") {
            real = parentOf(real);
            continue;
        }
        const auto& entry = entryOf(real, name, linksLeft);
        if (!entry) return std::nullopt;
        real = *entry;
    }
    return real;
}

const std::optional<std::string>& WatchedFolders::entryOf(const std::string& folder, const std::string& name,
                                                          int linksLeft) {
    const std::string path = joined(folder, name);
    if (const auto known = followed_.find(path); known != followed_.end()) return known->second;
    // A link that leads back to itself leads nowhere.
    followed_.emplace(path, std::nullopt);
    if (Names* names = namesIn(folder)) names->names.insert(name);
    std::optional<std::string> real;
    if (const auto target = targetOf(path)) {
        if (linksLeft > 0) {
            real = follow(target->starts_with('/') ? *target : joined(folder, *target), linksLeft - 1);
        }
    } else if (exists(path)) {
        real = path;
    }
    return followed_.insert_or_assign(path, std::move(real)).first->second;
}

}  // namespace tarnwell::registry
