#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "platform/base/Ids.h"

namespace tarnwell::files {

/// Somebody who watches folders while comparisons go through them. A comparison comes to every folder before it looks
/// at what is in it, so that nothing falls between the two.
class FolderWatch {
public:
    virtual ~FolderWatch() = default;
    virtual bool isWatched(FileID folder) const = 0;
    /// The folder is open (O_PATH). What cannot be watched is the watcher's to look at again.
    virtual void watch(int handle, FileID folder) = 0;
    /// True when what the index knows of watched folders is of a short time ago at most.
    virtual bool isLive() const = 0;
    /// True when every folder that comparisons came to is watched, and nothing changes in it untold.
    virtual bool isComplete() const = 0;
    /// The folder is below the roots no more.
    virtual void forget(FileID folder) = 0;
};

/// What is to be looked at in one folder.
struct HintedFolder {
    FileID folder{};
    bool everything = false;  ///< every entry
    /// Else these, and whether an object may have come to the name or left it.
    std::map<std::string, bool> names;
};

}  // namespace tarnwell::files
