#include "platform/search/EntryTable.h"

#include <sys/stat.h>

#include <cstdlib>

#include "platform/search/Words.h"

namespace tarnwell::search {
namespace {

constexpr int kVersion = 1;
/// Up to this size the whole file is checked when it is opened; damage in a larger one is found where it is met.
constexpr off_t kAlwaysCheckedBytes = 4 << 20;
constexpr const char* kOrigin = "origin";
constexpr const char* kRound = "round";

/// `words` has a row for each entry, under its number. Two letters and three are looked up without a walk through all
/// words that begin so.
constexpr const char* kSchema = R"sql(
CREATE TABLE fact(name TEXT PRIMARY KEY, value BLOB NOT NULL) WITHOUT ROWID;
CREATE TABLE entry(id INTEGER PRIMARY KEY, key BLOB NOT NULL UNIQUE, parent BLOB NOT NULL, name BLOB NOT NULL,
  extension BLOB NOT NULL, type BLOB NOT NULL, created INTEGER, modified INTEGER, used INTEGER, size INTEGER,
  folder INTEGER NOT NULL, hidden INTEGER NOT NULL, domain BLOB, trashed INTEGER NOT NULL, belowDomain BLOB, belowTrashed INTEGER NOT NULL,
  round INTEGER NOT NULL);
CREATE INDEX entry_parent ON entry(parent);
CREATE INDEX entry_domain ON entry(domain) WHERE domain IS NOT NULL;
CREATE VIRTUAL TABLE words USING fts5(name, parts, tags, tokenize='unicode61 remove_diacritics 2', prefix='2 3');
)sql";

/// Also where folders stand in each other, as they may between two reports of a move.
constexpr const char* kBelow =
    "WITH RECURSIVE below(key) AS (VALUES(?1) UNION SELECT entry.key FROM entry, below "
    "WHERE entry.parent = below.key) ";

Error damaged(std::string why) { return store::makeError(store::StoreError::damaged, std::move(why)); }

void bindDate(store::Statement& statement, int index, const std::optional<Date>& date) {
    if (date) {
        statement.bindSigned(index, date->time_since_epoch().count());
    } else {
        statement.bindNull(index);
    }
}

void bindText(store::Statement& statement, int index, const std::optional<std::string>& text) {
    if (text) {
        statement.bindBytes(index, *text);
    } else {
        statement.bindNull(index);
    }
}

}  // namespace

struct EntryTable::Statements {
    explicit Statements(store::Database& db)
        : find(db, "SELECT id, belowDomain, belowTrashed FROM entry WHERE key = ?1"),
          insert(db,
                 "INSERT INTO entry(key, parent, name, extension, type, created, modified, used, size, folder, hidden, "
                 "domain, trashed, belowDomain, belowTrashed, round) "
                 "VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, ?13, ?14, ?15, ?16) RETURNING id"),
          update(db,
                 "UPDATE entry SET parent = ?2, name = ?3, extension = ?4, type = ?5, created = ?6, modified = ?7, "
                 "used = ?8, size = ?9, folder = ?10, hidden = ?11, domain = ?12, trashed = ?13, belowDomain = ?14, "
                 "belowTrashed = ?15, round = ?16 WHERE key = ?1"),
          wordsOf(db, "SELECT name, parts, tags FROM words WHERE rowid = ?1"),
          setWords(db, "INSERT OR REPLACE INTO words(rowid, name, parts, tags) VALUES(?1, ?2, ?3, ?4)"),
          handDown(db, (std::string(kBelow) +
                        "UPDATE entry SET domain = ?2, trashed = ?3, belowDomain = ?2, belowTrashed = ?3 "
                        "WHERE key IN (SELECT key FROM below) AND key <> ?1")),
          gather(db, (std::string(kBelow) +
                      "INSERT OR IGNORE INTO temp.leaving SELECT id FROM entry WHERE key IN (SELECT key FROM below)")),
          gatherDomain(db, "INSERT OR IGNORE INTO temp.leaving SELECT id FROM entry WHERE domain = ?1"),
          gatherStale(db, "INSERT OR IGNORE INTO temp.leaving SELECT id FROM entry WHERE round <> ?1"),
          removeWords(db, "DELETE FROM words WHERE rowid IN (SELECT id FROM temp.leaving)"),
          removeEntries(db, "DELETE FROM entry WHERE id IN (SELECT id FROM temp.leaving)"),
          forgetGathered(db, "DELETE FROM temp.leaving"),
          fact(db, "SELECT value FROM fact WHERE name = ?1"),
          setFact(db, "INSERT OR REPLACE INTO fact(name, value) VALUES(?1, ?2)"),
          removeFact(db, "DELETE FROM fact WHERE name = ?1"),
          count(db, "SELECT count(*) FROM entry") {}

