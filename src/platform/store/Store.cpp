#include "platform/store/Store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "platform/filesystem/PlainFile.h"

namespace tarnwell::store {

namespace {

constexpr int kSchemaVersion = 1;
constexpr const char* kDatabaseName = "index.sqlite";
constexpr const char* kDamageMark = "damaged";
/// Up to this size the whole file is checked at each start; a larger one after an unclean end.
constexpr off_t kAlwaysCheckedBytes = 4 << 20;
constexpr std::size_t kMuchAhead = 500;  // pages

constexpr const char* kSchema = R"sql(
CREATE TABLE meta(key TEXT PRIMARY KEY, value) WITHOUT ROWID;
CREATE TABLE counter(kind INTEGER PRIMARY KEY, next INTEGER NOT NULL, reserved INTEGER NOT NULL);
CREATE TABLE filesystem(id INTEGER PRIMARY KEY, identity TEXT NOT NULL UNIQUE);
CREATE TABLE object(
  position INTEGER PRIMARY KEY, fileID INTEGER NOT NULL, fs INTEGER NOT NULL, inode INTEGER NOT NULL,
  birth INTEGER NOT NULL, docID INTEGER, parent INTEGER NOT NULL, name BLOB NOT NULL, kind INTEGER NOT NULL,
  state INTEGER NOT NULL, listed INTEGER NOT NULL, entries INTEGER NOT NULL,
  changed INTEGER NOT NULL, size INTEGER NOT NULL, modified INTEGER NOT NULL, event INTEGER NOT NULL, change INTEGER NOT NULL);
CREATE UNIQUE INDEX object_file ON object(fileID);
CREATE UNIQUE INDEX object_identity ON object(inode, birth, fs);
CREATE UNIQUE INDEX object_document ON object(docID) WHERE docID IS NOT NULL;
CREATE INDEX object_order ON object(parent);
CREATE INDEX object_name ON object(parent, name);
CREATE INDEX object_folders ON object(parent) WHERE kind & 15 = 1;
CREATE INDEX object_event ON object(event) WHERE event > 0;
CREATE INDEX object_state ON object(state) WHERE state > 0;
CREATE TABLE retired(fileID INTEGER PRIMARY KEY);
CREATE TABLE link(parent INTEGER NOT NULL, name BLOB NOT NULL, fileID INTEGER NOT NULL, position INTEGER NOT NULL,
  PRIMARY KEY(parent, name)) WITHOUT ROWID;
CREATE INDEX link_object ON link(fileID);
CREATE TABLE departure(event INTEGER PRIMARY KEY, fileID INTEGER NOT NULL, docID INTEGER, folder INTEGER NOT NULL,
  path BLOB NOT NULL);
CREATE INDEX departure_object ON departure(fileID, folder);
CREATE TABLE docchange(docID INTEGER PRIMARY KEY, event INTEGER NOT NULL, source INTEGER NOT NULL,
  destination INTEGER NOT NULL);
CREATE INDEX docchange_event ON docchange(event);
CREATE TABLE continuation(id INTEGER PRIMARY KEY, reader BLOB NOT NULL, since INTEGER NOT NULL,
  offset INTEGER NOT NULL, path INTEGER NOT NULL, document INTEGER NOT NULL, folder INTEGER,
  folderOffset INTEGER NOT NULL, folderSince INTEGER NOT NULL, UNIQUE(reader, since, offset));
CREATE TABLE kept(fileID INTEGER NOT NULL, name BLOB NOT NULL, value BLOB NOT NULL, PRIMARY KEY(fileID, name));
CREATE TABLE lost(after INTEGER NOT NULL, upTo INTEGER NOT NULL);
)sql";

/// What came later. A store made before has them added when it is opened; one made by this version can still be read by
/// a program from before.
constexpr const char* kLaterTables = R"sql(
CREATE TABLE IF NOT EXISTS temporary(number INTEGER PRIMARY KEY, kind INTEGER NOT NULL, root BLOB NOT NULL,
  folder BLOB NOT NULL, inode INTEGER NOT NULL, birth INTEGER NOT NULL, name BLOB NOT NULL, original BLOB NOT NULL,
  folderID INTEGER);
CREATE TABLE IF NOT EXISTS trashed(number INTEGER PRIMARY KEY, inode INTEGER NOT NULL, birth INTEGER NOT NULL,
  fs INTEGER NOT NULL, folder INTEGER, name BLOB NOT NULL, nameInTrash BLOB NOT NULL, UNIQUE(inode, birth, fs));
CREATE TABLE IF NOT EXISTS takeover(id INTEGER PRIMARY KEY, displaced INTEGER NOT NULL, docID INTEGER NOT NULL,
  successor INTEGER NOT NULL, folder INTEGER NOT NULL, name BLOB NOT NULL, oldFolder INTEGER NOT NULL,
  oldPath BLOB NOT NULL, recent INTEGER NOT NULL);
)sql";

