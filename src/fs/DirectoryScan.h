#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "fs/FSEnvironment.h"
#include "platform/files/FileSystem.h"

namespace tarnwell::fs {

/// What to walk, and the window (offset, limit) over the entries of all folders together that is delivered.
struct DirectoryScanOptions {
    /// Folders to walk, in this order.
    std::vector<URL> urls = {};
    /// True descends into subfolders, false lists only the direct children. Packages are single entries either way, and
    /// hidden entries are left out.
    bool recursively = false;
    /// Entries to pass over before the first one delivered.
    std::uint64_t offset = 0;
    /// Greatest number of entries to deliver; 0 walks nothing.
    std::uint64_t limit = 0;
    /// Told of entries that cannot be read, true means go on; when empty they are logged and the walk goes on.
    files::WalkErrorHandler errorHandler = {};
    /// The walk options (files::WalkOptions) for one of `urls`; empty, or an answer of nothing, keeps the defaults.
    std::function<std::optional<unsigned>(const URL&)> directoryEnumerationOptionsFor = {};
};

/// Receives one delivered entry, whose resource values are in the URL's cache; a failure ends the scan.
using DirectoryScanBody = std::function<Result<void>(const URL&)>;

/// Walks the folders and calls `body` for each entry in the window, on the calling thread.
///
/// Returns the running counter, which is the next offset: offset + limit when the window was filled, else the number of
/// entries that exist (which may be below the offset). A folder that cannot be walked is logged and left out. Fails
/// only with what `body` failed with, or when the walk cannot know what comes next; entries delivered before stay
/// delivered.
Result<std::uint64_t> scan(const FSEnvironment& environment, const DirectoryScanOptions& options,
                           const DirectoryScanBody& body);

}  // namespace tarnwell::fs
