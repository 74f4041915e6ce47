#include "platform/search/Tokenizer.h"

#include <sqlite3.h>

#include <array>

#include "platform/store/Database.h"

namespace tarnwell::search {
namespace {

int stopAtFirst(void* found, int /*flags*/, const char* /*token*/, int /*size*/, int /*begin*/, int /*end*/) {
    *static_cast<bool*>(found) = true;
    return SQLITE_DONE;
}

/// FTS5 hands its functions out through an SQL function that fills a pointer.
fts5_api* functionsOf(sqlite3* database) {
    fts5_api* api = nullptr;
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(database, "SELECT fts5(?1)", -1, &statement, nullptr) != SQLITE_OK) return nullptr;
    sqlite3_bind_pointer(statement, 1, static_cast<void*>(&api), "fts5_api_ptr", nullptr);
    sqlite3_step(statement);
    sqlite3_finalize(statement);
    return api;
}

}  // namespace

Result<std::unique_ptr<Tokenizer>> Tokenizer::create(store::Database& database) {
    std::unique_ptr<Tokenizer> tokenizer(new Tokenizer);
    fts5_api* api = functionsOf(database.handle());
    void* data = nullptr;
    std::array<const char*, 2> arguments = {"remove_diacritics", "2"};
    if (api == nullptr || api->xFindTokenizer(api, "unicode61", &data, tokenizer->functions_.get()) != SQLITE_OK ||
        tokenizer->functions_->xCreate(data, arguments.data(), static_cast<int>(arguments.size()),
                                       &tokenizer->instance_) != SQLITE_OK) {
        return failure(store::makeError(store::StoreError::unusable, "this SQLite cannot search: it has no FTS5"));
    }
    return tokenizer;
}

Tokenizer::Tokenizer() : functions_(std::make_unique<fts5_tokenizer>()) {}

Tokenizer::~Tokenizer() {
    if (instance_ != nullptr) functions_->xDelete(instance_);
}

bool Tokenizer::hasWords(std::string_view text) const {
    bool found = false;
    functions_->xTokenize(instance_, &found, FTS5_TOKENIZE_QUERY, text.data(), static_cast<int>(text.size()),
                          stopAtFirst);
    return found;
}

}  // namespace tarnwell::search
