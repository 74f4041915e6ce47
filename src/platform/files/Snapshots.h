#pragma once

#include <memory>

#include "platform/base/Result.h"
#include "platform/filesystem/Access.h"
#include "platform/filesystem/Beneath.h"
#include "platform/mime/TypeDatabase.h"
#include "platform/store/Index.h"
#include "platform/url/ResourceCache.h"

namespace tarnwell::files {

/// Up to this many bytes of attribute values are remembered with a snapshot; longer ones are read when asked for.
inline constexpr std::size_t kRememberedAttributeBytes = 4096;

/// Whether an object is known to be bare: to have neither attributes nor an access list.
enum class Bareness { unknown, known };

/// The snapshot of a direct entry of an open folder whose status is known: lists its attributes unless it is known to
/// be bare, finds its type and what this process may do with it. A name that declares no type is settled by a look at
/// the first bytes of the content.
Result<std::unique_ptr<ResourceSnapshot>> makeSnapshot(mime::TypeDatabase& types, int folder,
                                                       filesystem::MountState mount, const char* entry,
                                                       const filesystem::Status& status, Bareness bareness);

/// What the index knows of the object that was found with the status.
inline Bareness barenessOf(const store::EntryRow& row, const filesystem::Status& status) {
    return row.bare && row.changed == status.changed ? Bareness::known : Bareness::unknown;
}

/// Keeps the numbers by which the index knows an object, for whoever names it next.
inline void rememberNumbers(ResourceCache& cache, const store::EntryRow& row) {
    cache.setFileID(row.fileID);
    if (row.documentID) cache.setDocumentID(*row.documentID);
}

/// The snapshot of a root's own folder, which has no parent to be looked at from. A root is never a package.
Result<std::unique_ptr<ResourceSnapshot>> makeRootSnapshot(const Root& root);

}  // namespace tarnwell::files
