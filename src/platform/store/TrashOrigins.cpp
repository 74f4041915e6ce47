#include "platform/store/TrashOrigins.h"

namespace tarnwell::store {

TrashOrigins::TrashOrigins(Database& database)
    : find_(database, "SELECT folder, name, nameInTrash FROM trashed WHERE inode = ? AND birth = ? AND fs = ?"),
      set_(database,
           "INSERT OR REPLACE INTO trashed(inode, birth, fs, folder, name, nameInTrash) VALUES(?, ?, ?, ?, ?, ?)"),
      forget_(database, "DELETE FROM trashed WHERE inode = ? AND birth = ? AND fs = ?"),
      trim_(database, "DELETE FROM trashed WHERE number <= (SELECT max(number) FROM trashed) - ?") {}

std::optional<TrashOrigin> TrashOrigins::of(const ObjectIdentity& object) {
    StatementScope find(find_);
    find->bind(1, object.inode).bindSigned(2, object.birth).bind(3, object.fileSystem);
    if (!find->step()) return std::nullopt;
    TrashOrigin origin;
    if (!find_.isNullAt(0)) origin.folder = FileID{find_.unsignedAt(0)};
    origin.name = find_.bytesAt(1);
    origin.nameInTrash = find_.bytesAt(2);
    return origin;
}

void TrashOrigins::set(const ObjectIdentity& object, const TrashOrigin& origin) {
    StatementScope set(set_);
    set->bind(1, object.inode).bindSigned(2, object.birth).bind(3, object.fileSystem);
    if (origin.folder) {
        set->bind(4, raw(*origin.folder));
    } else {
        set->bindNull(4);
    }
    set->bindBytes(5, origin.name).bindBytes(6, origin.nameInTrash).run();
    StatementScope trim(trim_);
    trim->bind(1, kMostKept).run();
}

void TrashOrigins::forget(const ObjectIdentity& object) {
    StatementScope forget(forget_);
    forget->bind(1, object.inode).bindSigned(2, object.birth).bind(3, object.fileSystem).run();
}

}  // namespace tarnwell::store
