#pragma once

#include <string>

#include "platform/base/Descriptor.h"
#include "platform/base/Result.h"
#include "platform/operations/FileCopy.h"

namespace tarnwell::operations {

/// Fills an empty folder of ours with a copy of what another one holds, and gives it that one's metadata. Links are
/// copied as links, hard links become files of their own; what is neither file, folder nor link is refused. `target`
/// and its contents are written through the descriptor only. `path` is the source's, for sentences.
Result<void> copyTree(const Descriptor& source, const Descriptor& target, CopiedOwner owner, TransferMonitor* monitor,
                      const std::string& path);

/// Makes a link in the folder that leads where another one does, with its times.
Result<void> copyLink(int sourceFolder, const std::string& sourceName, int folder, const std::string& name,
                      CopiedOwner owner);

}  // namespace tarnwell::operations
