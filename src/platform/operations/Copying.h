#pragma once

#include <functional>
#include <string>

#include "platform/operations/Context.h"
#include "platform/operations/FileCopy.h"
#include "platform/operations/Naming.h"
#include "platform/operations/OpenFolder.h"

namespace tarnwell::operations {

/// Something to be copied: a regular file or a folder, open for reading, or a link in its folder.
struct CopySource {
    const Descriptor* object = nullptr;  ///< null for a link
    int folder = -1;                     ///< of a link
    std::string name;                    ///< of a link
    filesystem::Status status;
    std::string path;  ///< for sentences
};

struct CopyOptions {
    CopiedOwner owner = CopiedOwner::ofCopier;
    Taken taken = Taken::refused;
    TransferMonitor* monitor = nullptr;
    /// Told of the copy's status, and the name that it is about to be given.
    std::function<void(const filesystem::Status&, const std::string&)> aboutToAppear;
};

struct Copied {
    std::string name;
    filesystem::Status status;  ///< of the copy, before it was given its name
    std::uint64_t digest = 0;   ///< of the source folder as it was copied
};

/// Copies it into the folder and gives it its name in one step, never over anything. Until then nobody sees more than a
/// hidden name. The content is written to disk before it has the name, so that also after a power cut the name never
/// stands for less; whether the name itself is there then is for `synchronizeFolder`. Fails with nothing left.
Result<Copied> copyIntoFolder(const Context& context, const CopySource& source, const OpenFolder& folder,
                              const std::string& name, const CopyOptions& options);

/// Writes the names of the folder's entries to disk.
Result<void> synchronizeFolder(const OpenFolder& folder);

}  // namespace tarnwell::operations
