#pragma once

#include <array>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>

#include "platform/files/Comparer.h"
#include "platform/files/FileSystem.h"
#include "platform/files/IndexWalker.h"
#include "platform/store/GenerationStore.h"

namespace tarnwell::files {

/// The device that all roots form together.
inline constexpr DeviceID kRootsDevice{1};

/// The file system below the roots of this program, named through the index. Borrows its services, which outlive it.
class LocalFileSystem : public FileSystem {
public:
    LocalFileSystem(const Roots& roots, store::Store& store, Comparer& comparer, mime::TypeDatabase& types);

    Result<ResourceValue> resourceValue(const URL& url, ResourceKey key) override;
    Result<void> setResourceValue(const URL& url, ResourceKey key, std::uint64_t value) override;
    bool isFolder(const URL& url) override;
    Result<Descriptor> openEventOnly(const URL& url) override;
    Result<DeviceID> deviceID(const Descriptor& descriptor) override;
    Result<ObjectAttributes> attributeList(const Descriptor& descriptor) override;
    Result<URL> pathOfFileID(FileID fileID, DeviceID device) override;
    Result<FileStatus> stat(const URL& url) override;
    bool isReachable(const URL& url) override;
    Result<std::size_t> getAttribute(const URL& url, const std::string& name, std::span<std::uint8_t> buffer) override;
    Result<void> setAttribute(const Descriptor& descriptor, const std::string& name, ByteView value) override;
    Result<void> removeAttribute(const Descriptor& descriptor, const std::string& name) override;
    Result<std::unique_ptr<DirectoryWalker>> walk(const URL& folder, unsigned options,
                                                  WalkErrorHandler errorHandler) override;
    Result<void> createDirectory(const URL& url) override;

    /// Where the object with that file ID is now, looked at on disk once: the URL carries what was seen. ENOENT if it
    /// does not stand where the index has it.
    Result<URL> locate(const store::ObjectRow& row, const Place& place);
    /// Keeps a located object for the `pathOfFileID` that follows a resolved document ID, so that one look-up looks at
    /// the disk once. It is good for a millisecond and for one call.
    void handOver(FileID fileID, const URL& url);

    /// The row of an open object below the roots, by its identity, else by the path that the kernel tells for it.
    Result<store::ObjectRow> rowOf(const Descriptor& descriptor);

private:
    Result<Place> placeOf(const URL& url) const;
    Result<const ResourceSnapshot*> snapshotOf(const URL& url);
    bool rememberIdentities(const URL& url, const Place& place, int folder, const filesystem::Status& status,
                            ResourceSnapshot& snapshot);
    std::optional<URL> takeHandedOver(FileID fileID);
    Result<std::uint32_t> entryCountOf(const Place& place);

    const Roots& roots_;
    store::Store& store_;
    Comparer& comparer_;
    mime::TypeDatabase& types_;
    WalkPositions positions_;

    struct HandedOver {
        std::mutex mutex;
        FileID fileID{};
        std::optional<URL> url;
        std::chrono::steady_clock::time_point until;
    };
    HandedOver& slotOf(FileID fileID) { return handedOver_[raw(fileID) % handedOver_.size()]; }
    std::array<HandedOver, 16> handedOver_;
};

/// Document IDs kept in the index.
class IndexGenerationStore : public store::GenerationStoreManager {
public:
    IndexGenerationStore(const Roots& roots, store::Store& store, Comparer& comparer, LocalFileSystem& files)
        : roots_(roots), store_(store), comparer_(comparer), files_(files) {}

    Result<DocumentID> getOrAllocateDocumentID(const Descriptor& descriptor) override;
    Result<std::optional<DocumentID>> permanentStorage(const URL& url) override;
    Result<FileID> fileIDForDocumentID(DocumentID documentID, DeviceID device) override;
    URL documentStorageFolder() const override;

private:
    const Roots& roots_;
    store::Store& store_;
    Comparer& comparer_;
    LocalFileSystem& files_;
};

}  // namespace tarnwell::files
