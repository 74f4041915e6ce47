#include "platform/store/Temporaries.h"

namespace tarnwell::store {

Temporaries::Temporaries(Database& database)
    : add_(database,
           "INSERT INTO temporary(kind, root, folder, inode, birth, name, original, folderID)"
           " VALUES(?, ?, ?, ?, ?, ?, ?, ?)"
           " RETURNING number"),
      setKind_(database, "UPDATE temporary SET kind = ? WHERE number = ?"),
      remove_(database, "DELETE FROM temporary WHERE number = ?"),
      all_(database,
           "SELECT number, kind, root, folder, inode, birth, name, original, folderID FROM temporary ORDER BY number") {
}

std::uint64_t Temporaries::add(const Temporary& temporary) {
    StatementScope add(add_);
    add->bind(1, static_cast<std::uint64_t>(temporary.kind)).bindBytes(2, temporary.root);
    add->bindBytes(3, temporary.folder).bind(4, temporary.folderInode).bindSigned(5, temporary.folderBirth);
    add->bindBytes(6, temporary.name).bindBytes(7, temporary.original);
    if (temporary.folderID) {
        add->bind(8, raw(*temporary.folderID));
    } else {
        add->bindNull(8);
    }
    return add->step() ? add_.unsignedAt(0) : 0;
}

void Temporaries::setKind(std::uint64_t number, TemporaryKind kind) {
    StatementScope set(setKind_);
    set->bind(1, static_cast<std::uint64_t>(kind)).bind(2, number).run();
}

void Temporaries::remove(std::uint64_t number) {
    StatementScope remove(remove_);
    remove->bind(1, number).run();
}

std::vector<Temporary> Temporaries::all() {
    std::vector<Temporary> found;
    StatementScope all(all_);
    while (all->step()) {
        Temporary temporary;
        temporary.number = all_.unsignedAt(0);
        temporary.kind = static_cast<TemporaryKind>(all_.unsignedAt(1));
        temporary.root = all_.bytesAt(2);
        temporary.folder = all_.bytesAt(3);
        temporary.folderInode = all_.unsignedAt(4);
        temporary.folderBirth = all_.signedAt(5);
        temporary.name = all_.bytesAt(6);
        temporary.original = all_.bytesAt(7);
        if (!all_.isNullAt(8)) temporary.folderID = FileID{all_.unsignedAt(8)};
        found.push_back(std::move(temporary));
    }
    return found;
}

}  // namespace tarnwell::store
