#include <algorithm>
#include <array>
#include <limits>

#include "platform/archive/KeyedArchive.h"
#include "platform/archive/KeyedArchiveFormat.h"
#include "platform/archive/PropertyListDocument.h"
#include "platform/base/UTF8.h"

namespace tarnwell::archive {

namespace {

std::unexpected<Error> damaged(std::string why) { return failure(makeError(UnarchiveError::damaged, std::move(why))); }

std::unexpected<Error> wrongClass(std::string why) {
    return failure(makeError(UnarchiveError::invalidResultingClass, std::move(why)));
}

/// Follows UIDs from the root through the object table, and counts what it hands out.
class Unarchiver {
public:
    Unarchiver(const PropertyListDocument& list, const ArrayView& objects) : list_(list), objects_(objects) {}

    /// `depth` is the number of arrays and dictionaries around the object.
    Result<ArchivedObject> object(Uid uid, std::size_t depth) {
        if (uid.index >= objects_.count) return damaged("a UID outside the object table");
        if (++objectsRead_ > kMaxArchiveObjects) return damaged("too many objects");
        if (uid.index == 0) return wrongClass("null");
        const ObjectView view = objectAt(uid);
        switch (view.kind()) {
            case ObjectView::Kind::text:
            case ObjectView::Kind::data: {
                auto text = string(view);
                if (!text) return failure(std::move(text.error()));
                return ArchivedObject{std::move(*text)};
            }
            case ObjectView::Kind::integer:
                return ArchivedObject{*view.as<Integer>()};
            case ObjectView::Kind::real:
                return ArchivedObject{*view.as<double>()};
            case ObjectView::Kind::boolean:
                return ArchivedObject{*view.as<bool>()};
            case ObjectView::Kind::dictionary:
                return classed(uid, *view.as<DictionaryView>(), depth);
            default:
                return wrongClass("an object of a type that no archived object has");
        }
    }

private:
    ObjectView objectAt(Uid uid) const { return list_.element(objects_, static_cast<std::size_t>(uid.index)); }

    /// A string from a plain string, or from data: the form of strings that are no UTF-8. Data that is UTF-8 is really
    /// data.
    Result<std::string> string(const ObjectView& object) {
        const auto data = object.as<DataView>();
        const auto text = object.as<TextView>();
        if (!text && !data) return wrongClass("another object where a string was expected");
        std::string string = text ? text->utf8() : std::string(textOf(data->bytes));
        if (string.size() > kMaxArchiveContentBytes - contentRead_) return damaged("too much content");
        contentRead_ += string.size();
        if (data && isUTF8(string)) return wrongClass("data");
        return string;
    }

    /// Fields are looked up one by one, and thousands of objects may share a class record: a record of many fields
    /// would make that slow.
    std::expected<ObjectView, Refusal> className(const DictionaryView& object) const {
        if (object.count > kMaxArchiveFields) return std::unexpected("an object with too many fields");
        const auto uid = list_.find<Uid>(object, format::kClassKey);
        if (!uid || uid->index >= objects_.count) return std::unexpected("an object without a class record");
        const auto record = objectAt(*uid).as<DictionaryView>();
        if (!record) return std::unexpected("a class record without a name");
        if (record->count > kMaxArchiveFields) return std::unexpected("a class record with too many fields");
        const auto name = list_.find(*record, format::kClassNameKey);
        if (!name || name->kind() != ObjectView::Kind::text) return std::unexpected("a class record without a name");
        return *name;
    }

    Result<ArchivedObject> classed(Uid uid, const DictionaryView& object, std::size_t depth) {
        const auto around = std::span(open_).first(depth);
        if (std::ranges::find(around, uid.index) != around.end()) return damaged("an object within itself");
        open_[depth] = uid.index;
        const auto name = className(object);
        if (!name) return damaged(name.error());
        if (name->isText(format::kDateClass)) return date(object);
        if (name->isText(format::kBundleRecordClass)) return bundleRecord(object);
        const bool isArray = name->isText(format::kArrayClass);
        if (!isArray && !name->isText(format::kDictionaryClass))
            return wrongClass("an object of class \"" + name->as<TextView>()->utf8() + "\"");
        if (depth >= kMaxArchiveDepth) return damaged("too deep");
        return isArray ? array(object, depth + 1) : dictionary(object, depth + 1);
    }

