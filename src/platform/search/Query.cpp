#include "platform/search/Query.h"

#include <array>
#include <cerrno>
#include <optional>

#include "platform/search/Words.h"

namespace tarnwell::search {
namespace {

bool isSpace(char c) { return static_cast<unsigned char>(c) <= ' ' || c == '\x7f'; }

std::unexpected<Error> wrong(std::string message) { return failure(posixError(EINVAL, std::move(message))); }

enum class Field { words, tag, type, place };
struct FieldName {
    std::string_view prefix;
    Field field;
};
constexpr std::array<FieldName, 3> kFields = {{{"tag:", Field::tag}, {"type:", Field::type}, {"in:", Field::place}}};

struct Value {
    std::string text;
    bool isQuoted = false;
};

class Reader {
public:
    explicit Reader(std::string_view text) : text_(text) {}

    /// False at the end.
    bool skipSpace() {
        while (at_ < text_.size() && isSpace(text_[at_])) ++at_;
        return at_ < text_.size();
    }
    bool take(char c) {
        if (at_ >= text_.size() || text_[at_] != c) return false;
        ++at_;
        return true;
    }
    const FieldName* takeField() {
        for (const FieldName& name : kFields) {
            if (lowered(text_.substr(at_, name.prefix.size())) != name.prefix) continue;
            at_ += name.prefix.size();
            return &name;
        }
        return nullptr;
    }
    /// Up to the closing quotation mark, or to a space or a quotation mark.
    Result<Value> takeValue() {
        if (take('"')) {
            const std::size_t end = text_.find('"', at_);
            if (end == std::string_view::npos) {
                return wrong("the quotation mark before \"" + std::string(text_.substr(at_)) + "\" is not closed");
            }
            Value value{std::string(text_.substr(at_, end - at_)), true};
            at_ = end + 1;
            return value;
        }
        const std::size_t begin = at_;
        while (at_ < text_.size() && !isSpace(text_[at_]) && text_[at_] != '"') ++at_;
        return Value{std::string(text_.substr(begin, at_ - begin)), false};
    }

private:
    const std::string_view text_;
    std::size_t at_ = 0;
};

bool isBlank(const std::string& text) {
    for (const char c : text) {
        if (!isSpace(c)) return false;
    }
    return true;
}

void withoutStar(std::string& text) {
    while (text.ends_with('*')) text.pop_back();
}

Result<void> readTerm(Reader& reader, Query& query) {
    const bool isExcluded = reader.take('-');
    Conditions& side = isExcluded ? query.excluded : query.wanted;
    const FieldName* field = reader.takeField();
    auto value = reader.takeValue();
    if (!value) return failure(value.error());
    if (isBlank(value->text)) {
        if (field != nullptr) {
            return wrong("\"" + std::string(field->prefix) + "\" needs a value right after it, such as " +
                         (field->field == Field::type    ? "type:pdf"
                          : field->field == Field::place ? "in:Notes"
                                                         : "tag:urgent"));
        }
        if (isExcluded && !value->isQuoted) return wrong("\"-\" needs what it excludes right after it, such as -draft");
        return wrong("there is nothing between the quotation marks");
    }
    switch (field != nullptr ? field->field : Field::words) {
        case Field::words:
            if (!value->isQuoted) withoutStar(value->text);
            side.words.push_back({std::move(value->text), value->isQuoted ? Phrase::End::whole : Phrase::End::prefix});
            break;
        case Field::tag:
            side.tags.push_back(value->isQuoted ? Phrase{std::move(value->text), Phrase::End::whole}
                                                : tagFilter(value->text));
            break;
        case Field::type:
            side.types.push_back(std::move(value->text));
            break;
        case Field::place:
            side.places.push_back(std::move(value->text));
            break;
    }
    return {};
}

}  // namespace

Phrase tagFilter(std::string_view value) {
    Phrase phrase{std::string(value), value.ends_with('*') ? Phrase::End::prefix : Phrase::End::whole};
    withoutStar(phrase.text);
    return phrase;
}

Result<Query> parseQuery(std::string_view text) {
    if (text.size() > kMostQueryBytes) {
        return wrong("it is longer than " + std::to_string(kMostQueryBytes) + " bytes");
    }
    Query query;
    Reader reader(text);
    for (std::size_t terms = 0; reader.skipSpace(); ++terms) {
        if (terms == kMostTerms) return wrong("it has more than " + std::to_string(kMostTerms) + " words and filters");
        if (auto read = readTerm(reader, query); !read) return failure(read.error());
    }
    return query;
}

}  // namespace tarnwell::search
