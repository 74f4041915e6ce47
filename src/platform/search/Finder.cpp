#include "platform/search/Finder.h"

#include <algorithm>
#include <cerrno>

#include "platform/search/Words.h"

namespace tarnwell::search {
namespace {

/// Text that FTS5 takes for nothing but words.
std::string quoted(std::string_view text) {
    std::string result = "\"";
    for (const char c : text) result += c == '"' ? std::string("\"\"") : std::string(1, c);
    return result + "\"";
}

/// The expressions of FTS5 for a query's phrases. All that a person wrote stands between quotation marks.
class Expressions {
public:
    explicit Expressions(const Tokenizer& tokenizer) : tokenizer_(tokenizer) {}

    /// Nothing for a phrase without a word.
    std::string ofWords(const Phrase& phrase) const {
        std::string result;
        for (const std::string& text : {wordsOf(phrase.text), partsOf(phrase.text)}) {
            if (!tokenizer_.hasWords(text)) continue;
            if (!result.empty()) result += " OR ";
            // The whole word beside its beginning, so that it counts more.
            result += quoted(text);
            if (phrase.end == Phrase::End::prefix) result += " OR " + quoted(text) + " *";
        }
        return result.empty() ? result : "(" + result + ")";
    }

    static std::string ofTag(const Phrase& phrase) {
        std::string text = std::string(kLabelBegin) + " " + wordsOf(phrase.text);
        if (phrase.end == Phrase::End::whole) return "(tags : " + quoted(text + " " + std::string(kLabelEnd)) + ")";
        return "(tags : " + quoted(text) + " *)";
    }

    static void add(std::string& all, const std::string& one, const char* between) {
        if (one.empty()) return;
        if (!all.empty()) all += between;
        all += one;
    }

    std::string of(const Conditions& conditions, const char* between) const {
        std::string all;
        for (const Phrase& phrase : conditions.words) add(all, ofWords(phrase), between);
        for (const Phrase& phrase : conditions.tags) add(all, ofTag(phrase), between);
        return all;
    }

private:
    const Tokenizer& tokenizer_;
};

/// An SQL statement under construction, with what will be bound to it.
class Sql {
public:
    /// A place for a value that is compared as bytes.
    std::string bind(std::string bytes) { return add({std::move(bytes), false}); }
    /// A place for an expression of FTS5.
    std::string bindExpression(std::string expression) { return add({std::move(expression), true}); }
    void bindAll(store::Statement& statement) const {
        int index = 0;
        for (const Value& value : values_) {
            ++index;
            if (value.isExpression) {
                statement.bindText(index, value.bytes);
            } else {
                statement.bindBytes(index, value.bytes);
            }
        }
    }

private:
    struct Value {
        std::string bytes;
        bool isExpression;
    };
    std::string add(Value value) {
        values_.push_back(std::move(value));
        return "?" + std::to_string(values_.size());
    }
    std::vector<Value> values_;
};

std::string ofType(Sql& sql, const std::string& asked) {
    const std::string type = lowered(asked);
    if (type == "folder") return "e.folder = 1";
    if (type == "file") return "e.folder = 0";
    if (type.ends_with("/*")) {
        const std::string at = sql.bind(type.substr(0, type.size() - 1));
        return "substr(e.type, 1, length(" + at + ")) = " + at;
    }
    if (type.contains('/')) return "e.type = " + sql.bind(type);
    const std::string major = sql.bind(type + "/"), minor = sql.bind("/" + type), ownMinor = sql.bind("/x-" + type);
    const std::string extension = sql.bind(type.starts_with('.') ? type.substr(1) : type);
    const auto endsWith = [](const std::string& at) { return "substr(e.type, -length(" + at + ")) = " + at; };
    return "(substr(e.type, 1, length(" + major + ")) = " + major + " OR " + endsWith(minor) + " OR " +
           endsWith(ownMinor) + " OR e.extension = " + extension + ")";
}

std::string isOneOf(Sql& sql, const std::vector<std::string>& types) {
    std::string all;
    for (const std::string& type : types) Expressions::add(all, ofType(sql, type), " OR ");
    return "(" + all + ")";
}

std::string isBelow(Sql& sql, const std::vector<std::string>& folders) {
    std::string values;
    for (const std::string& folder : folders) Expressions::add(values, "(" + sql.bind(folder) + ")", ", ");
    return "e.parent IN (WITH RECURSIVE below(key) AS (VALUES " + values +
           " UNION SELECT f.key FROM entry f, below WHERE f.parent = below.key AND f.folder = 1) "
           "SELECT key FROM below)";
}

std::string statementFor(const Search& search, const Expressions& expressions, const std::string& match, Sql& sql) {
    const Conditions &wanted = search.query.wanted, &excluded = search.query.excluded;
    std::string text = "SELECT e.key, e.name FROM ";
    text += match.empty()
                ? "entry e WHERE "
                : "words JOIN entry e ON e.id = words.rowid WHERE words MATCH " + sql.bindExpression(match) + " AND ";
    text += search.withTrashed ? "e.hidden = 0" : "e.hidden = 0 AND e.trashed = 0";
    if (!wanted.types.empty()) text += " AND " + isOneOf(sql, wanted.types);
    if (!excluded.types.empty()) text += " AND NOT " + isOneOf(sql, excluded.types);
    if (!search.below.empty()) text += " AND " + isBelow(sql, search.below);
    if (!search.notBelow.empty()) text += " AND NOT " + isBelow(sql, search.notBelow);
    if (const std::string none = expressions.of(excluded, " OR "); !none.empty()) {
        text += " AND e.id NOT IN (SELECT rowid FROM words WHERE words MATCH " + sql.bindExpression(none) + ")";
    }
    const bool isRanked = search.order != Order::newestFirst && !match.empty();
    // A name counts more than its parts, which hold the same again.
    return text + " ORDER BY " + (isRanked ? "bm25(words, 10.0, 5.0, 8.0), " : "") + "e.modified DESC, e.key";
}

}  // namespace

Result<std::vector<Hit>> find(EntryTable& table, const Search& search) {
    const Expressions expressions(table.tokenizer());
    const Conditions& wanted = search.query.wanted;
    const std::string match = expressions.of(wanted, " AND ");
    if (match.empty() && !wanted.words.empty()) {
        return failure(posixError(
            EINVAL, "there is no letter, digit or sign to look for in \"" + wanted.words.front().text + "\""));
    }
    Sql sql;
    store::Statement statement(table.database(), statementFor(search, expressions, match, sql));
    sql.bindAll(statement);
    std::vector<Hit> hits;
    while (statement.step()) hits.push_back({std::string(statement.bytesAt(0)), std::string(statement.bytesAt(1))});
    statement.reset();
    if (auto checked = table.check(); !checked) return failure(checked.error());
    if (search.order == Order::byName) std::ranges::stable_sort(hits, search.names, &Hit::name);
    return hits;
}

}  // namespace tarnwell::search
