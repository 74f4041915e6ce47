#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "hostframework/ObjectRuntime.h"
#include "items/Environment.h"

namespace tarnwell::items {

/// The identifier scheme: "fid=N" for plain folders and other objects, "did=N" for documents (regular files and
/// packages),
/// "#bundle" for app libraries, and the host's root container. Keeps no state; any thread may call it.
class TWPFileObjectIdentifier {
public:
    explicit TWPFileObjectIdentifier(const Environment& environment) : environment_(environment) {}

    static std::string fromFileID(std::uint64_t fileID);
    static std::string fromDocumentID(std::uint64_t documentID);
    /// "#" and the bundle identifier, "#(null)" for none; nothing when no record stands at the URL.
    std::optional<std::string> fromAppLibraryDataContainerURL(const URL& url) const;

    /// The identifier of the object at the URL; nothing, after a log line, when it has none. A document that is met for
    /// the first time is given its document ID here, durably.
    std::optional<std::string> itemIdentifier(const URL& url) const;
    /// A POSIX error without user info where the object cannot be opened or asked.
    Result<DeviceID> deviceIDWithError(const URL& url) const;
    std::optional<DeviceID> deviceID(const URL& url) const;

    /// The place of the object that the identifier names; nothing, after a log line, for text that is no identifier of
    /// a file ("#…" included) and for one that names nothing now. A document ID that is busy is tried six times in
    /// about 5 ms.
    std::optional<URL> fileURLWithItemIdentifier(const std::string& identifier) const;
    /// On the storage root's device.
    std::optional<URL> fileURLWithFileIdentifier(std::uint64_t fileID) const;
    std::optional<URL> fileURLWithFileIdentifier(std::uint64_t fileID, DeviceID device) const;

    /// Makes the class-level operations reachable by name, under the class name "TWPFileObjectIdentifier":
    /// "fromFileID:", "fromDocumentID:" (std::uint64_t to std::string), "fromAppLibraryDataContainerURL:" (URL to
    /// std::optional<std::string>), "fileURLWithItemIdentifier:" (std::string to std::optional<URL>) and
    /// "fileURLWithFileIdentifier:" (std::uint64_t to std::optional<URL>). An argument of another type gives an empty
    /// std::any. The environment must outlive the runtime.
    static void registerOperations(hostframework::ObjectRuntime& runtime, const Environment& environment);

private:
    std::optional<std::string> identifierByAsking(const URL& url) const;
    std::optional<std::string> numberedIdentifier(const URL& url, files::ResourceKey key) const;
    std::optional<std::string> documentIdentifier(const URL& url, const Descriptor& object,
                                                  std::optional<DocumentID> known) const;
    std::optional<FileID> fileIDOfDocument(std::int64_t number, DeviceID device) const;
    std::optional<DeviceID> storageDevice(const URL& root) const;
    void remember(const URL& url, files::ResourceKey key, std::uint64_t value) const;

    const Environment& environment_;
};

/// The three numbers of "/.docid/<device>/changed/<docid>/src=<src>,dst=<dst>".
struct DocumentIDChange {
    std::int64_t documentID = 0;
    std::int64_t source = 0;
    std::int64_t destination = 0;
};
/// Nothing for any other text.
std::optional<DocumentIDChange> parseDocumentIDChangePath(std::string_view path);

/// "#" and the record's bundle identifier, "#(null)" when it has none.
std::string appLibraryIdentifier(const registry::BundleRecord& record);

}  // namespace tarnwell::items
