#include "platform/store/KeptTable.h"

namespace tarnwell::store {

KeptTable::KeptTable(Database& database)
    : find_(database, "SELECT name, value FROM kept WHERE fileID = ? ORDER BY name"),
      remove_(database, "DELETE FROM kept WHERE fileID = ?"),
      add_(database, "INSERT INTO kept(fileID, name, value) VALUES(?, ?, ?)") {}

std::vector<KeptAttribute> KeptTable::of(FileID object) {
    std::vector<KeptAttribute> attributes;
    StatementScope find(find_);
    find->bind(1, raw(object));
    while (find->step()) {
        const ByteView value = bytesOf(find_.bytesAt(1));
        attributes.push_back({std::string(find_.bytesAt(0)), Bytes(value.begin(), value.end())});
    }
    return attributes;
}

void KeptTable::set(FileID object, std::span<const KeptAttribute> attributes) {
    StatementScope remove(remove_);
    remove->bind(1, raw(object)).run();
    for (const KeptAttribute& attribute : attributes) {
        StatementScope add(add_);
        add->bind(1, raw(object)).bindBytes(2, attribute.name).bindBytes(3, textOf(attribute.value)).run();
    }
}

}  // namespace tarnwell::store
