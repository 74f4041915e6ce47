#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "platform/base/Descriptor.h"
#include "platform/base/Result.h"
#include "platform/url/URL.h"

namespace tarnwell {

/// One monitored folder: the storage root or a library's Documents. Resolved once, then held open; never changes.
struct Root {
    enum class Kind { storage, library };
    Kind kind = Kind::storage;
    /// The path that names the root inside the program: its first component "Documents" is its last.
    std::string name;
    /// Where it really is, links resolved.
    std::string realPath;
    /// O_PATH descriptor of the folder.
    Descriptor directory;
    /// Which folder it is: another one may have had its name before. The device's number counts while it is held open.
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::int64_t birth = 0;
    /// Tells it from every other root of the program, those that are gone too.
    std::uint64_t number = 0;
    /// True where the name is that of a link to versions of a folder: another folder of the name is the next version,
    /// and what lies in it is what lay in the one before.
    bool isVersion = false;
};

/// A place below a root (or the root itself, with an empty relative path).
struct Place {
    std::shared_ptr<const Root> root;
    std::string relative;  ///< no leading slash, no empty, "." or ".." component, no NUL
};

/// All roots of one program, by the name that URLs carry. Any thread may call any operation; all but the adding ones
/// hold each other back for no longer than it takes to look a name up.
///
/// R1: no two roots have the same name or are the same folder, none lies in another, none changes once added, and the
///     storage root stays. A library's folder gives way to another one under its name: to the next version, or to the
///     one that stands at its path now, the former having been removed, moved or covered by a mount. A folder that was
///     moved to the place of another library is that one's from then on, and the root that it was is none any more.
/// R2: a root's name holds the component "Documents" exactly once, at its end. Where the real path is such a path, it
///     is the name; elsewhere the name is "/.tarnwell/<real path with % and / escaped>/Documents". For the real path of
///     a version stands that of the link and what is below it.
/// R3: no real path of a root lies in "/.tarnwell", so that made-up names meet no real ones.
class Roots {
public:
    Roots() = default;
    Roots(const Roots&) = delete;
    Roots& operator=(const Roots&) = delete;

    /// Adds the storage root, a folder that exists (a link to one is followed, now and never again). Adding it again
    /// gives the same root. EEXIST where another storage root stands, EXDEV where it and a library's container lie in
    /// one another, EINVAL for a path that is not absolute or lies in "/.tarnwell".
    Result<std::shared_ptr<const Root>> addStorage(const std::string& realPath);

    /// Adds the library whose data container is at `realContainer` (links followed once), if its "Documents" is a real
    /// folder, not a link. Returns the URL that names the container; appending "Documents" names the root.
    /// Adding a container again gives the same URL, whatever became of its Documents; another folder that stands there
    /// by then is the root from now on. ENOENT where there is no Documents folder, ENOTDIR where it is a link or no
    /// folder, EXDEV where the container lies in the storage root or the other way round, or its Documents and another
    /// library's lie in one another, EINVAL as for `addStorage`.
    Result<URL> addContainer(const std::string& realContainer);
    /// The same for a container whose path ends in a link that leads to another version of it from time to time. The
    /// URL names the link, and the version that it leads to now takes the place of the one before.
    Result<URL> addVersionedContainer(const std::string& link);

    std::shared_ptr<const Root> storage() const;
    /// All roots, the storage first, then in the order of adding.
    std::vector<std::shared_ptr<const Root>> all() const;
    /// The folders that gave way under that name, the last one last, but for versions. They are held open until they
    /// are let go, so that it can be told what became of them.
    std::vector<std::shared_ptr<const Root>> formersOf(std::string_view name) const;
    void letGo(const std::shared_ptr<const Root>& former);
    /// Grows when a root is added or gives way to another.
    std::uint64_t generation() const { return generation_.load(std::memory_order_acquire); }
    /// True for the descriptor that holds a root open.
    bool isRoot(int descriptor) const;

    /// The place that a URL's path names; nothing for a path below no root, with an empty, "." or ".." component below
    /// the root, or with a NUL.
    std::optional<Place> locate(std::string_view path) const;

    /// The real path for people and clients: of a place below a root or a library's container its real place, of any
    /// other path itself.
    std::string realPath(std::string_view path) const;
    /// The URL for a real path as a person gives it (absolute); it is not resolved. A root, what is below it and a
    /// library's container itself get their names, other paths and those with a ".." component stay as they are.
    URL urlForRealPath(std::string_view realPath) const;

private:
    using RootPtr = std::shared_ptr<const Root>;
    struct TextHash {
        using is_transparent = void;
        std::size_t operator()(std::string_view text) const { return std::hash<std::string_view>{}(text); }
    };
    using FolderKey = std::pair<std::uint64_t, std::uint64_t>;  ///< device and inode of a folder that is held open

    RootPtr find(std::string_view name) const;
    /// Under mutex_.
    RootPtr named(std::string_view name) const;
    /// Adds the root unless R1 forbids it or another of its name came first, which is given then.
    Result<RootPtr> insert(Root root, const std::string& territory);
    RootPtr knownLibrary(const std::string& container) const;
    Result<URL> addLibrary(const std::string& container, const std::string& namedContainer, bool isVersion);
    RootPtr movedFrom(const Root& root) const;
    /// It is no root any more. Under mutex_.
    void remove(const RootPtr& root);
    /// Whether R1 allows the root beside those that are there. Of libraries only those are looked at that lie above or
    /// below it, since there may be thousands. Under mutex_.
    Result<void> compatible(const Root& root, const std::string& territory, const RootPtr& moved) const;

    std::atomic<std::uint64_t> generation_{0};  ///< changed under mutex_
    mutable std::shared_mutex mutex_;           ///< held for looking up and entering only
    std::unordered_map<std::string, RootPtr, TextHash, std::equal_to<>> byName_;
    std::vector<RootPtr> roots_;
    std::vector<RootPtr> formers_;
    std::map<std::string, RootPtr, std::less<>> byRealPath_;
    std::map<FolderKey, RootPtr> byFolder_;
    std::unordered_set<int> descriptors_;
};

}  // namespace tarnwell
