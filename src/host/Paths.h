#pragma once

#include <string>

#include "host/ProgramContext.h"

/// From the paths that people give to what the provider knows.
namespace tarnwell::host {

/// The real path of what a path names: relative to the working directory, links in the folders above it followed, the
/// last component taken as it is; nothing where there is no such thing.
std::optional<std::string> realPathOfEntry(const std::string& path);

/// What becomes of a link whose own place is below no root: it stands for what it leads to, or for nothing.
enum class OutsideLink { followed, refused };

/// The URL of the place that a path names, as above. ENOENT where nothing is there, EXDEV where it lies below no root;
/// each with a sentence for people.
Result<URL> urlForPath(const Roots& roots, const std::string& path, OutsideLink link = OutsideLink::followed);

/// The identifier of what stands at a URL, RootContainer for the storage root itself; nothing where it has none.
std::optional<hostframework::ItemIdentifier> identifierForURL(ProgramContext& context, const URL& url);

}  // namespace tarnwell::host
