#include "platform/filesystem/Roots.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <mutex>

#include "platform/base/SystemCall.h"
#include "platform/filesystem/Beneath.h"

namespace tarnwell {
namespace {

constexpr std::string_view kDocuments = "Documents";
constexpr std::string_view kDocumentsBelow = "/Documents";
constexpr std::string_view kMadeUp = "/.tarnwell/";

/// The length of the path up to and with its first component "Documents"; npos if it has none.
std::size_t endOfDocuments(std::string_view path) {
    for (std::size_t at = path.find(kDocumentsBelow); at != std::string_view::npos;
         at = path.find(kDocumentsBelow, at + 1)) {
        const std::size_t end = at + kDocumentsBelow.size();
        if (end == path.size() || path[end] == '/') return end;
    }
    return std::string_view::npos;
}

std::string nameForRealPath(std::string_view realPath) {
    if (endOfDocuments(realPath) == realPath.size()) return std::string(realPath);
    std::string name(kMadeUp);
    for (const char c : realPath) {
        if (c == '/') {
            name += "%2F";
        } else if (c == '%') {
            name += "%25";
        } else {
            name += c;
        }
    }
    name += kDocumentsBelow;
    return name;
}

std::string_view parentOf(std::string_view path) {
    const std::size_t slash = path.rfind('/');
    return path.substr(0, slash == 0 ? 1 : slash);
}

std::string joined(std::string_view folder, std::string_view below) {
    std::string result(folder);
    if (!below.empty()) {
        if (result.back() != '/') result += '/';
        result += below;
    }
    return result;
}

/// True when the path below a root holds plain names only.
bool hasPlainComponents(std::string_view relative) {
    if (relative.find('\0') != std::string_view::npos) return false;
    for (std::size_t begin = 0;;) {
        const std::size_t slash = relative.find('/', begin);
        const std::string_view component = relative.substr(begin, slash - begin);
        if (component.empty() || component == "." || component == "..") return false;
        if (slash == std::string_view::npos) return true;
        begin = slash + 1;
    }
}

bool hasParentComponent(std::string_view path) {
    for (std::size_t at = path.find("/.."); at != std::string_view::npos; at = path.find("/..", at + 1)) {
        if (at + 3 == path.size() || path[at + 3] == '/') return true;
    }
    return false;
}

Result<Descriptor> openFolder(int parent, const char* path, std::uint64_t resolve) {
    open_how how{};
    how.flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
    how.resolve = resolve;
    const long fd = untilNotInterrupted([&] { return ::syscall(SYS_openat2, parent, path, &how, sizeof how); });
    if (fd < 0) return failedCall();
    return Descriptor(static_cast<int>(fd));
}

struct ResolvedFolder {
    std::string path;
    Descriptor directory;
};

/// Follows links now, and opens what they lead to by a path that holds none any more.
Result<ResolvedFolder> resolveFolder(const std::string& path) {
    if (!path.starts_with('/') || path.find('\0') != std::string::npos) {
        return failure(posixError(EINVAL, "a root needs an absolute path: " + path));
    }
    const std::unique_ptr<char, void (*)(void*)> resolved(::realpath(path.c_str(), nullptr), &std::free);
    if (!resolved) return failedCall();
    std::string realPath(resolved.get());
    if (realPath == kMadeUp.substr(0, kMadeUp.size() - 1) || realPath.starts_with(kMadeUp)) {
        return failure(posixError(EINVAL, "nothing in /.tarnwell can be monitored: " + realPath));
    }
    auto directory = openFolder(AT_FDCWD, realPath.c_str(), RESOLVE_NO_SYMLINKS);
    if (!directory) return failure(directory.error());
    return ResolvedFolder{std::move(realPath), std::move(*directory)};
}

}  // namespace

Roots::RootPtr Roots::named(std::string_view name) const {
    const auto found = byName_.find(name);
    return found != byName_.end() ? found->second : nullptr;
}

Roots::RootPtr Roots::find(std::string_view name) const {
    const std::shared_lock lock(mutex_);
    return named(name);
}

Result<std::shared_ptr<const Root>> Roots::addStorage(const std::string& realPath) {
    auto resolved = resolveFolder(realPath);
    if (!resolved) return failure(resolved.error());
    std::string name = nameForRealPath(resolved->path);
    const std::string territory = resolved->path;
    return insert(Root{Root::Kind::storage, std::move(name), std::move(resolved->path), std::move(resolved->directory)},
                  territory);
}

Result<URL> Roots::addContainer(const std::string& realContainer) {
    return addLibrary(realContainer, realContainer, false);
}

Result<URL> Roots::addVersionedContainer(const std::string& link) {
    const std::size_t slash = link.rfind('/');
    if (slash == std::string::npos || slash == 0) return addContainer(link);
    const auto above = resolveFolder(link.substr(0, slash));
    if (!above) return failure(above.error());
    return addLibrary(link, joined(above->path, link.substr(slash + 1)), true);
}

/// The root of the path's container, if the folder that stands there is the one that is held open: by few system calls,
/// since every look at the applications asks for all of them. A container that a link stands for now moved, and is to
/// be named by its new place.
Roots::RootPtr Roots::knownLibrary(const std::string& container) const {
    if (!container.starts_with('/') || container.find('\0') != std::string::npos) return nullptr;
    const std::string documents = joined(container, kDocuments);
    RootPtr known = find(nameForRealPath(documents));
    if (!known || known->kind != Root::Kind::library) return nullptr;
    const auto statusOf = [](const std::string& path) {
        struct stat status{};
        const bool isThere = untilNotInterrupted([&] { return ::lstat(path.c_str(), &status); }) == 0;
        return isThere ? std::optional(status) : std::nullopt;
    };
    const auto status = statusOf(documents);
    if (!status || status->st_dev != known->device || status->st_ino != known->inode) return nullptr;
    if (known->isVersion) return known;
    const auto above = statusOf(container);
    return above && S_ISDIR(above->st_mode) ? known : nullptr;
}

/// `namedContainer` is what the name is made of where that is not the resolved path.
Result<URL> Roots::addLibrary(const std::string& container, const std::string& namedContainer, bool isVersion) {
    if (auto known = knownLibrary(container)) return URL::file(parentOf(known->name));
    auto resolved = resolveFolder(container);
    if (!resolved) return failure(resolved.error());
    std::string realPath = joined(resolved->path, kDocuments);
    std::string name = nameForRealPath(isVersion ? joined(namedContainer, kDocuments) : realPath);
    const RootPtr known = find(name);
    const bool isKnown = known && known->kind == Root::Kind::library;
    const bool isThere = isKnown && known->realPath == realPath;
    // The name is that of a link, at whose place another container stands now.
    if (isKnown && !isThere && !isVersion) return URL::file(parentOf(name));

    auto documents = openFolder(resolved->directory.get(), kDocuments.data(), RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS);
    if (!documents) {
        if (isThere) return URL::file(parentOf(name));
        if (!documents.error().is(ErrorDomain::posix, ELOOP)) return failure(documents.error());
        return failure(posixError(ENOTDIR, "a link stands where a folder is needed: " + realPath));
    }
    Root root{Root::Kind::library, std::move(name), std::move(realPath), std::move(*documents)};
    root.isVersion = isVersion;
    const auto added = insert(std::move(root), resolved->path);
    if (!added) return failure(added.error());
    return URL::file(parentOf((*added)->name));
}

namespace {

bool isSameFolder(const Root& a, const Root& b) { return a.device == b.device && a.inode == b.inode; }

/// True when the path leads to the folder that is held open, by no link.
bool standsAtItsPath(const Root& root) {
    const auto there = openFolder(AT_FDCWD, root.realPath.c_str(), RESOLVE_NO_SYMLINKS);
    const auto status = there ? filesystem::statusOf(there->get()) : failure(there.error());
    return status && status->device == root.device && status->inode == root.inode;
}

/// True for two folders of one library, of which the first was found earlier.
bool givesWay(const Root& former, const Root& next) {
    if (former.kind != Root::Kind::library || next.kind != former.kind || former.name != next.name) return false;
    return former.realPath == next.realPath || (former.isVersion && next.isVersion);
}

/// EXDEV where one of two territories lies in the other.
Result<void> apart(std::string_view mine, std::string_view theirs) {
    if (relationship(theirs, mine) != Relationship::other) {
        return failure(posixError(
            EXDEV, std::string(mine) + " lies in " + std::string(theirs) + ", which belongs to another root"));
    }
    if (relationship(mine, theirs) != Relationship::other) {
        return failure(posixError(
            EXDEV, std::string(mine) + " contains " + std::string(theirs) + ", which belongs to another root"));
    }
    return {};
}

}  // namespace

/// `territory` is all that belongs to the new root: the storage root itself, a library's whole container. `moved` is
/// the root that its folder was until now, if any.
Result<void> Roots::compatible(const Root& root, const std::string& territory, const RootPtr& moved) const {
    const Root* storage =
        roots_.empty() || roots_.front()->kind != Root::Kind::storage ? nullptr : roots_.front().get();
    if (root.kind == Root::Kind::storage) {
        if (storage != nullptr) {
            return failure(posixError(EEXIST, "there is a storage root already: " + storage->realPath));
        }
        for (const auto& library : roots_) {
            if (auto fits = apart(territory, parentOf(library->realPath)); !fits) return fits;
        }
    } else if (storage != nullptr) {
        if (auto fits = apart(territory, storage->realPath); !fits) return fits;
    }
    const std::string_view path = root.realPath;
    for (std::size_t end = path.rfind('/'); end != 0 && end != std::string_view::npos; end = path.rfind('/', end - 1)) {
        const auto above = byRealPath_.find(path.substr(0, end));
        if (above == byRealPath_.end() || givesWay(*above->second, root)) continue;
        if (auto fits = apart(path, above->first); !fits) return fits;
    }
    const std::string inside = path == "/" ? "/" : root.realPath + "/";
    for (auto below = byRealPath_.lower_bound(inside); below != byRealPath_.end() && below->first.starts_with(inside);
         ++below) {
        if (givesWay(*below->second, root)) continue;
        if (auto fits = apart(path, below->first); !fits) return fits;
    }
    // The same folder under another path, by another mount of it.
    const auto same = byFolder_.find({root.device, root.inode});
    if (same != byFolder_.end() && same->second != moved && !givesWay(*same->second, root)) {
        return failure(posixError(EXDEV, root.realPath + " is the same folder as " + same->second->realPath));
    }
    return {};
}

/// The library that the folder was, if it was moved from there.
Roots::RootPtr Roots::movedFrom(const Root& root) const {
    RootPtr same;
    {
        const std::shared_lock lock(mutex_);
        const auto found = byFolder_.find({root.device, root.inode});
        if (found != byFolder_.end()) same = found->second;
    }
    if (!same || same->name == root.name || same->kind != Root::Kind::library || same->isVersion) return nullptr;
    return standsAtItsPath(*same) ? nullptr : same;
}

void Roots::remove(const RootPtr& root) {
    if (const auto own = byName_.find(root->name); own != byName_.end() && own->second == root) byName_.erase(own);
    byRealPath_.erase(root->realPath);
    byFolder_.erase({root->device, root->inode});
    descriptors_.erase(root->directory.get());
}

Result<std::shared_ptr<const Root>> Roots::insert(Root root, const std::string& territory) {
    const auto status = filesystem::statusOf(root.directory.get());
    if (!status) return failure(status.error());
    root.device = status->device;
    root.inode = status->inode;
    root.birth = status->birth;
    const RootPtr moved = root.kind == Root::Kind::library && !root.isVersion ? movedFrom(root) : nullptr;

    const std::lock_guard lock(mutex_);
    // A folder that is held open keeps its numbers, also when it is removed.
    if (const auto known = byRealPath_.find(root.realPath);
        known != byRealPath_.end() && known->second->kind == root.kind &&
        (isSameFolder(*known->second, root) || !givesWay(*known->second, root))) {
        return known->second;
    }
    if (auto fits = compatible(root, territory, moved); !fits) return failure(fits.error());
    if (const auto held = std::ranges::find(roots_, moved); moved && held != roots_.end()) {
        remove(moved);
        roots_.erase(held);
    }
    RootPtr former = named(root.name);
    if (former && !givesWay(*former, root)) former = nullptr;
    root.number = generation_.load(std::memory_order_relaxed) + 1;
    const auto added = std::make_shared<const Root>(std::move(root));
    if (former) {
        remove(former);
        std::ranges::replace(roots_, former, added);
        if (!added->isVersion) formers_.push_back(std::move(former));
    } else {
        roots_.insert(added->kind == Root::Kind::storage ? roots_.begin() : roots_.end(), added);
    }
    byName_.emplace(added->name, added);
    byRealPath_.emplace(added->realPath, added);
    byFolder_.emplace(FolderKey{added->device, added->inode}, added);
    descriptors_.insert(added->directory.get());
    generation_.fetch_add(1, std::memory_order_release);
    return added;
}

std::vector<std::shared_ptr<const Root>> Roots::formersOf(std::string_view name) const {
    std::vector<RootPtr> formers;
    const std::shared_lock lock(mutex_);
    std::ranges::copy_if(formers_, std::back_inserter(formers),
                         [&](const RootPtr& root) { return root->name == name; });
    return formers;
}

void Roots::letGo(const std::shared_ptr<const Root>& former) {
    const std::lock_guard lock(mutex_);
    std::erase(formers_, former);
}

std::shared_ptr<const Root> Roots::storage() const {
    const std::shared_lock lock(mutex_);
    if (roots_.empty() || roots_.front()->kind != Root::Kind::storage) return nullptr;
    return roots_.front();
}

std::vector<std::shared_ptr<const Root>> Roots::all() const {
    const std::shared_lock lock(mutex_);
    return roots_;
}

bool Roots::isRoot(int descriptor) const {
    const std::shared_lock lock(mutex_);
    return descriptors_.contains(descriptor);
}

std::optional<Place> Roots::locate(std::string_view path) const {
    const std::size_t end = endOfDocuments(path);
    if (end == std::string_view::npos) return std::nullopt;
    RootPtr root = find(path.substr(0, end));
    if (!root) return std::nullopt;
    if (end == path.size()) return Place{std::move(root), {}};
    const std::string_view relative = path.substr(end + 1);
    if (!hasPlainComponents(relative)) return std::nullopt;
    return Place{std::move(root), std::string(relative)};
}

std::string Roots::realPath(std::string_view path) const {
    // A name that was not made up is the real path already.
    if (!path.starts_with(kMadeUp)) return std::string(path);
    const std::size_t slash = std::min(path.find('/', kMadeUp.size()), path.size());
    std::string_view below = path.substr(std::min(slash + 1, path.size()));
    const std::string container(path.substr(0, slash));
    const RootPtr root = find(container + std::string(kDocumentsBelow));
    if (!root || hasParentComponent(path)) return std::string(path);
    if (below != kDocuments && !below.starts_with("Documents/")) return joined(parentOf(root->realPath), below);
    below.remove_prefix(std::min(kDocuments.size() + 1, below.size()));
    return joined(root->realPath, below);
}

URL Roots::urlForRealPath(std::string_view realPath) const {
    URL url = URL::file(realPath);
    const std::string_view path = url.path();
    if (hasParentComponent(path)) return url;
    const std::shared_lock lock(mutex_);
    if (const auto own = byRealPath_.find(joined(path, kDocuments));
        own != byRealPath_.end() && own->second->kind == Root::Kind::library) {
        return URL::file(parentOf(own->second->name));
    }
    for (std::size_t end = path.size(); end != std::string_view::npos;
         end = end == 0 ? end - 1 : path.rfind('/', end - 1)) {
        const auto found = byRealPath_.find(end == 0 ? path.substr(0, 1) : path.substr(0, end));
        if (found == byRealPath_.end()) continue;
        const Root& root = *found->second;
        if (root.name == root.realPath) return url;
        const std::string_view below = path.substr(std::min(path.size(), root.realPath == "/" ? 1 : end + 1));
        return URL::file(joined(root.name, below));
    }
    return url;
}

}  // namespace tarnwell
