#pragma once

#include <optional>
#include <string>

#include "platform/operations/OpenFolder.h"
#include "platform/store/Store.h"

namespace tarnwell::operations {

/// By what the index knows objects of the file system that a folder lies on.
class KnownObjects {
public:
    /// Asks the disk; to be done before a session of the store begins.
    explicit KnownObjects(const OpenFolder& folder);
    /// The identity of the folder, or of a direct entry of it. Nothing where the folder cannot be read. The session is
    /// writing from then on.
    std::optional<store::ObjectIdentity> identityOf(store::Session& session, const filesystem::Status& status) const;
    /// The object's file ID, if the index knows it.
    std::optional<FileID> fileIDOf(store::Session& session, const filesystem::Status& status) const;

private:
    std::optional<std::string> fileSystem_;
};

/// Where the index has the folder with that file ID; nothing where it does not know it, or below none of the roots.
std::optional<Place> placeOfFolder(const Roots& roots, store::Session& session, FileID folder);

}  // namespace tarnwell::operations