    store::Statement find, insert, update, wordsOf, setWords, handDown;
    store::Statement gather, gatherDomain, gatherStale, removeWords, removeEntries, forgetGathered;
    store::Statement fact, setFact, removeFact, count;
};

void EntryTable::StatementsDeleter::operator()(Statements* statements) const { delete statements; }

Result<std::unique_ptr<EntryTable>> EntryTable::open(const std::string& path, const std::string& origin) {
    std::unique_ptr<EntryTable> table(new EntryTable);
    if (auto prepared = table->prepare(path, origin); !prepared) return failure(prepared.error());
    return table;
}

Result<void> EntryTable::prepare(const std::string& path, const std::string& origin) {
    struct stat status{};
    const bool exists = ::stat(path.c_str(), &status) == 0 && status.st_size > 0;
    auto database = store::Database::open(path);
    if (!database) return failure(database.error());
    database_ = std::move(*database);
    database_->execute("PRAGMA cell_size_check=ON");
    auto tokenizer = Tokenizer::create(*database_);
    if (!tokenizer) return failure(tokenizer.error());
    tokenizer_ = std::move(*tokenizer);
    {
        store::Statement version(*database_, "PRAGMA user_version");
        const std::int64_t found = version.step() ? version.signedAt(0) : 0;
        version.reset();
        if (!exists || found == 0) {
            // In one step, so that there is never half of it.
            database_->execute("BEGIN IMMEDIATE");
            database_->execute(kSchema);
            database_->execute(("PRAGMA user_version=" + std::to_string(kVersion)).c_str());
            store::Statement own(*database_, "INSERT INTO fact(name, value) VALUES('origin', ?1)");
            own.bindBytes(1, origin).run();
            database_->execute("COMMIT");
        } else if (found != kVersion) {
            return failure(damaged("its version is " + std::to_string(found)));
        }
    }
    if (auto error = database_->takeError()) {
        // Something with tables of its own that is not ours.
        return failure(exists && error->is(ErrorDomain::store, static_cast<std::int64_t>(store::StoreError::unusable))
                           ? damaged(describe(*error))
                           : *error);
    }
    if (exists && status.st_size <= kAlwaysCheckedBytes) {
        store::Statement check(*database_, "PRAGMA quick_check(1)");
        const std::string verdict = check.step() ? std::string(check.bytesAt(0)) : "no answer";
        check.reset();
        if (auto error = database_->takeError()) return failure(*error);
        if (verdict != "ok") return failure(damaged(verdict));
    }
    database_->execute("CREATE TEMP TABLE leaving(id INTEGER PRIMARY KEY)");
    statements_.reset(new Statements(*database_));
    const auto ownOrigin = fact(kOrigin);
    const auto round = fact(kRound);
    if (auto error = database_->takeError()) return failure(damaged(describe(*error)));
    if (ownOrigin != origin) return failure(damaged("it was made for another store"));
    if (round) round_ = std::strtoull(round->c_str(), nullptr, 10);
    return {};
}

void EntryTable::begin() { database_->execute("BEGIN IMMEDIATE"); }

Result<void> EntryTable::commit() {
    database_->execute("COMMIT");
    auto error = database_->takeError();
    if (!error) return {};
    rollBack();
    return failure(std::move(*error));
}

void EntryTable::rollBack() {
    (void)database_->takeError();
    database_->execute("ROLLBACK");
    // What failed may have ended the transaction itself.
    (void)database_->takeError();
}

Result<void> EntryTable::check() {
    auto error = database_->takeError();
    return error ? Result<void>(failure(std::move(*error))) : Result<void>();
}

