#pragma once

#include <string>

#include "host/ProgramContext.h"

/// From the paths that people give to what the provider knows.
namespace tarnwell::host {

/// The URL of the place that a path names: relative to the working directory, links in the folders above it followed,
/// the last component taken as it is. Only where that is below no root, its links are followed too. ENOENT where
/// nothing is there, EXDEV where it lies below no root; each with a sentence for people.
Result<URL> urlForPath(const Roots& roots, const std::string& path);

/// The identifier of what stands at a URL, RootContainer for the storage root itself; nothing where it has none.
std::optional<hostframework::ItemIdentifier> identifierForURL(ProgramContext& context, const URL& url);

}  // namespace tarnwell::host
