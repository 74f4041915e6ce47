#pragma once

#include <memory>
#include <string_view>

#include "platform/base/Result.h"

struct Fts5Tokenizer;
struct fts5_tokenizer;

namespace tarnwell::store {
class Database;
}

namespace tarnwell::search {

/// FTS5's own tokenizer, asked whether a text holds any word: an expression with a phrase of none would find nothing.
class Tokenizer {
public:
    /// Fails where the database's SQLite has no FTS5.
    static Result<std::unique_ptr<Tokenizer>> create(store::Database& database);
    ~Tokenizer();
    Tokenizer(const Tokenizer&) = delete;
    Tokenizer& operator=(const Tokenizer&) = delete;

    bool hasWords(std::string_view text) const;

private:
    Tokenizer();
    std::unique_ptr<fts5_tokenizer> functions_;
    Fts5Tokenizer* instance_ = nullptr;
};

}  // namespace tarnwell::search
