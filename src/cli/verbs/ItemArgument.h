#pragma once

#include <string>

#include "cli/verbs/Invocation.h"

namespace tarnwell::cli {

/// What an ITEM argument is, for help texts.
inline constexpr const char* kItemHelp =
    "an identifier (did=…, fid=…, #app), root, workingset, alldirs, or a path (./root for a file of that name)";

/// The identifier that an ITEM names. A path is looked up now; any other text is only looked at. `what` begins the
/// message of a failure, such as "cannot show".
std::expected<session::ItemIdentifier, Failure> resolveItem(Invocation& invocation, const std::string& what,
                                                            const std::string& text);

/// The same for an item that is to be changed: a path must name it by its own place, not through a link from elsewhere
/// or by another of its names, whose file would stay.
std::expected<session::ItemIdentifier, Failure> resolveTarget(Invocation& invocation, const std::string& what,
                                                              const std::string& text);

/// The path as any process understands it: relative ones begin at the working directory; links stay as they are. Empty
/// where there is no such directory any more, and for an empty one.
std::string absolutePath(const std::string& path);

/// The identifier of what stands at a path.
std::expected<session::ItemIdentifier, Failure> resolvePath(Invocation& invocation, const std::string& what,
                                                            const std::string& path);

}  // namespace tarnwell::cli
