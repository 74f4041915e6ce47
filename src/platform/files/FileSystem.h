#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "platform/base/Descriptor.h"
#include "platform/base/Result.h"
#include "platform/url/URL.h"

namespace tarnwell::files {

enum class ResourceKey : std::uint8_t {
    parentDirectoryURL,
    name,
    localizedName,
    typeIdentifier,
    fileSize,
    creationDate,
    contentModificationDate,
    isReadable,
    isWritable,
    isHidden,
    isDirectory,
    isPackage,
    fileID,
    documentID,
};

/// The key's name as log lines show it, such as "contentModificationDate".
std::string_view nameOf(ResourceKey key);

/// A resource value; std::monostate where the object has no such value (a FIFO's size, a folder's document ID).
/// URL only for parentDirectoryURL; unsigned numbers for size and the two IDs.
using ResourceValue = std::variant<std::monostate, std::string, std::uint64_t, Date, bool, URL>;

/// What one request for an open object's attributes gives.
struct ObjectAttributes {
    std::uint32_t mode = 0;                ///< st_mode
    std::optional<DocumentID> documentID;  ///< only if one was allocated already
    FileID fileID{};
};

/// What `stat` gives. On every file system the link count of a folder is the number of its entries, hidden ones too,
/// plus 2, at most 65,537; that of anything else is the number of its names.
struct FileStatus {
    FileID fileID{};
    std::uint32_t mode = 0;
    std::uint32_t linkCount = 0;
    std::uint64_t size = 0;
};

/// Options of the directory walker; they add up.
enum WalkOptions : unsigned {
    kWalkDefault = 0,
    kSkipSubdirectoryDescendants = 1,
    kSkipPackageDescendants = 2,
    kSkipHiddenFiles = 4,
};

/// Yields the entries of a folder, and of the folders below it unless told otherwise, one URL a call.
///
/// Within a folder the order is the order in which the entries came into it, so that positions stay good while
/// things are added. A folder comes right before its contents. Entries that go while the walk runs are left out.
class DirectoryWalker {
public:
    virtual ~DirectoryWalker() = default;
    /// The next entry, its resource values prefetched into the URL's cache; nothing at the end.
    virtual std::optional<URL> next() = 0;
    /// Passes over the next `count` entries without prefetching, as if `next` had been called so often; returns how
    /// many there were.
    virtual std::uint64_t skip(std::uint64_t count) = 0;
    /// What ended the walk before its end, where entries are not what could not be read but what is known of them;
    /// nothing as long as it goes well.
    virtual std::optional<Error> failure() const { return std::nullopt; }
};

/// How an error of a look at a file is told: a missing object has an error of its own.
Error asReadError(const Error& error);

/// Told of an entry that cannot be read; true means go on.
using WalkErrorHandler = std::function<bool(const URL&, const Error&)>;

/// The file system as the rest of the program sees it. Every call works on the places that URLs name below the
/// roots, reached through the root's open folder without following a link out of it; a path below no root gives
/// ENOENT. Any thread may call any operation; all of them block for the disk.
class FileSystem {
public:
    virtual ~FileSystem() = default;

    /// The value of one key, from the URL's cache or else the disk (then the cache keeps it). Links are not followed.
    /// A missing object gives the general file error 260, any other trouble a POSIX error.
    /// Visible documents get their document ID when the store first meets them; `documentID` gives nothing for one that
    /// has none: folders, links and the like, and documents that are hidden or lie in a package.
    virtual Result<ResourceValue> resourceValue(const URL& url, ResourceKey key) = 0;
    /// Remembers a number on the URL object: only for fileID and documentID, any other key is EINVAL.
    virtual Result<void> setResourceValue(const URL& url, ResourceKey key, std::uint64_t value) = 0;

    /// The host's folder test: true for everything that is neither a regular file nor a package, so that links, FIFOs
    /// and sockets count as well; false where nothing is.
    virtual bool isFolder(const URL& url) = 0;

    /// Opens what stands at the URL only to ask about it: read-only, never blocking, a link itself.
    virtual Result<Descriptor> openEventOnly(const URL& url) = 0;
    /// The device of an open object: the one device of the roots, ENOENT for anything that is not below one.
    virtual Result<DeviceID> deviceID(const Descriptor& descriptor) = 0;
    virtual Result<ObjectAttributes> attributeList(const Descriptor& descriptor) = 0;

    /// The URL path of the object with that file ID where it is now, checked on disk. ENOENT if it is nowhere.
    virtual Result<URL> pathOfFileID(FileID fileID, DeviceID device) = 0;

    /// Follows links; a link that leads out of the roots is ENOENT.
    virtual Result<FileStatus> stat(const URL& url) = 0;
    /// True when something stands at the URL, links followed.
    virtual bool isReachable(const URL& url) = 0;

    /// Copies an extended attribute into the buffer and returns its size; an empty buffer only asks for the size.
    /// Links are not followed. ENODATA if there is none, ERANGE if the buffer is too small, E2BIG past 64 KiB.
    virtual Result<std::size_t> getAttribute(const URL& url, const std::string& name,
                                             std::span<std::uint8_t> buffer) = 0;
    virtual Result<void> setAttribute(const Descriptor& descriptor, const std::string& name, ByteView value) = 0;
    virtual Result<void> removeAttribute(const Descriptor& descriptor, const std::string& name) = 0;

    /// A walker over the folder at the URL; an error where it cannot be opened or is no folder.
    virtual Result<std::unique_ptr<DirectoryWalker>> walk(const URL& folder, unsigned options,
                                                          WalkErrorHandler errorHandler) = 0;

    /// Creates a folder below the roots with the folders above it; one that stands already is fine.
    virtual Result<void> createDirectory(const URL& url) = 0;
};

}  // namespace tarnwell::files
