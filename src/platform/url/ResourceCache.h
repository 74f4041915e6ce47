#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base/Ids.h"

namespace tarnwell {

/// What kind of object stands at a place, links not followed.
enum class FileKind : std::uint8_t { regular, directory, symbolicLink, fifo, socket, device, other };

/// What one look at the disk told of an object; never changes once made.
struct ResourceSnapshot {
    /// The name on disk where it is not the last component of the URL's path.
    std::optional<std::string> name;
    /// A shared-mime-info type name; the text lives as long as the process.
    std::string_view typeIdentifier;
    FileKind kind = FileKind::other;
    std::uint32_t mode = 0;
    std::uint32_t links = 1;  ///< names of a file
    std::uint64_t size = 0;
    std::optional<Date> creationDate;
    Date contentModificationDate{};
    bool readable = false;
    bool writable = false;
    bool package = false;
    /// An extended attribute by its name below "user." (without that prefix), with its value if that is short.
    struct Attribute {
        std::string name;
        std::optional<Bytes> value;
    };
    /// All of them when they were listed; nothing when not.
    std::optional<std::vector<Attribute>> attributes;
    /// It has neither attributes nor an access list.
    bool bare = false;
    /// Entries of a folder, hidden ones included, when they were counted.
    std::optional<std::uint32_t> entryCount;
    /// The folder that it was found in, where that is known and no package.
    std::optional<FileID> folder;
    /// The object that the path leads to, links followed, when it is this one: true for everything but links.
    bool isOwnTarget = true;
};

/// The resource values remembered for one URL object. Any thread may read and write.
class ResourceCache {
public:
    /// The snapshot kept, or nothing. Stays valid as long as the cache.
    const ResourceSnapshot* snapshot() const { return snapshot_.load(std::memory_order_acquire); }
    /// Keeps a snapshot if none is kept yet; returns the one that is kept then.
    const ResourceSnapshot* keep(std::unique_ptr<const ResourceSnapshot> snapshot);

    std::optional<FileID> fileID() const {
        auto v = fileID_.load(std::memory_order_relaxed);
        return v ? std::optional(FileID{v}) : std::nullopt;
    }
    void setFileID(FileID id) { fileID_.store(raw(id), std::memory_order_relaxed); }
    std::optional<DocumentID> documentID() const {
        auto v = documentID_.load(std::memory_order_relaxed);
        return v ? std::optional(DocumentID{v}) : std::nullopt;
    }
    void setDocumentID(DocumentID id) { documentID_.store(raw(id), std::memory_order_relaxed); }

    /// The answer of the host's folder test, where it is known without a snapshot.
    std::optional<bool> isFolder() const {
        auto v = folderTest_.load(std::memory_order_relaxed);
        return v == 0 ? std::nullopt : std::optional(v == 1);
    }
    void setIsFolder(bool isFolder) { folderTest_.store(isFolder ? 1 : 2, std::memory_order_relaxed); }

    /// The cache that the parent folder's URL starts with; null for an empty one. Set before the URL is handed on.
    const std::shared_ptr<ResourceCache>& parent() const { return parent_; }
    void setParent(std::shared_ptr<ResourceCache> parent) { parent_ = std::move(parent); }

    ResourceCache() = default;
    ResourceCache(const ResourceCache&) = delete;
    ResourceCache& operator=(const ResourceCache&) = delete;
    ~ResourceCache();

private:
    std::atomic<const ResourceSnapshot*> snapshot_{nullptr};
    std::atomic<std::uint64_t> fileID_{0};
    std::atomic<std::uint32_t> documentID_{0};
    std::atomic<std::uint8_t> folderTest_{0};
    std::shared_ptr<ResourceCache> parent_;
};

}  // namespace tarnwell
