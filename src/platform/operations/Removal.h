#pragma once

#include <cstdint>
#include <string>

#include "platform/operations/Context.h"
#include "platform/operations/OpenFolder.h"
#include "platform/operations/TreeSurvey.h"

namespace tarnwell::operations {

/// Removes a file, a link or a folder with all that it holds. No link is followed, no mount point entered.
///
/// A folder is looked at as a whole first: what would refuse (a mount point below, a folder that may not be changed,
/// something immutable) is an error before anything is gone. Then it gets a hidden name in one step and is emptied
/// there, which the next start ends if this process is killed. If the emptying fails all the same, what is left gets
/// its name back, and the error says how much that is.
///
/// What comes into the folder after it was looked at is not ours to remove: what has a later change time than all that
/// was seen then, be it new, written or moved there, ends the removal with EBUSY, and the rest gets its name back. So a
/// folder in which a program keeps writing is not removed before that program rests. Where change times say nothing
/// (FAT, some network file systems), within one tick of the file system's clock, and at the start that ends a killed
/// removal, it goes.
/// A folder that somebody moves out while it is being emptied loses what it still holds there; its own folders do not
/// follow (ESTALE). A file or link is what has the name at that moment.
Result<void> removeItem(const Context& context, const Place& item);

/// Empties and removes a folder, or removes what else has the name; no such name is fine. For what is ours: folders
/// that lack the owner's permissions are given them.
Result<void> removeOwn(int folder, const std::string& name);

/// Takes something away that is to vanish at once, and then removes it. `expected` is what must have the name, and
/// `found` what a folder must hold: it is looked at once more when nobody can come to it by name any longer. Fails with
/// everything as it was; once some of it is gone, what cannot be removed is left to the next start and said in the log.
/// What came into a folder even later gets the folder's name back with it.
Result<void> removeAfterMove(const Context& context, const OpenFolder& folder, const std::string& name,
                             const filesystem::Status& expected, const TreeSurvey& found);

/// Takes back a copy that was just given its name; ESTALE where the name has something else, or a file that was written
/// to since. Fails with it in place.
Result<void> withdrawCopy(const Context& context, const OpenFolder& folder, const std::string& name,
                          const filesystem::Status& copy);

}  // namespace tarnwell::operations