    Result<ArchivedObject> date(const DictionaryView& object) const {
        constexpr auto kLast = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
        const auto count = list_.find<Integer>(object, format::kNanosecondsKey);
        if (!count || (!count->negative && count->magnitude > kLast)) return damaged("a date without its time");
        // The reader gives no negative number below the signed range, and the last of them has no positive counterpart.
        const auto nanoseconds =
            static_cast<std::int64_t>(count->negative ? std::uint64_t{0} - count->magnitude : count->magnitude);
        return ArchivedObject{Date(std::chrono::nanoseconds(nanoseconds))};
    }

    /// The array under a key, of nothing but UIDs.
    std::expected<ArrayView, Refusal> uids(const DictionaryView& object, const char* key) const {
        const auto elements = list_.find<ArrayView>(object, key);
        if (!elements) return std::unexpected("a container without its elements");
        if (elements->count > kMaxArchiveObjects - objectsRead_) return std::unexpected("too many objects");
        for (std::size_t i = 0; i < elements->count; ++i)
            if (list_.element(*elements, i).kind() != ObjectView::Kind::uid)
                return std::unexpected("an element that is no UID");
        return *elements;
    }

    Uid uidIn(const ArrayView& uids, std::size_t position) const { return *list_.element(uids, position).as<Uid>(); }

    Result<ArchivedObject> array(const DictionaryView& object, std::size_t depth) {
        const auto elements = uids(object, format::kElementsKey);
        if (!elements) return damaged(elements.error());
        ArchivedArray array;
        array.reserve(reserved(*elements));
        for (std::size_t i = 0; i < elements->count; ++i) {
            auto element = this->object(uidIn(*elements, i), depth);
            if (!element) return element;
            array.push_back(std::move(*element));
        }
        return ArchivedObject{std::move(array)};
    }

    Result<ArchivedObject> dictionary(const DictionaryView& object, std::size_t depth) {
        const auto keys = uids(object, format::kKeysKey);
        if (!keys) return damaged(keys.error());
        const auto elements = uids(object, format::kElementsKey);
        if (!elements) return damaged(elements.error());
        if (keys->count != elements->count) return damaged("a dictionary with more keys than values or fewer");
        ArchivedDictionary dictionary;
        dictionary.reserve(reserved(*keys));
        for (std::size_t i = 0; i < keys->count; ++i) {
            auto key = countedString(uidIn(*keys, i));
            if (!key) return failure(std::move(key.error()));
            auto element = this->object(uidIn(*elements, i), depth);
            if (!element) return element;
            dictionary.emplace_back(std::move(*key), std::move(*element));
        }
        return ArchivedObject{std::move(dictionary)};
    }

    /// Room made at once. Most containers are no longer than this, and nested ones cannot claim much before they are
    /// read.
    static std::size_t reserved(const ArrayView& elements) {
        return static_cast<std::size_t>(std::min<std::uint64_t>(elements.count, 16));
    }

    Result<std::string> countedString(Uid uid) {
        if (uid.index == 0 || uid.index >= objects_.count) return damaged("a string outside the object table");
        if (++objectsRead_ > kMaxArchiveObjects) return damaged("too many objects");
        return string(objectAt(uid));
    }

    Result<std::optional<std::string>> optionalString(const DictionaryView& object, const char* key) {
        const auto uid = list_.find<Uid>(object, key);
        if (!uid) return damaged("an application record without its strings");
        if (uid->index == 0) {
            if (++objectsRead_ > kMaxArchiveObjects) return damaged("too many objects");
            return std::nullopt;
        }
        auto text = countedString(*uid);
        if (!text) return failure(std::move(text.error()));
        return std::move(*text);
    }

    Result<ArchivedObject> bundleRecord(const DictionaryView& object) {
        registry::ArchivedBundleRecord record;
        auto identifier = optionalString(object, format::kBundleIdentifierKey);
        if (!identifier) return failure(identifier.error());
        auto path = optionalString(object, format::kDataContainerPathKey);
        if (!path) return failure(path.error());
        record.bundleIdentifier = std::move(*identifier);
        record.dataContainerPath = std::move(*path);

        const auto origin = list_.find<Integer>(object, format::kOriginKey);
        const auto type = list_.find<Integer>(object, format::kTypeKey);
        if (!origin || origin->negative || !type || type->negative)
            return damaged("an application record without its numbers");
        constexpr auto kLastOrigin = static_cast<std::uint64_t>(registry::Origin::desktopEntry);
        constexpr auto kUser = static_cast<std::uint64_t>(registry::ApplicationType::user);
        constexpr auto kSystem = static_cast<std::uint64_t>(registry::ApplicationType::system);
        if (origin->magnitude > kLastOrigin || (type->magnitude != kUser && type->magnitude != kSystem))
            return damaged("an application record of unknown kind");
        record.origin = static_cast<registry::Origin>(origin->magnitude);
        record.type = static_cast<registry::ApplicationType>(type->magnitude);
        return ArchivedObject{std::move(record)};
    }