bool isDamage(const Error& error) {
    return error.is(ErrorDomain::store, static_cast<std::int64_t>(StoreError::damaged));
}

/// Moves a damaged database out of the way, so that a new one can be made and the old one looked at.
Result<std::string> setAside(const std::string& directory) {
    std::string base = directory + "/" + kDatabaseName;
    std::string aside = base + ".damaged-" + std::to_string(std::time(nullptr));
    for (const char* suffix : {"", "-wal", "-shm"}) {
        if (rename((base + suffix).c_str(), (aside + suffix).c_str()) != 0 && errno != ENOENT) {
            int code = errno;
            return failure(posixError(code, "the damaged database " + base + suffix + " cannot be set aside"));
        }
    }
    if (unlink((directory + "/" + kDamageMark).c_str()) != 0 && errno != ENOENT) {
        int code = errno;
        return failure(posixError(code, "the mark " + directory + "/" + kDamageMark + " cannot be removed"));
    }
    return aside;
}

}  // namespace

Result<std::unique_ptr<Store>> Store::open(const StoreOptions& options) {
    if (auto made = filesystem::createDirectories(options.directory); !made) {
        Error error = made.error();
        error.userInfo[kErrorMessage] = "the store's folder " + options.directory + " cannot be made";
        return failure(error);
    }
    auto lock = OwnerLock::acquire(options.directory + "/lock", options.patience);
    if (!lock) return failure(lock.error());

    std::unique_ptr<Store> store(new Store);
    store->directory_ = options.directory;
    store->ownerLock_ = std::move(*lock);

    bool marked = access((options.directory + "/" + kDamageMark).c_str(), F_OK) == 0;
    Result<void> prepared = marked
                                ? Result<void>(failure(makeError(StoreError::damaged, "it was found damaged before")))
                                : store->prepare();
    if (prepared) return store;
    if (!isDamage(prepared.error())) return failure(prepared.error());

    store->trashOrigins_.reset();
    store->temporaries_.reset();
    store->continuations_.reset();
    store->takeovers_.reset();
    store->kept_.reset();
    store->journal_.reset();
    store->index_.reset();
    store->numbers_.reset();
    store->database_.reset();
    auto aside = setAside(options.directory);
    if (!aside) return failure(aside.error());
    if (options.log != nullptr) {
        options.log->write(log::Level::error, "[ERROR] the store's database was damaged (" +
                                                  describe(prepared.error()) + "); it is kept as \"" + *aside +
                                                  "\" and a new one is built");
    }
    if (auto again = store->prepare(); !again) return failure(again.error());
    store->origin_ = StoreOrigin::recoveredAfterDamage;
    return store;
}

Result<void> Store::prepare() {
    std::string path = directory_ + "/" + kDatabaseName;
    struct stat status{};
    bool exists = stat(path.c_str(), &status) == 0 && status.st_size > 0;
    // EXCLUSIVE with a write-ahead log wants to create files; a folder that cannot be written is said plainly here.
    if (access(directory_.c_str(), W_OK) != 0) {
        int code = errno;
        return failure(posixError(code, "the store's folder " + directory_ + " cannot be written"));
    }
    auto database = Database::open(path);
    if (!database) return failure(database.error());
    database_ = std::move(*database);

    if (!exists) {
        database_->execute("BEGIN IMMEDIATE");
        database_->execute(kSchema);
        database_->execute(("PRAGMA user_version=" + std::to_string(kSchemaVersion)).c_str());
        Statement meta(*database_, "INSERT INTO meta(key, value) VALUES('uuid', ?)");
        meta.bindText(1, UUID::random().text()).run();
        database_->execute("COMMIT");
        origin_ = StoreOrigin::created;
    } else {
        Statement version(*database_, "PRAGMA user_version");
        std::int64_t found = version.step() ? version.signedAt(0) : -1;
        version.reset();
        if (auto error = database_->takeError()) return failure(*error);
        if (found > kSchemaVersion) {
            return failure(makeError(StoreError::unusable, "the database " + path + " was made by a newer version"));
        }
        if (found != kSchemaVersion)
            return failure(makeError(StoreError::damaged, "its version is " + std::to_string(found)));
        origin_ = StoreOrigin::reopened;
    }

    numbers_ = std::make_unique<Numbers>(*database_);
    numbers_->load();
    if (exists && (numbers_->endedUncleanly() || status.st_size <= kAlwaysCheckedBytes)) {
        Statement check(*database_, "PRAGMA quick_check(1)");
        std::string verdict = check.step() ? std::string(check.bytesAt(0)) : "no answer";
        check.reset();
        if (auto error = database_->takeError()) return failure(*error);
        if (verdict != "ok") return failure(makeError(StoreError::damaged, verdict));
    }
    database_->execute(kLaterTables);
    if (auto error = database_->takeError()) return failure(*error);
    Statement uuid(*database_, "SELECT value FROM meta WHERE key = 'uuid'");
    auto parsed = uuid.step() ? UUID::parse(uuid.bytesAt(0)) : std::nullopt;
    uuid.reset();
    Statement compared(*database_, "SELECT value FROM meta WHERE key = 'compared'");
    comparedKept_ = compared.step() ? compared.signedAt(0) : 0;
    compared.reset();
    compared_.store(comparedKept_);
    index_ = std::make_unique<Index>(*database_, *numbers_);
    journal_ = std::make_unique<Journal>(*database_, *numbers_);
    kept_ = std::make_unique<KeptTable>(*database_);
    takeovers_ = std::make_unique<TakeoverTable>(*database_);
    continuations_ = std::make_unique<Continuations>(*database_);
    temporaries_ = std::make_unique<Temporaries>(*database_);
    trashOrigins_ = std::make_unique<TrashOrigins>(*database_);
    if (auto error = database_->takeError()) {
        // A statement that cannot be prepared on a database of this version means that its schema is not what it was.
        return failure(exists ? makeError(StoreError::damaged, describe(*error)) : *error);
    }
    if (!parsed) return failure(makeError(StoreError::damaged, "it has no identity"));
    uuid_ = *parsed;

    if (numbers_->endedUncleanly()) {
        numbers_->prepareForWriting();
        database_->execute("BEGIN IMMEDIATE");
        journal_->addLostRange(numbers_->lastCommittedEventAtStart(), numbers_->lastIssuedEventAtStart());
        numbers_->beforeCommit();
        database_->execute("COMMIT");
        if (auto error = database_->takeError()) return failure(*error);
    }
    lastEvent_.store(numbers_->lastEvent(), std::memory_order_release);
    return {};
}

