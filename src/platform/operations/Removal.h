#pragma once

#include <cstdint>
#include <string>

#include "platform/operations/Context.h"
#include "platform/operations/OpenFolder.h"

namespace tarnwell::operations {

/// Removes a file, a link or a folder with all that it holds. No link is followed, no mount point entered.
///
/// A folder is looked at as a whole first: what would refuse (a mount point below, a folder that may not be changed,
/// something immutable) is an error before anything is gone. Then it gets a hidden name in one step and is emptied
/// there, which the next start ends if this process is killed. If the emptying fails all the same, what is left gets
/// its name back, and the error says how much that is.
Result<void> removeItem(const Context& context, const Place& item);

/// Empties and removes a folder, or removes what else has the name; no such name is fine. For what is ours: folders
/// that lack the owner's permissions are given them.
Result<void> removeOwn(int folder, const std::string& name);

/// Takes something away that is to vanish at once, and then removes it. `expected` is what must have the name. Fails
/// with everything as it was; once it has its hidden name, what cannot be removed is left to the next start and said in
/// the log.
Result<void> removeAfterMove(const Context& context, const OpenFolder& folder, const std::string& name,
                             const filesystem::Status& expected);

/// Takes back a copy that was just given its name. Fails with it in place.
Result<void> withdrawCopy(const Context& context, const OpenFolder& folder, const std::string& name,
                          const filesystem::Status& copy);

}  // namespace tarnwell::operations