    const PropertyListDocument& list_;
    const ArrayView objects_;
    /// The classed objects around the one that is read, the outermost first. The last place is for a date or record
    /// inside the deepest container.
    std::array<std::uint64_t, kMaxArchiveDepth + 1> open_;
    std::size_t objectsRead_ = 0;
    std::size_t contentRead_ = 0;
};

template <typename T>
Result<T> rootAs(ByteView bytes, const char* expected) {
    auto root = unarchiveRoot(bytes);
    if (!root) return failure(root.error());
    auto* value = std::get_if<T>(&root->value);
    if (!value) return wrongClass(std::string("the root is no ") + expected);
    return std::move(*value);
}

}  // namespace

Error makeError(UnarchiveError code, std::string message) {
    Error error{ErrorDomain::unarchive, static_cast<std::int64_t>(code), {}};
    if (!message.empty()) error.userInfo[kErrorMessage] = std::move(message);
    return error;
}

Result<ArchivedObject> unarchiveRoot(ByteView bytes) {
    const auto list = PropertyListDocument::open(bytes);
    if (!list) return damaged(messageOf(list.error()));
    const auto archive = list->top().as<DictionaryView>();
    if (!archive) return damaged("no archive of this kind");
    const auto version = list->find<Integer>(*archive, format::kVersionKey);
    const auto archiver = list->find(*archive, format::kArchiverKey);
    if (version != Integer::fromUnsigned(format::kVersion) || !archiver || !archiver->isText(format::kArchiver))
        return damaged("no archive of this kind");

    const auto objects = list->find<ArrayView>(*archive, format::kObjectsKey);
    if (!objects || objects->count == 0 || !list->element(*objects, 0).isText(format::kNullObject))
        return damaged("no object table");
    const auto top = list->find<DictionaryView>(*archive, format::kTopKey);
    const auto root = top ? list->find<Uid>(*top, format::kRootKey) : std::nullopt;
    if (!root) return damaged("no root");
    return Unarchiver(*list, *objects).object(*root, 0);
}

Result<Date> unarchiveDate(ByteView bytes) { return rootAs<Date>(bytes, "date"); }

Result<std::string> unarchiveString(ByteView bytes) { return rootAs<std::string>(bytes, "string"); }

Result<Number> unarchiveNumber(ByteView bytes) {
    const auto root = unarchiveRoot(bytes);
    if (!root) return failure(root.error());
    if (const auto* integer = root->as<Integer>()) return Number{*integer};
    if (const auto* real = root->as<double>()) return Number{*real};
    return wrongClass("the root is no number");
}

Result<std::vector<std::string>> unarchiveStrings(ByteView bytes) {
    auto array = rootAs<ArchivedArray>(bytes, "array");
    if (!array) return failure(array.error());
    std::vector<std::string> strings;
    strings.reserve(array->size());
    for (ArchivedObject& element : *array) {
        auto* text = std::get_if<std::string>(&element.value);
        if (!text) return wrongClass("the root is an array of more than strings");
        strings.push_back(std::move(*text));
    }
    return strings;
}

std::uint64_t Number::asUnsigned() const {
    if (const auto* integer = std::get_if<Integer>(&value)) return integer->negative ? 0 : integer->magnitude;
    const double real = std::get<double>(value);
    constexpr double kPastLast = 18446744073709551616.0;  // two to the 64th
    if (!(real > 0)) return 0;
    return real >= kPastLast ? std::numeric_limits<std::uint64_t>::max() : static_cast<std::uint64_t>(real);
}

double Number::asDouble() const {
    if (const auto* real = std::get_if<double>(&value)) return *real;
    const auto& integer = std::get<Integer>(value);
    const auto magnitude = static_cast<double>(integer.magnitude);
    return integer.negative ? -magnitude : magnitude;
}

}  // namespace tarnwell::archive