void EntryTable::put(const Entry& entry) {
    Statements& own = *statements_;
    own.find.bindBytes(1, entry.key);
    std::optional<std::int64_t> id;
    std::optional<Belonging> formerBelow;
    if (own.find.step()) {
        id = own.find.signedAt(0);
        formerBelow.emplace();
        if (!own.find.isNullAt(1)) formerBelow->domain = std::string(own.find.bytesAt(1));
        formerBelow->isTrashed = own.find.signedAt(2) != 0;
    }
    own.find.reset();

    store::Statement& write = id ? own.update : own.insert;
    write.bindBytes(1, entry.key).bindBytes(2, entry.parent).bindBytes(3, entry.name);
    write.bindBytes(4, entry.isFolder ? std::string() : extensionOf(entry.name)).bindBytes(5, entry.type);
    bindDate(write, 6, entry.created);
    bindDate(write, 7, entry.modified);
    bindDate(write, 8, entry.used);
    if (entry.size) {
        write.bind(9, *entry.size);
    } else {
        write.bindNull(9);
    }
    write.bindSigned(10, entry.isFolder ? 1 : 0);
    write.bindSigned(11, entry.isHidden ? 1 : 0);
    bindText(write, 12, entry.own.domain);
    write.bindSigned(13, entry.own.isTrashed ? 1 : 0);
    bindText(write, 14, entry.below.domain);
    write.bindSigned(15, entry.below.isTrashed ? 1 : 0);
    write.bind(16, round_);
    if (write.step()) id = write.signedAt(0);
    write.reset();
    if (!id) return;

    putWords(*id, entry);
    if (formerBelow && *formerBelow != entry.below) handDown(entry.key, entry.below);
}

/// Most changes leave the words as they are, and writing them is what costs.
void EntryTable::putWords(std::int64_t id, const Entry& entry) {
    const std::string name = wordsOf(entry.name), parts = partsOf(entry.name), tags = wordsOfLabels(entry.tags);
    store::Statement& known = statements_->wordsOf;
    known.bindSigned(1, id);
    const bool isSame =
        known.step() && known.bytesAt(0) == name && known.bytesAt(1) == parts && known.bytesAt(2) == tags;
    known.reset();
    if (!isSame) statements_->setWords.bindSigned(1, id).bindText(2, name).bindText(3, parts).bindText(4, tags).run();
}

void EntryTable::handDown(const std::string& key, const Belonging& below) {
    store::Statement& statement = statements_->handDown;
    statement.bindBytes(1, key);
    bindText(statement, 2, below.domain);
    statement.bindSigned(3, below.isTrashed ? 1 : 0).run();
}

void EntryTable::remove(const std::string& key) {
    statements_->gather.bindBytes(1, key).run();
    removeGathered();
}

void EntryTable::removeDomain(const std::string& domain) {
    statements_->gatherDomain.bindBytes(1, domain).run();
    removeGathered();
}

void EntryTable::sweep() {
    statements_->gatherStale.bind(1, round_).run();
    removeGathered();
}

void EntryTable::removeGathered() {
    statements_->removeWords.run();
    statements_->removeEntries.run();
    statements_->forgetGathered.run();
}

void EntryTable::beginRound() {
    ++round_;
    setFact(kRound, std::to_string(round_));
}

void EntryTable::setFact(const std::string& name, std::string_view bytes) {
    statements_->setFact.bindText(1, name).bindBytes(2, bytes).run();
}

void EntryTable::removeFact(const std::string& name) { statements_->removeFact.bindText(1, name).run(); }

bool EntryTable::has(const std::string& key) {
    statements_->find.bindBytes(1, key);
    const bool found = statements_->find.step();
    statements_->find.reset();
    return found;
}

std::optional<std::string> EntryTable::fact(const std::string& name) {
    statements_->fact.bindText(1, name);
    std::optional<std::string> value;
    if (statements_->fact.step()) value = std::string(statements_->fact.bytesAt(0));
    statements_->fact.reset();
    return value;
}

std::uint64_t EntryTable::count() {
    const std::uint64_t count = statements_->count.step() ? statements_->count.unsignedAt(0) : 0;
    statements_->count.reset();
    return count;
}

std::vector<std::string> EntryTable::lines() {
    // All columns but the entry's number and its round, which say nothing of it.
    constexpr int kColumns = 18;
    store::Statement all(
        *database_,
        "SELECT e.key, e.parent, e.name, e.extension, e.type, e.created, e.modified, e.used, e.size, "
        "e.folder, e.hidden, e.domain, e.trashed, e.belowDomain, e.belowTrashed, w.name, w.parts, w.tags "
        "FROM entry e LEFT JOIN words w ON w.rowid = e.id ORDER BY e.key");
    std::vector<std::string> lines;
    while (all.step()) {
        std::string line;
        for (int column = 0; column < kColumns; ++column) {
            line += all.isNullAt(column) ? "-" : "\"" + std::string(all.bytesAt(column)) + "\"";
            line += ' ';
        }
        lines.push_back(std::move(line));
    }
    return lines;
}

}  // namespace tarnwell::search
