#include "platform/store/Continuations.h"

namespace tarnwell::store {

Continuations::Continuations(Database& database)
    : add_(database,
           "INSERT OR REPLACE INTO continuation(reader, since, offset, path, document, folder, folderOffset, "
           "folderSince)"
           " VALUES(?, ?, ?, ?, ?, ?, ?, ?)"),
      find_(database,
            "SELECT path, document, folder, folderOffset, folderSince FROM continuation"
            " WHERE reader = ? AND since = ? AND offset = ?"),
      trim_(database, "DELETE FROM continuation WHERE id <= (SELECT max(id) FROM continuation) - ?") {}

bool Continuation::isBefore(const Continuation& other) const {
    if (path != other.path) return raw(path) < raw(other.path);
    // A folder that is being told of is behind its own record, and before what comes after it.
    if (folder.has_value() != other.folder.has_value()) return folder.has_value();
    if (folder && folderOffset != other.folderOffset) return folderOffset < other.folderOffset;
    return raw(document) < raw(other.document);
}

void Continuations::remember(const BatchKey& key, const Continuation& continuation) {
    if (const auto known = find(key); known && !continuation.isBefore(*known)) return;
    StatementScope add(add_);
    add->bindBytes(1, key.reader).bind(2, raw(key.since)).bind(3, key.offset);
    add->bind(4, raw(continuation.path)).bind(5, raw(continuation.document));
    if (continuation.folder) {
        add->bind(6, raw(*continuation.folder));
    } else {
        add->bindNull(6);
    }
    add->bind(7, continuation.folderOffset).bind(8, raw(continuation.folderSince)).run();
    StatementScope trim(trim_);
    trim->bind(1, kMostKept).run();
}

std::optional<Continuation> Continuations::find(const BatchKey& key) {
    StatementScope find(find_);
    find->bindBytes(1, key.reader).bind(2, raw(key.since)).bind(3, key.offset);
    if (!find->step()) return std::nullopt;
    Continuation continuation;
    continuation.path = EventID{find_.unsignedAt(0)};
    continuation.document = EventID{find_.unsignedAt(1)};
    if (!find_.isNullAt(2)) continuation.folder = FileID{find_.unsignedAt(2)};
    continuation.folderOffset = find_.unsignedAt(3);
    continuation.folderSince = EventID{find_.unsignedAt(4)};
    return continuation;
}

}  // namespace tarnwell::store
