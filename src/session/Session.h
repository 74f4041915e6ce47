#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/base/Descriptor.h"
#include "platform/base/Result.h"
#include "session/ChangeList.h"
#include "session/Item.h"
#include "session/JobControl.h"
#include "session/Status.h"

namespace tarnwell::session {

/// Codes of ErrorDomain::host that a client has to tell apart.
inline constexpr std::int64_t kSyncAnchorExpired = -1002;
inline constexpr std::int64_t kNoSuchItem = -1005;
inline constexpr std::int64_t kFilenameCollision = -1001;
inline constexpr std::int64_t kInvalidParameter = -1100;

/// User info of errors: the item that they are about, where it is not plain which.
inline constexpr const char* kErrorItemIdentifier = "itemIdentifier";

/// Part of a container's listing.
struct Page {
    std::vector<Item> items;
    std::optional<Bytes> next;  ///< asks for the page after it; nothing after the last one
};

struct ChangeBatch {
    ChangeList changes;
    Bytes anchor;  ///< from which the next request goes on
    bool moreComing = false;
};

/// What a person or program looks for.
struct SearchRequest {
    enum class Order { relevance, newestFirst, byName };
    std::string query;                    ///< in the language of platform/search/Query.h
    std::vector<std::string> types = {};  ///< as `type:` has them
    std::vector<std::string> tags = {};   ///< as `tag:` has them
    std::optional<ItemIdentifier> below = {};
    Order order = Order::relevance;
    std::string locale = {};  ///< whose order of names; by their bytes for "" and an unknown one
    bool withTrashed = false;
    std::uint64_t limit = 100;  ///< 0: all
};

struct Found {
    Item item;
    std::string place;  ///< the names that lead from the top to the item, with slashes between
};

struct SearchResult {
    std::vector<Found> items;
    std::uint64_t more = 0;  ///< were found beyond the limit
};

/// An application that keeps documents here.
struct Application {
    Item item;                                 ///< its library
    std::optional<std::string> origin;         ///< "flatpak", "snap", "desktop-entry"
    std::optional<std::string> installedFor;   ///< "user", "system"
    std::optional<std::string> containerPath;  ///< bytes
};

/// What a look at the installed applications found.
struct Refreshed {
    struct Removed {
        ItemIdentifier identifier;
        std::string path;
    };
    std::vector<Item> added, changed;
    std::vector<Removed> removed;
    std::uint64_t applications = 0;  ///< how many there are now
};

/// What became of what was too old in the trashes, by real paths.
struct CleanedTrash {
    std::vector<std::string> removed;
    std::vector<std::string> left;  ///< could not be removed
};

struct Removed {
    ItemIdentifier identifier;
    std::string path;  ///< the real one that it had
};

/// What becomes of a path that leads somewhere by a link or a further name.
enum class PathUse {
    lookUp,  ///< a link from elsewhere stands for what it leads to
    target,  ///< of something that is to be changed: it has to be the very name by which the item is known
};

/// Watches a container as long as it lives.
class Watch {
public:
    virtual ~Watch() = default;
};

/// What one client may ask the host: the same whether the provider is loaded in this process or runs in another. Calls
/// block; any thread may call, several at once. Requests of several items have one outcome for each, in their order.
/// Errors carry the host's domains and codes, and in kErrorMessage a sentence for people where there is one.
class Session {
public:
    template <typename T>
    using Each = std::vector<Result<T>>;

    virtual ~Session() = default;

    /// The items, RootContainer among them. No such item: -1005.
    virtual Each<Item> items(const std::vector<ItemIdentifier>& identifiers) = 0;
    /// What stands at absolute paths. ENOENT where nothing is there, EXDEV where it is below no root, EMLINK for
    /// another name of a target; each with a sentence.
    virtual Each<ItemIdentifier> identifiersAtPaths(const std::vector<std::string>& paths, PathUse use) = 0;

    /// One page of a container; nothing for the first. -1002 where the page has expired: the listing begins again.
    virtual Result<Page> enumerate(const ItemIdentifier& container, const std::optional<Bytes>& page) = 0;
    /// Nothing where changes cannot be told.
    virtual Result<std::optional<Bytes>> currentAnchor(const ItemIdentifier& container) = 0;
    /// -1002 where the anchor has expired.
    virtual Result<ChangeBatch> changes(const ItemIdentifier& container, const Bytes& anchor) = 0;
    /// Tells once at the beginning, and whenever something in the container may have changed, on a thread of the
    /// session's that must not be held. What changes after this returned is told, if the first telling was followed by
    /// a request for changes.
    virtual Result<std::unique_ptr<Watch>> watch(const ItemIdentifier& container, std::function<void()> changed) = 0;

    enum class Access { read, readWrite };
    /// A descriptor of a document, opened while nobody moves or replaces it.
    virtual Result<Descriptor> open(const ItemIdentifier& item, Access access) = 0;

    /// Copies files or folders, by absolute paths.
    virtual Each<Item> import(const std::vector<std::string>& paths, const ItemIdentifier& parent, JobControl& job) = 0;
    virtual Result<Item> makeFolder(const std::string& name, const ItemIdentifier& parent) = 0;
    virtual Result<Item> rename(const ItemIdentifier& item, const std::string& name) = 0;
    /// A name only for a single item.
    virtual Each<Item> move(const std::vector<ItemIdentifier>& items, const ItemIdentifier& parent,
                            const std::optional<std::string>& name, JobControl& job) = 0;
    virtual Each<Item> trash(const std::vector<ItemIdentifier>& items, JobControl& job) = 0;
    /// To the parent, else to where each came from.
    virtual Each<Item> restore(const std::vector<ItemIdentifier>& items, const std::optional<ItemIdentifier>& parent,
                               JobControl& job) = 0;
    virtual Each<Removed> remove(const std::vector<ItemIdentifier>& items, JobControl& job) = 0;
    virtual Result<CleanedTrash> cleanTrash(Date olderThan) = 0;

    virtual Result<Item> setTags(const ItemIdentifier& item, const std::vector<std::string>& labels) = 0;
    virtual Result<Item> setRank(const ItemIdentifier& item, const std::optional<std::uint64_t>& rank) = 0;
    virtual Result<Item> setLastUsed(const ItemIdentifier& item, const std::optional<Date>& date) = 0;

    /// The icons of app libraries as PNG, so many pixels a side; 0: as large as fits this device's screen.
    virtual Each<Bytes> thumbnails(const std::vector<ItemIdentifier>& items, unsigned side) = 0;
    virtual Result<std::vector<Application>> applications() = 0;
    virtual Result<Refreshed> refresh() = 0;
    virtual Result<Item> defaultContainer(const std::string& bundleIdentifier) = 0;

    /// In what is there now. EINVAL with a sentence for what cannot be a query. Told how many items a first fill of the
    /// index has found so far, where this process does it.
    virtual Result<SearchResult> search(const SearchRequest& request,
                                        const std::function<void(std::uint64_t)>& progress) = 0;
    virtual Result<Status> status() = 0;
};

}  // namespace tarnwell::session
