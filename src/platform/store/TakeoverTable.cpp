#include "platform/store/TakeoverTable.h"

namespace tarnwell::store {

TakeoverTable::TakeoverTable(Database& database)
    : add_(database,
           "INSERT INTO takeover(displaced, docID, successor, folder, name, oldFolder, oldPath, recent) "
           "VALUES(?, ?, ?, ?, ?, ?, ?, ?)"),
      all_(database,
           "SELECT displaced, docID, successor, folder, name, oldFolder, oldPath, recent FROM takeover ORDER BY id"),
      clear_(database, "DELETE FROM takeover") {}

void TakeoverTable::add(const Takeover& takeover) {
    StatementScope add(add_);
    add->bind(1, raw(takeover.displaced))
        .bind(2, raw(takeover.documentID))
        .bind(3, raw(takeover.successor))
        .bind(4, takeover.folder)
        .bindBytes(5, takeover.name)
        .bind(6, takeover.successorsOldFolder)
        .bindBytes(7, takeover.successorsOldPath)
        .bind(8, takeover.isRecent ? 1 : 0)
        .run();
}

std::vector<Takeover> TakeoverTable::all() {
    std::vector<Takeover> takeovers;
    StatementScope all(all_);
    while (all->step()) {
        takeovers.push_back({FileID{all->unsignedAt(0)}, DocumentID{static_cast<std::uint32_t>(all->unsignedAt(1))},
                             FileID{all->unsignedAt(2)}, all->unsignedAt(3), std::string(all->bytesAt(4)),
                             all->unsignedAt(5), std::string(all->bytesAt(6)), all->unsignedAt(7) != 0});
    }
    return takeovers;
}

void TakeoverTable::clear() {
    StatementScope clear(clear_);
    clear->run();
}

}  // namespace tarnwell::store
