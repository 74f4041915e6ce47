#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#if defined(__GNUC__)
#define TARNWELL_CLIENT_API __attribute__((visibility("default")))
#else
#define TARNWELL_CLIENT_API
#endif

/// The documents of this device, asked of Tarnwell's service. For C++17 and later; needs no other library's headers.
///
/// Calls block, and fail with Error. Any thread may use one Client, several at once. Names and paths are bytes as the
/// kernel has them; identifiers are UTF-8 and stay with an item when it is renamed, moved or saved anew.
namespace tarnwell::client {

/// Pages and anchors. They mean something to the service only, and may be kept as long as one likes.
using Bytes = std::vector<std::uint8_t>;
using Time = std::chrono::time_point<std::chrono::system_clock, std::chrono::nanoseconds>;

/// Containers that are always there, beside folders and libraries.
inline constexpr const char* kRoot = "RootContainer";                      ///< the storage root and all libraries
inline constexpr const char* kWorkingSet = "WorkingSetContainer";          ///< everything, for its changes
inline constexpr const char* kAllDirectories = "AllDirectoriesContainer";  ///< every folder

class TARNWELL_CLIENT_API Error : public std::runtime_error {
public:
    enum class Kind {
        other,
        anchorExpired,  ///< list the container anew
        noSuchItem,
        nameTaken,
        denied,
        limits,  ///< too much at a time
        cancelled,
        unavailable,  ///< the service went before it answered, or cannot be started; asking again may do
    };
    Error(Kind kind, std::string name, const std::string& message);
    ~Error() override;
    Kind kind() const noexcept { return kind_; }
    /// On the bus, such as "org.tarnwell.Error.Posix.ENOSPC"; docs/bus.md lists them.
    const std::string& name() const noexcept { return name_; }

private:
    Kind kind_;
    std::string name_;
};

struct Item {
    std::string identifier, parent;
    std::string filename;
    std::string type;  ///< such as "text/plain", "inode/directory"
    std::string path;  ///< where it is now
    std::optional<std::uint64_t> size;
    std::optional<std::uint16_t> childCount;
    std::optional<Time> created, modified, lastUsed;
    std::vector<std::string> tags;
    std::optional<std::uint64_t> favoriteRank;
    std::uint64_t capabilities = 0;  ///< 1 read, 2 write, 4 move, 8 rename, 16 trash, 32 delete
    std::optional<std::uint64_t> fileID;
    std::optional<std::int64_t> documentID;
    std::optional<std::string> application;  ///< in whose library it is
    bool isFolder = false, isLibrary = false, isTrashed = false;
};

struct Page {
    std::vector<Item> items;
    Bytes next;  ///< asks for the page after it; empty after the last one
};

struct Change {
    std::string identifier;
    std::optional<Item> item;  ///< as it is now; nothing when it is gone, and all that hangs below it
};

struct Changes {
    std::vector<Change> changes;  ///< to be applied in this order
    Bytes anchor;                 ///< for the next request
    bool moreComing = false;
};

/// What became of one of several items.
struct Outcome {
    std::optional<Item> item;
    std::optional<Error> error;  ///< set where the item is not
};

struct Progress {
    std::uint64_t index = 0, bytesDone = 0, itemsDone = 0;
    std::optional<std::uint64_t> bytesTotal, itemsTotal;
};

/// Told how far an operation is, on a thread of the client's; false cancels it.
using OnProgress = std::function<bool(const Progress&)>;

struct Library {
    Item item;
    std::string origin;  ///< "flatpak", "snap", "desktop-entry", or empty
};

/// An open file; closes it.
class TARNWELL_CLIENT_API File {
public:
    explicit File(int descriptor) noexcept : descriptor_(descriptor) {}
    File(File&& other) noexcept : descriptor_(other.release()) {}
    File& operator=(File&& other) noexcept;
    ~File();
    int descriptor() const noexcept { return descriptor_; }
    /// Whoever calls it closes the descriptor.
    int release() noexcept {
        const int descriptor = descriptor_;
        descriptor_ = -1;
        return descriptor;
    }

private:
    int descriptor_;
};

/// Watches a container as long as it lives. Not to be ended by what it calls.
class TARNWELL_CLIENT_API Watch {
public:
    struct Impl;
    explicit Watch(std::unique_ptr<Impl> impl) noexcept;
    Watch(Watch&&) noexcept;
    Watch& operator=(Watch&&) noexcept;
    ~Watch();

private:
    std::unique_ptr<Impl> impl_;
};

class TARNWELL_CLIENT_API Client {
public:
    /// Connects to the session bus, which starts the service where it does not run. `busAddress`: of another bus.
    explicit Client(const std::string& busAddress = {});
    /// No call may be under way.
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    Item item(const std::string& identifier);
    std::vector<Outcome> items(const std::vector<std::string>& identifiers);
    Item itemAtPath(const std::string& absolutePath);

    /// One page of a folder, a library or one of the containers above; an empty page is the first. `anchorExpired`:
    /// things were deleted meanwhile; begin again.
    Page list(const std::string& container, const Bytes& page = {});
    /// All pages, from the start again where they expire.
    std::vector<Item> listAll(const std::string& container);
    /// Where the container's changes are now. To be taken before its listing.
    Bytes anchor(const std::string& container);
    Changes changes(const std::string& container, const Bytes& anchor);
    /// Calls `changed`, on a thread of the client's that must not be held, once at the beginning and then when there
    /// may be changes, again only when the client has asked something since. Ask for changes each time, from another
    /// thread: `changed` must not call the client.
    Watch watch(const std::string& container, std::function<void()> changed);

    File open(const std::string& identifier, bool forWriting = false);

    std::vector<Outcome> import(const std::vector<std::string>& absolutePaths, const std::string& parent,
                                const OnProgress& progress = {});
    Item createFolder(const std::string& name, const std::string& parent);
    Item rename(const std::string& identifier, const std::string& name);
    std::vector<Outcome> move(const std::vector<std::string>& identifiers, const std::string& parent,
                              const OnProgress& progress = {});
    std::vector<Outcome> trash(const std::vector<std::string>& identifiers);
    /// Without a parent to where each came from.
    std::vector<Outcome> restore(const std::vector<std::string>& identifiers,
                                 const std::optional<std::string>& parent = {});
    /// For good. An outcome without an error has no item.
    std::vector<Outcome> remove(const std::vector<std::string>& identifiers);

    Item setTags(const std::string& identifier, const std::vector<std::string>& labels);
    Item setFavoriteRank(const std::string& identifier, std::optional<std::uint64_t> rank);
    Item setLastUsed(const std::string& identifier, std::optional<Time> date);

    std::vector<Library> libraries();
    /// The icon of a library as PNG, so many pixels a side; 0: what is meant for this screen.
    Bytes icon(const std::string& library, unsigned side = 0);
    /// Best first. The language of queries is that of "tarnwell search".
    std::vector<Item> search(const std::string& query, std::uint64_t limit = 100);

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace tarnwell::client