Store::~Store() {
    if (database_ == nullptr) return;
    if (numbers_ != nullptr && !database_->error()) {
        keepCompared();
        numbers_->saveExact();
    }
    // Statements go before their connection.
    takeovers_.reset();
    trashOrigins_.reset();
    temporaries_.reset();
    kept_.reset();
    continuations_.reset();
    journal_.reset();
    index_.reset();
    numbers_.reset();
    database_.reset();
}

/// For displays only, so that a few seconds are not worth a write.
void Store::keepCompared() {
    constexpr std::int64_t kWorthAWrite = 60;
    const std::int64_t when = compared_.load();
    if (when - comparedKept_ < kWorthAWrite) return;
    Statement keep(*database_, "INSERT OR REPLACE INTO meta(key, value) VALUES('compared', ?)");
    keep.bindSigned(1, when).run();
}

void Store::tidy() {
    const std::unique_lock lock(mutex_, std::try_to_lock);
    if (lock && isUntidy()) database_->checkpoint();
}

bool Store::isUntidy() const { return database_->pagesAhead() >= kMuchAhead; }

void Store::setCommitListener(std::function<void()> listener) {
    std::lock_guard lock(listenerMutex_);
    listener_ = std::move(listener);
}

Session::Session(Store& store) : store_(store), lock_(store.mutex_) {}

Session::~Session() {
    if (writing_) {
        store_.database_->takeError();
        store_.database_->execute("ROLLBACK");
        store_.numbers_->afterTransaction();
        store_.index_->forgetFolders();
    }
    store_.database_->takeError();
}

void Session::write() {
    if (writing_) return;
    store_.numbers_->prepareForWriting();
    store_.database_->execute("BEGIN IMMEDIATE");
    writing_ = true;
}

Result<void> Session::check() {
    auto error = store_.database_->takeError();
    if (!error) return {};
    if (isDamage(*error)) {
        // The next start sets the database aside; this run can only say so.
        Descriptor mark(::open((store_.directory_ + "/" + kDamageMark).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
        error->userInfo[kErrorMessage] += "; it is rebuilt at the next start";
    }
    return failure(*error);
}

Result<void> Session::commit() {
    if (writing_) {
        store_.numbers_->beforeCommit();
        store_.database_->execute("COMMIT");
        if (store_.database_->error()) {
            auto result = check();
            store_.database_->execute("ROLLBACK");
            store_.database_->takeError();
            store_.index_->forgetFolders();
            writing_ = false;
            store_.numbers_->afterTransaction();
            return result;
        }
        writing_ = false;
        store_.numbers_->afterTransaction();
    }
    if (auto result = check(); !result) return result;
    std::uint64_t reached = store_.numbers_->lastEvent();
    bool advanced = reached > raw(store_.lastEventID());
    if (advanced) store_.lastEvent_.store(reached, std::memory_order_release);
    lock_.unlock();
    if (advanced) {
        std::lock_guard listenerLock(store_.listenerMutex_);
        if (store_.listener_) store_.listener_();
    }
    return {};
}

}  // namespace tarnwell::store
