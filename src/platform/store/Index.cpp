#include "platform/store/Index.h"

#include "platform/store/Numbers.h"

namespace tarnwell::store {

namespace {

constexpr std::uint32_t kKindMask = 0x0f, kPackageBit = 0x10, kVisibleBit = 0x20, kBareBit = 0x40;

#define TARNWELL_ENTRY_COLUMNS \
    "position, fileID, fs, inode, birth, docID, parent, name, kind, state, listed, entries, changed"
#define TARNWELL_ROW_COLUMNS TARNWELL_ENTRY_COLUMNS ", size, modified, event, change"

}  // namespace

Index::Index(Database& database, Numbers& numbers)
    : database_(database),
      numbers_(numbers),
      byFileID_(database, "SELECT " TARNWELL_ROW_COLUMNS " FROM object WHERE fileID = ?"),
      byIdentity_(database, "SELECT " TARNWELL_ROW_COLUMNS " FROM object WHERE fs = ? AND inode = ? AND birth = ?"),
      byDocument_(database, "SELECT " TARNWELL_ROW_COLUMNS " FROM object WHERE docID = ?"),
      children_(database, "SELECT " TARNWELL_ENTRY_COLUMNS
                          " FROM object WHERE parent = ? AND position > ? AND state = 0 ORDER BY position LIMIT ?"),
      allChildren_(database, "SELECT " TARNWELL_ROW_COLUMNS
                             " FROM object WHERE parent = ? AND position > ? AND state < 2 ORDER BY position LIMIT ?"),
      childNamed_(database, "SELECT " TARNWELL_ROW_COLUMNS
                            " FROM object WHERE parent = ? AND name = ? AND state < 2 ORDER BY state"),
      folders_(database, "SELECT " TARNWELL_ENTRY_COLUMNS
                         " FROM object WHERE parent = ? AND kind & 15 = 1 AND state = 0 ORDER BY position"),
      positions_(database,
                 "SELECT position, substr(name, 1, 1) FROM object WHERE parent = ? AND position > ? AND "
                 "state = 0 ORDER BY position"),
      insert_(database, "INSERT INTO object(" TARNWELL_ROW_COLUMNS ") VALUES(?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?)"),
      update_(database,
              "UPDATE object SET position=?, fs=?, inode=?, birth=?, docID=?, parent=?, name=?, kind=?, state=?, "
              "listed=?, entries=?, changed=?, size=?, modified=?, event=?, change=? WHERE fileID=?"),
      updateInPlace_(database,
                     "UPDATE object SET listed=?10, entries=?11, changed=?12, size=?13, modified=?14, event=?15, "
                     "change=?16 WHERE fileID=?17 AND position=?1 AND fs=?2 AND inode=?3 AND birth=?4 AND docID IS ?5 "
                     "AND parent=?6 AND name=?7 AND kind=?8 AND state=?9"),
      updateName_(database,
                  "UPDATE object SET name=?7, kind=?8, state=?9, listed=?10, entries=?11, changed=?12, size=?13, "
                  "modified=?14, event=?15, change=?16 WHERE fileID=?17 AND position=?1 AND fs=?2 AND inode=?3 AND "
                  "birth=?4 AND docID IS ?5 AND parent=?6"),
      setListed_(database, "UPDATE object SET listed = ?, entries = ? WHERE fileID = ?"),
      setBare_(database, "UPDATE object SET kind = kind | 64 WHERE position = ? AND changed = ?"),
      setState_(database, "UPDATE object SET state = ? WHERE fileID = ?"),
      issued_(database, "SELECT 1 FROM object WHERE fileID = ?1 UNION ALL SELECT 1 FROM retired WHERE fileID = ?1"),
      linksIn_(database, "SELECT fileID, parent, name, position FROM link WHERE parent = ?"),
      linksOf_(database, "SELECT fileID, parent, name, position FROM link WHERE fileID = ? ORDER BY position") {
    static_assert(static_cast<int>(FileKind::directory) == 1 && kBareBit == 64,
                  "the statements and the index above name the kind and its bits by number");
}

void Index::readEntry(const Statement& s, EntryRow& row) {
    row.position = s.unsignedAt(0);
    row.fileID = FileID{s.unsignedAt(1)};
    row.identity = {static_cast<std::uint32_t>(s.unsignedAt(2)), s.unsignedAt(3), s.signedAt(4)};
    if (!s.isNullAt(5)) row.documentID = DocumentID{static_cast<std::uint32_t>(s.unsignedAt(5))};
    row.parent = s.unsignedAt(6);
    row.name = s.bytesAt(7);
    auto kind = static_cast<std::uint32_t>(s.unsignedAt(8));
    row.kind = static_cast<FileKind>(kind & kKindMask);
    row.package = (kind & kPackageBit) != 0;
    row.visible = (kind & kVisibleBit) != 0;
    row.bare = (kind & kBareBit) != 0;
    row.state = static_cast<ObjectState>(s.unsignedAt(9));
    row.listed = s.signedAt(10);
    row.entries = static_cast<std::uint32_t>(s.unsignedAt(11));
    row.changed = s.signedAt(12);
}

ObjectRow Index::rowFrom(const Statement& s) {
    ObjectRow row;
    readEntry(s, row);
    row.size = s.unsignedAt(13);
    row.modified = s.signedAt(14);
    row.event = s.unsignedAt(15);
    row.change = static_cast<std::uint32_t>(s.unsignedAt(16));
    return row;
}

/// Binds every column but position and file ID, beginning at parameter `i`.
void Index::bindRow(Statement& s, const ObjectRow& row, int i) {
    s.bind(i, row.identity.fileSystem).bind(i + 1, row.identity.inode).bindSigned(i + 2, row.identity.birth);
    if (row.documentID) {
        s.bind(i + 3, raw(*row.documentID));
    } else {
        s.bindNull(i + 3);
    }
    std::uint32_t kind = static_cast<std::uint32_t>(row.kind) | (row.package ? kPackageBit : 0) |
                         (row.visible ? kVisibleBit : 0) | (row.bare ? kBareBit : 0);
    s.bind(i + 4, row.parent).bindBytes(i + 5, row.name).bind(i + 6, kind);
    s.bind(i + 7, static_cast<std::uint64_t>(row.state)).bindSigned(i + 8, row.listed).bind(i + 9, row.entries);
    s.bindSigned(i + 10, row.changed).bind(i + 11, row.size).bindSigned(i + 12, row.modified);
    s.bind(i + 13, row.event).bind(i + 14, row.change);
}

std::uint32_t Index::fileSystemNumber(const std::string& identity) {
    Statement find(database_, "SELECT id FROM filesystem WHERE identity = ?");
    find.bindText(1, identity);
    if (find.step()) return static_cast<std::uint32_t>(find.unsignedAt(0));
    Statement add(database_, "INSERT INTO filesystem(identity) VALUES(?) RETURNING id");
    add.bindText(1, identity);
    auto number = add.step() ? static_cast<std::uint32_t>(add.unsignedAt(0)) : 0;
    add.run();
    return number;
}

std::optional<ObjectRow> Index::byFileID(FileID fileID) {
    StatementScope s(byFileID_);
    s->bind(1, raw(fileID));
    return s->step() ? std::optional(rowFrom(byFileID_)) : std::nullopt;
}

std::optional<ObjectRow> Index::byIdentity(const ObjectIdentity& identity) {
    StatementScope s(byIdentity_);
    s->bind(1, identity.fileSystem).bind(2, identity.inode).bindSigned(3, identity.birth);
    return s->step() ? std::optional(rowFrom(byIdentity_)) : std::nullopt;
}

std::optional<ObjectRow> Index::byDocumentID(DocumentID documentID) {
    StatementScope s(byDocument_);
    s->bind(1, raw(documentID));
    return s->step() ? std::optional(rowFrom(byDocument_)) : std::nullopt;
}

const FolderNode* Index::folderNode(std::uint64_t fileID) {
    if (auto it = folderNodes_.find(fileID); it != folderNodes_.end()) return &it->second;
    auto row = byFileID(FileID{fileID});
    if (!row) return nullptr;
    if (folderNodes_.size() >= kMostFolderNodes) folderNodes_.clear();
    FolderNode node{row->identity, row->documentID, row->parent,
                    row->name,     row->package,    row->state == ObjectState::live};
    return &folderNodes_.emplace(fileID, std::move(node)).first->second;
}

std::vector<EntryRow> Index::children(FileID folder, std::uint64_t afterPosition, std::size_t limit) {
    std::vector<EntryRow> rows;
    rows.reserve(limit);
    StatementScope s(children_);
    s->bind(1, raw(folder)).bind(2, afterPosition).bind(3, limit);
    while (s->step()) readEntry(children_, rows.emplace_back());
    return rows;
}

std::vector<ObjectRow> Index::allChildren(FileID folder, std::uint64_t afterPosition, std::size_t limit) {
    std::vector<ObjectRow> rows;
    StatementScope s(allChildren_);
    s->bind(1, raw(folder)).bind(2, afterPosition).bind(3, limit);
    while (s->step()) rows.push_back(rowFrom(allChildren_));
    return rows;
}

std::optional<ObjectRow> Index::childNamed(FileID folder, std::string_view name) {
    StatementScope s(childNamed_);
    s->bind(1, raw(folder)).bindBytes(2, name);
    return s->step() ? std::optional(rowFrom(childNamed_)) : std::nullopt;
}

std::vector<ObjectRow> Index::childrenNamed(FileID folder, std::string_view name) {
    std::vector<ObjectRow> rows;
    StatementScope s(childNamed_);
    s->bind(1, raw(folder)).bindBytes(2, name);
    while (s->step()) rows.push_back(rowFrom(childNamed_));
    return rows;
}

std::vector<EntryRow> Index::folders(FileID folder) {
    std::vector<EntryRow> rows;
    StatementScope s(folders_);
    s->bind(1, raw(folder));
    while (s->step()) readEntry(folders_, rows.emplace_back());
    return rows;
}

Index::Skipped Index::skipChildren(FileID folder, std::uint64_t afterPosition, std::uint64_t count, bool skipHidden) {
    Skipped skipped{0, afterPosition};
    StatementScope s(positions_);
    s->bind(1, raw(folder)).bind(2, afterPosition);
    while (skipped.count < count && s->step()) {
        if (skipHidden && positions_.bytesAt(1) == ".") continue;
        ++skipped.count;
        skipped.position = positions_.unsignedAt(0);
    }
    return skipped;
}

std::vector<ObjectRow> Index::inState(ObjectState state, std::size_t limit) {
    std::vector<ObjectRow> rows;
    Statement s(database_, "SELECT " TARNWELL_ROW_COLUMNS " FROM object WHERE state = ? AND state > 0 LIMIT ?");
    s.bind(1, static_cast<std::uint64_t>(state)).bind(2, limit);
    while (s.step()) rows.push_back(rowFrom(s));
    return rows;
}

bool Index::wasIssued(std::uint64_t fileID) {
    StatementScope s(issued_);
    s->bind(1, fileID);
    return s->step();
}

void Index::insert(ObjectRow& row) {
    std::uint64_t inode = row.identity.inode;
    // 0 is no file ID, and numbers from 2^62 on are the fresh ones.
    bool usable = inode != 0 && inode < Numbers::kFirstFreshFileID && !wasIssued(inode);
    row.fileID = usable ? FileID{inode} : numbers_.nextFreshFile();
    row.position = numbers_.nextPosition();
    StatementScope s(insert_);
    s->bind(1, row.position).bind(2, raw(row.fileID));
    bindRow(insert_, row, 3);
    s->run();
}

void Index::update(const ObjectRow& row) {
    // Most often it was only written to, or it has another name in the same folder. SQLite writes every index anew of
    // which a column is named, other value or not, and each lies on a page of its own; so first statements that name
    // few of them, and change nothing where another column differs.
    for (Statement* update : {&updateInPlace_, &updateName_, &update_}) {
        const std::int64_t before = database_.totalChanges();
        StatementScope s(*update);
        s->bind(1, row.position);
        bindRow(*update, row, 2);
        s->bind(17, raw(row.fileID));
        s->run();
        if (database_.totalChanges() != before) return;
        folderNodes_.erase(raw(row.fileID));
    }
}

void Index::setBare(std::uint64_t position, std::int64_t changed) {
    StatementScope s(setBare_);
    s->bind(1, position).bindSigned(2, changed);
    s->run();
}

void Index::setListed(FileID folder, std::int64_t listed, std::uint32_t entries) {
    StatementScope s(setListed_);
    s->bindSigned(1, listed).bind(2, entries).bind(3, raw(folder));
    s->run();
}

void Index::setState(FileID fileID, ObjectState state) {
    folderNodes_.erase(raw(fileID));
    StatementScope s(setState_);
    s->bind(1, static_cast<std::uint64_t>(state)).bind(2, raw(fileID));
    s->run();
}

std::uint64_t Index::purgeGone() {
    folderNodes_.clear();
    // Fresh numbers come from a counter, so only inode numbers need to be remembered.
    Statement retire(database_,
                     "INSERT OR IGNORE INTO retired SELECT fileID FROM object WHERE state = 2 AND fileID < ?"
                     " AND fileID > 0");
    retire.bind(1, Numbers::kFirstFreshFileID).run();
    Statement(database_, "DELETE FROM link WHERE fileID IN (SELECT fileID FROM object WHERE state = 2)").run();
    Statement(database_, "DELETE FROM kept WHERE fileID IN (SELECT fileID FROM object WHERE state = 2)").run();
    std::int64_t before = database_.totalChanges();
    Statement(database_, "DELETE FROM object WHERE state = 2").run();
    return static_cast<std::uint64_t>(database_.totalChanges() - before);
}

std::vector<LinkRow> Index::linksIn(std::uint64_t folder) {
    std::vector<LinkRow> rows;
    StatementScope s(linksIn_);
    s->bind(1, folder);
    while (s->step()) {
        rows.push_back({FileID{linksIn_.unsignedAt(0)}, linksIn_.unsignedAt(1), std::string(linksIn_.bytesAt(2)),
                        linksIn_.unsignedAt(3)});
    }
    return rows;
}

std::vector<LinkRow> Index::linksOf(FileID fileID) {
    std::vector<LinkRow> rows;
    StatementScope s(linksOf_);
    s->bind(1, raw(fileID));
    while (s->step()) {
        rows.push_back({fileID, linksOf_.unsignedAt(1), std::string(linksOf_.bytesAt(2)), linksOf_.unsignedAt(3)});
    }
    return rows;
}

void Index::addLink(const LinkRow& link) {
    Statement s(database_, "INSERT OR REPLACE INTO link(fileID, parent, name, position) VALUES(?, ?, ?, ?)");
    s.bind(1, raw(link.fileID)).bind(2, link.parent).bindBytes(3, link.name).bind(4, numbers_.nextPosition()).run();
}

void Index::removeLink(const LinkRow& link) {
    Statement s(database_, "DELETE FROM link WHERE parent = ? AND name = ?");
    s.bind(1, link.parent).bindBytes(2, link.name).run();
}

std::uint64_t Index::rowCount() {
    Statement s(database_, "SELECT count(*) FROM object");
    return s.step() ? s.unsignedAt(0) : 0;
}

}  // namespace tarnwell::store
