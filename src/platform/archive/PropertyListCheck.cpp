#include <array>

#include "platform/archive/PropertyListDocument.h"

namespace tarnwell::archive {

/// Walks through the tree of a document, an object as often as it is referred to, and counts what a reader of it would
/// hand out. Keeps nothing but the way from the top.
class PropertyListDocument::Check {
public:
    explicit Check(const PropertyListDocument& document) : document_(document) {}

    Refusal run() { return check(document_.object(document_.topObject_), document_.topObject_, 0, Role::value); }

private:
    enum class Role : std::uint8_t { value, key };

    /// The object and all below it. `depth` is the number of containers around it.
    Refusal check(const ObjectView object, std::size_t number, std::size_t depth, Role role) {
        using Kind = ObjectView::Kind;
        Refusal why = nullptr;
        switch (object.kind()) {
            case Kind::text:
                return checkText(object);
            case Kind::array:
                why = checkArray(object, number, depth);
                break;
            case Kind::dictionary:
                why = checkDictionary(object, number, depth);
                break;
            case Kind::data:
                why = checkData(object);
                break;
            case Kind::integer:
                why = checkScalar<Integer>(object);
                break;
            case Kind::real:
                why = checkScalar<double>(object);
                break;
            case Kind::date:
                why = checkScalar<PlistDate>(object);
                break;
            case Kind::uid:
                why = checkScalar<Uid>(object);
                break;
            case Kind::null:
            case Kind::boolean:
                break;
            case Kind::unknown:
                return "unknown marker";
        }
        return !why && role == Role::key ? "dictionary key is no string" : why;
    }

    template <typename T>
    static Refusal checkScalar(const ObjectView& object) {
        T value;
        return object.read(value);
    }

    Refusal countContent(std::size_t bytes) {
        if (bytes > kMaxPlistContentBytes - contentRead_) return kTooMuchContent;
        contentRead_ += bytes;
        return nullptr;
    }

    Refusal checkData(const ObjectView& object) {
        DataView data;
        if (const Refusal why = object.read(data)) return why;
        return countContent(data.bytes.size());
    }

    Refusal checkText(const ObjectView& object) {
        TextView text;
        if (const Refusal why = object.read(text)) return why;
        // Before the characters are looked at: many references to one long string must not be gone through first.
        if (text.units() > kMaxPlistContentBytes - contentRead_) return kTooMuchContent;
        const auto size = text.sizeAsUtf8();
        if (size) return countContent(*size);
        return text.encoding == TextView::Encoding::ascii ? "string is no ASCII" : "string is no UTF-16";
    }

    Refusal checkArray(const ObjectView& object, std::size_t number, std::size_t depth) {
        ArrayView array;
        if (const Refusal why = object.read(array)) return why;
        if (const Refusal why = enter(number, array, 1, depth)) return why;
        const auto count = static_cast<std::size_t>(array.count);
        for (std::size_t i = 0; i < count; ++i)
            if (const Refusal why = checkEntry(array, i, depth + 1, Role::value)) return why;
        return nullptr;
    }

    Refusal checkDictionary(const ObjectView& object, std::size_t number, std::size_t depth) {
        DictionaryView dictionary;
        if (const Refusal why = object.read(dictionary)) return why;
        if (const Refusal why = enter(number, dictionary, 2, depth)) return why;
        const auto count = static_cast<std::size_t>(dictionary.count);
        for (std::size_t i = 0; i < count; ++i) {
            if (const Refusal why = checkEntry(dictionary, i, depth + 1, Role::key)) return why;
            if (const Refusal why = checkEntry(dictionary, count + i, depth + 1, Role::value)) return why;
        }
        return nullptr;
    }

    Refusal enter(std::size_t number, const ReferencesView& references, std::size_t perEntry, std::size_t depth) {
        if (depth >= kMaxPlistDepth) return "too deep";
        for (std::size_t around = 0; around < depth; ++around)
            if (open_[around] == number) return "a container within itself";
        const std::size_t room = references.rest.size();
        if (references.count > room || references.count * perEntry * document_.references_.size() > room)
            return "container cut";
        // All entries are claimed before any is looked at, so that what a reader reserves for nested containers stays
        // within the limit too.
        if (references.count * perEntry > kMaxPlistObjects - objectsClaimed_) return "too many objects";
        objectsClaimed_ += static_cast<std::size_t>(references.count) * perEntry;
        open_[depth] = number;
        return nullptr;
    }

    Refusal checkEntry(const ReferencesView& references, std::size_t position, std::size_t depth, Role role) {
        const std::uint64_t number = document_.references_.at(references.rest.data(), position);
        if (number >= document_.objectCount_) return "reference outside";
        const ObjectView object = document_.object(static_cast<std::size_t>(number));
        // Nearly all objects are one of these two. The check below finds them good too, only more slowly.
        std::size_t size;
        if (object.isGoodShortAscii(size)) return countContent(size);
        if (role == Role::value && object.isGoodScalar()) return nullptr;
        return check(object, static_cast<std::size_t>(number), depth, role);
    }

    static constexpr Refusal kTooMuchContent = "too much content";

    const PropertyListDocument& document_;
    /// The containers around the object that is looked at, by number, the outermost first.
    std::array<std::size_t, kMaxPlistDepth> open_;
    std::size_t objectsClaimed_ = 1;
    std::size_t contentRead_ = 0;
};

Refusal PropertyListDocument::checkTree() const { return Check(*this).run(); }

}  // namespace tarnwell::archive
