#pragma once

#include "platform/filesystem/Beneath.h"
#include "platform/filesystem/Roots.h"
#include "platform/store/Index.h"

namespace tarnwell::files {

/// As many neighbours of a root are looked at in each of the two folders above it.
inline constexpr std::size_t kMostNeighbours = 20'000;

/// True when the folder that had the root's place in an earlier run may be back there some day: it stands beside the
/// root or, under the root's own name, beside the folder around it (moved aside, as a backup is made), or something is
/// mounted over it. Also where that cannot be found out. For a folder on the root's own file system; `its` is the
/// root's status.
bool mayComeBack(const Root& root, const filesystem::Status& its, const store::ObjectIdentity& former);

}  // namespace tarnwell::files
