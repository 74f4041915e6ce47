#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/base/Ids.h"
#include "platform/base/Result.h"
#include "platform/search/Tokenizer.h"
#include "platform/store/Database.h"

namespace tarnwell::search {

/// What an entry has from where it lies.
struct Belonging {
    std::optional<std::string> domain;
    bool isTrashed = false;
    friend bool operator==(const Belonging&, const Belonging&) = default;
};

/// One thing that can be found.
struct Entry {
    std::string key, parent;
    std::string name;  ///< bytes
    std::string type;
    std::vector<std::string> tags;
    std::optional<Date> created, modified, used;
    std::optional<std::uint64_t> size;
    bool isFolder = false;
    bool isHidden = false;  ///< is there for what lies below it, and never found
    Belonging own;
    Belonging below;  ///< of everything below a folder
};

/// The entries of one database file, what is known of them as a whole, and their words. Not for two threads at once.
///
/// T1: what an entry has from where it lies is what the folders above it give: whoever moves a folder tells of that
///     folder only, and everything below it follows.
/// T2: an entry goes with everything below it.
/// T3: what a transaction did not commit did not happen, however the process ended.
///
/// A failed operation leaves an error for the next `commit` or `check`, and the ones after it do nothing, so that a
/// transaction may run to its end and be judged once.
class EntryTable {
public:
    /// Opens or makes the file. `origin` says whose entries these are. Fails with StoreError::damaged for a file that
    /// is no such database, one of another version and one of another origin.
    static Result<std::unique_ptr<EntryTable>> open(const std::string& path, const std::string& origin);

    void begin();
    /// The first failure since `begin`, and everything undone; or it is all there.
    Result<void> commit();
    void rollBack();
    /// The first failure of reading.
    Result<void> check();

    // ---- in a transaction ----
    void put(const Entry& entry);
    void remove(const std::string& key);
    /// Everything with that domain.
    void removeDomain(const std::string& domain);
    void setFact(const std::string& name, std::string_view bytes);
    void removeFact(const std::string& name);
    /// Begins a round: whatever was put before it, and is not put again, goes with `sweep`.
    void beginRound();
    void sweep();

    // ---- reading ----
    bool has(const std::string& key);
    std::optional<std::string> fact(const std::string& name);
    std::uint64_t count();
    /// Every entry as one line that holds all of it, in the order of the keys. For looking at two tables.
    std::vector<std::string> lines();

    store::Database& database() { return *database_; }
    const Tokenizer& tokenizer() const { return *tokenizer_; }

private:
    EntryTable() = default;
    Result<void> prepare(const std::string& path, const std::string& origin);
    void prepareStatements();
    void putWords(std::int64_t id, const Entry& entry);
    void handDown(const std::string& key, const Belonging& below);
    void removeGathered();

    std::unique_ptr<store::Database> database_;
    std::unique_ptr<Tokenizer> tokenizer_;
    struct Statements;
    struct StatementsDeleter {
        void operator()(Statements* statements) const;
    };
    std::unique_ptr<Statements, StatementsDeleter> statements_;
    std::uint64_t round_ = 0;
};

}  // namespace tarnwell::search
