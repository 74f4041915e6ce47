#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/base/Ids.h"
#include "platform/base/Result.h"

struct sqlite3;
struct sqlite3_stmt;

namespace tarnwell::store {

/// Codes of ErrorDomain::store.
enum class StoreError : std::int64_t {
    damaged = 0,   ///< the database file is not readable as one
    inUse = 1,     ///< another process owns the store
    unusable = 2,  ///< cannot be opened or written
};
Error makeError(StoreError code, std::string message);

class Database;

/// A prepared statement. Parameters count from 1, columns from 0. Used under the database's lock only.
///
/// A failure is remembered by the database (see Database::error); after one, `step` gives false and columns are empty,
/// so that a sequence of statements may run to its end and be judged once.
class Statement {
public:
    Statement(Database& database, std::string_view sql);
    ~Statement();
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    Statement& bind(int index, std::uint64_t value);
    Statement& bindSigned(int index, std::int64_t value);
    Statement& bindBytes(int index, std::string_view bytes);
    Statement& bindText(int index, std::string_view text);
    Statement& bindNull(int index);

    /// Goes to the next row; false at the end or after a failure.
    bool step();
    /// Runs to the end and resets.
    void run();
    void reset();

    std::uint64_t unsignedAt(int column) const;
    std::int64_t signedAt(int column) const;
    bool isNullAt(int column) const;
    /// Valid until the next step or reset.
    std::string_view bytesAt(int column) const;

private:
    Database& database_;
    sqlite3_stmt* statement_ = nullptr;
};

/// Resets a statement at the end of a scope, so that it holds no read lock.
class StatementScope {
public:
    explicit StatementScope(Statement& statement) : statement_(statement) {}
    ~StatementScope() { statement_.reset(); }
    Statement* operator->() { return &statement_; }

private:
    Statement& statement_;
};

/// One SQLite connection. Not for use by two threads at once: its owner's lock guards it.
class Database {
public:
    /// Opens or creates the file, write-ahead logged, for this process alone.
    static Result<std::unique_ptr<Database>> open(const std::string& path);
    ~Database();
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    void execute(const char* sql);
    /// The first failure since it was last taken.
    const std::optional<Error>& error() const { return error_; }
    /// Returns and forgets the failure.
    std::optional<Error> takeError();
    /// Pages that were written to the log ahead of the file itself. When there are many, a commit brings them to their
    /// places, which waits for the disk; see `checkpoint`. Any thread.
    std::size_t pagesAhead() const { return pagesAhead_.load(std::memory_order_relaxed); }
    /// Brings them there at a time that the caller chooses. A failure leaves them where they are, which is as safe.
    void checkpoint();
    /// Rows changed by statements since the connection was opened.
    std::int64_t totalChanges() const;
    sqlite3* handle() const { return handle_; }

private:
    friend class Statement;
    Database() = default;
    void fail(int code, const char* what);
    static int noteCommit(void* self, sqlite3* handle, const char* name, int pages);
    sqlite3* handle_ = nullptr;
    std::string path_;
    std::optional<Error> error_;
    std::atomic<std::size_t> pagesAhead_ = 0;
};

}  // namespace tarnwell::store
