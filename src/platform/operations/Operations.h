#pragma once

#include <functional>
#include <optional>
#include <string>

#include "platform/filesystem/Roots.h"
#include "platform/operations/Context.h"
#include "platform/operations/Naming.h"
#include "platform/operations/Removal.h"
#include "platform/operations/TransferMonitor.h"
#include "platform/store/TrashOrigins.h"

/// Operations on files and folders below the roots. Each returns the place at which the thing now stands, and blocks
/// for the disk. Any thread may call any of them; callers keep two operations on one path apart.
///
/// O1: nothing is ever replaced; a name that is taken is the general file error 516 with the URL path of what has it.
/// O2: no link below the roots is followed, and nothing outside of them is changed.
/// O3: an operation is done or not done. One that fails leaves everything as it was, or says what is left.
/// O4: a process that is killed at any point loses nothing; what it left half done is settled by `cleanUp`.
namespace tarnwell::operations {

/// Copies the file or folder at a real path, which may lie anywhere, into the folder under its own name. A link given
/// as the document is followed (one that lies below the roots only to a place below the roots: else ENOENT), links in a
/// folder are copied as links. The content is on disk before the name stands for it; the name itself gets there within
/// the file system's own interval, so that a power cut right afterwards leaves the whole copy or none. EINVAL for a
/// pipe, a socket or a device, and for a folder that is to go into itself; EBUSY where it is written to meanwhile, or
/// another file system is mounted in it; ECANCELED.
Result<Place> importItem(const Context& context, const std::string& document, const Place& folder,
                         TransferMonitor* monitor = nullptr);

Result<Place> makeFolder(const Context& context, const Place& folder, const std::string& name);

/// An object that was copied because it could not be moved.
struct CopiedObject {
    const filesystem::Status& source;
    /// Open for reading, or (links) for its place only.
    const Descriptor& copy;
};

struct MoveOptions {
    Taken taken = Taken::refused;
    TransferMonitor* monitor = nullptr;  ///< of a move to another file system
    /// Told of every copied object, folders before what they hold, when all of them are in place and none of the
    /// sources is gone. So identities can be carried over. Where the sources have to stay after all, it is told of them
    /// as copies of the copies, which are about to go.
    std::function<void(const CopiedObject&)> copied;
    /// Told of what is about to have which name (the copy, if it is copied).
    std::function<void(const filesystem::Status&, const std::string&)> aboutToAppear;
};

/// Gives the item another place. To another file system it is copied whole, then removed here; if it changed meanwhile
/// or cannot be removed, the copy goes and it stays. A process killed between the two leaves both. EINVAL for a folder
/// that is to go into itself.
Result<Place> moveItem(const Context& context, const Place& item, const Place& folder, const std::string& name,
                       const MoveOptions& options = {});
Result<Place> renameItem(const Context& context, const Place& item, const std::string& name);

/// Moves the item into the trash folder under a name that is free there, and remembers where it came from.
Result<Place> trashItem(const Context& context, const Place& item, const Place& trash, MoveOptions options = {});
/// Where an item that lies directly in a trash folder came from, if it was put there by `trashItem`.
std::optional<store::TrashOrigin> trashOriginOf(const Context& context, const Place& item);
/// The name that a trashed item had; of one that was renamed in the trash, or is in none, the one that it has.
std::string putBackName(const Context& context, const Place& item);
/// Moves the item; what was remembered of it as trashed is forgotten.
Result<Place> moveOutOfTrash(const Context& context, const Place& item, const Place& folder, const std::string& name,
                             const MoveOptions& options = {});

/// Settles what a killed process left: copies and begun removals go, what was put aside gets its name back. Only what
/// the store remembers by folder and name is touched. To be called before the first operation.
void cleanUp(const Context& context);

}  // namespace tarnwell::operations
