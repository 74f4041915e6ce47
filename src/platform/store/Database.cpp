#include "platform/store/Database.h"

#include <cerrno>

#include <sqlite3.h>

#include "platform/store/PageChecksums.h"

namespace tarnwell::store {

Error makeError(StoreError code, std::string message) {
    return Error{ErrorDomain::store, static_cast<std::int64_t>(code), {{kErrorMessage, std::move(message)}}};
}

namespace {

/// Ten megabytes: what a commit that goes on without a pause lets the log grow to.
constexpr std::size_t kMostPagesAhead = 2500;

Error errorFor(int code, const std::string& path, const std::string& what) {
    int primary = code & 0xff;
    if (primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB || code == SQLITE_IOERR_DATA) {
        return makeError(StoreError::damaged, "the database " + path + " is damaged (" + what + ")");
    }
    if (primary == SQLITE_FULL) {
        return posixError(ENOSPC, "no space left for the store at " + path);
    }
    return makeError(StoreError::unusable, "the database " + path + " cannot be used: " + what);
}

}  // namespace

Result<std::unique_ptr<Database>> Database::open(const std::string& path) {
    std::unique_ptr<Database> database(new Database);
    database->path_ = path;
    int code = sqlite3_open_v2(path.c_str(), &database->handle_,
                               SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_NOFOLLOW,
                               checksumLayer());
    if (code != SQLITE_OK) {
        std::string why = database->handle_ != nullptr ? sqlite3_errmsg(database->handle_) : "no memory";
        return failure(errorFor(code, path, why));
    }
    sqlite3_extended_result_codes(database->handle_, 1);
    reserveChecksums(database->handle_);
    // The owner's lock keeps other processes out, so the connection may keep the file locked and needs no shared
    // memory.
    database->execute("PRAGMA locking_mode=EXCLUSIVE");
    database->execute("PRAGMA journal_mode=WAL");
    // NORMAL survives the end of the process at any moment; what a power cut may take is covered by reserved ID ranges.
    database->execute("PRAGMA synchronous=NORMAL");
    database->execute("PRAGMA cache_size=-32768");
    database->execute("PRAGMA temp_store=MEMORY");
    database->execute("PRAGMA trusted_schema=OFF");
    if (auto error = database->takeError()) return failure(*error);
    sqlite3_wal_hook(database->handle_, noteCommit, database.get());
    return database;
}

Database::~Database() {
    if (handle_ != nullptr) sqlite3_close_v2(handle_);
}

void Database::execute(const char* sql) {
    if (error_) return;
    int code = sqlite3_exec(handle_, sql, nullptr, nullptr, nullptr);
    if (code != SQLITE_OK) fail(code, sql);
}

int Database::noteCommit(void* self, sqlite3*, const char*, int pages) {
    auto& database = *static_cast<Database*>(self);
    database.pagesAhead_ = static_cast<std::size_t>(pages);
    if (database.pagesAhead() >= kMostPagesAhead) database.checkpoint();
    return SQLITE_OK;
}

void Database::checkpoint() {
    sqlite3_wal_checkpoint_v2(handle_, nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
    pagesAhead_ = 0;
}

std::optional<Error> Database::takeError() {
    auto error = std::move(error_);
    error_.reset();
    return error;
}

std::int64_t Database::totalChanges() const { return sqlite3_total_changes64(handle_); }

void Database::fail(int code, const char* what) {
    if (!error_) error_ = errorFor(code, path_, std::string(sqlite3_errmsg(handle_)) + ", in " + what);
}

Statement::Statement(Database& database, std::string_view sql) : database_(database) {
    if (database_.error_) return;
    int code = sqlite3_prepare_v3(database_.handle_, sql.data(), static_cast<int>(sql.size()),
                                  SQLITE_PREPARE_PERSISTENT, &statement_, nullptr);
    if (code != SQLITE_OK) database_.fail(code, std::string(sql).c_str());
}

Statement::~Statement() { sqlite3_finalize(statement_); }

Statement& Statement::bind(int index, std::uint64_t value) {
    return bindSigned(index, static_cast<std::int64_t>(value));
}

Statement& Statement::bindSigned(int index, std::int64_t value) {
    if (statement_ != nullptr) sqlite3_bind_int64(statement_, index, value);
    return *this;
}

Statement& Statement::bindBytes(int index, std::string_view bytes) {
    if (statement_ != nullptr) {
        sqlite3_bind_blob64(statement_, index, bytes.empty() ? "" : bytes.data(), bytes.size(), SQLITE_TRANSIENT);
    }
    return *this;
}

Statement& Statement::bindText(int index, std::string_view text) {
    if (statement_ != nullptr) {
        sqlite3_bind_text64(statement_, index, text.empty() ? "" : text.data(), text.size(), SQLITE_TRANSIENT,
                            SQLITE_UTF8);
    }
    return *this;
}

Statement& Statement::bindNull(int index) {
    if (statement_ != nullptr) sqlite3_bind_null(statement_, index);
    return *this;
}

bool Statement::step() {
    if (statement_ == nullptr || database_.error_) return false;
    int code = sqlite3_step(statement_);
    if (code == SQLITE_ROW) return true;
    if (code != SQLITE_DONE) {
        database_.fail(code, sqlite3_sql(statement_));
        sqlite3_reset(statement_);
    }
    return false;
}

void Statement::run() {
    while (step()) {
    }
    reset();
}

void Statement::reset() {
    if (statement_ != nullptr) sqlite3_reset(statement_);
}

std::uint64_t Statement::unsignedAt(int column) const { return static_cast<std::uint64_t>(signedAt(column)); }

std::int64_t Statement::signedAt(int column) const {
    return statement_ != nullptr ? sqlite3_column_int64(statement_, column) : 0;
}

bool Statement::isNullAt(int column) const {
    return statement_ == nullptr || sqlite3_column_type(statement_, column) == SQLITE_NULL;
}

std::string_view Statement::bytesAt(int column) const {
    if (statement_ == nullptr) return {};
    const void* data = sqlite3_column_blob(statement_, column);
    int size = sqlite3_column_bytes(statement_, column);
    return data != nullptr ? std::string_view(static_cast<const char*>(data), static_cast<std::size_t>(size))
                           : std::string_view();
}

}  // namespace tarnwell::store
