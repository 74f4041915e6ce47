#pragma once

#include <memory>

#include "platform/base/Result.h"
#include "platform/filesystem/Access.h"
#include "platform/filesystem/Beneath.h"
#include "platform/mime/TypeDatabase.h"
#include "platform/url/ResourceCache.h"

namespace tarnwell::files {

/// Up to this many bytes of attribute values are remembered with a snapshot; longer ones are read when asked for.
inline constexpr std::size_t kRememberedAttributeBytes = 4096;

/// The snapshot of a direct entry of an open folder whose status is known: lists its attributes, finds its type and
/// what this process may do with it. A name that declares no type is settled by a look at the first bytes of the
/// content.
Result<std::unique_ptr<ResourceSnapshot>> makeSnapshot(mime::TypeDatabase& types, int folder,
                                                       filesystem::MountState mount, const char* entry,
                                                       const filesystem::Status& status);

/// The snapshot of a root's own folder, which has no parent to be looked at from. A root is never a package.
Result<std::unique_ptr<ResourceSnapshot>> makeRootSnapshot(const Root& root);

}  // namespace tarnwell::files
