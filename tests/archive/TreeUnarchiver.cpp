#include <limits>

#include "platform/archive/KeyedArchiveFormat.h"
#include "platform/base/UTF8.h"
#include "tests/archive/TreeOracle.h"

namespace tarnwell::archive::testing {

namespace {

std::unexpected<Error> damaged(std::string why) { return failure(makeError(UnarchiveError::damaged, std::move(why))); }

std::unexpected<Error> wrongClass(std::string why) {
    return failure(makeError(UnarchiveError::invalidResultingClass, std::move(why)));
}

/// The integer under a key; nothing for a missing key and for another type.
const Integer* integerUnder(const Value& dictionary, const char* key) {
    const Value* value = dictionary.find(key);
    return value ? value->as<Integer>() : nullptr;
}

const Uid* uidUnder(const Value& dictionary, const char* key) {
    const Value* value = dictionary.find(key);
    return value ? value->as<Uid>() : nullptr;
}

/// Fields are looked up one by one, and thousands of objects may share a class record: a record of many fields would
/// make that slow.
bool hasTooManyFields(const Value& value) {
    const Dictionary* fields = value.dictionary();
    return fields && fields->size() > kMaxArchiveFields;
}

/// Follows UIDs from the root through the object table, and counts what it hands out.
class Unarchiver {
public:
    explicit Unarchiver(const Array& objects) : objects_(objects), open_(objects.size(), false) {}

    /// `depth` is the number of arrays and dictionaries around the object.
    Result<ArchivedObject> object(Uid uid, std::size_t depth) {
        if (uid.index >= objects_.size()) return damaged("a UID outside the object table");
        if (++objectsRead_ > kMaxArchiveObjects) return damaged("too many objects");
        if (uid.index == 0) return wrongClass("null");
        const Value& value = objects_[static_cast<std::size_t>(uid.index)];
        if (value.as<std::string>() || value.as<Bytes>()) {
            auto text = string(value);
            if (!text) return failure(text.error());
            return ArchivedObject{std::move(*text)};
        }
        if (const auto* integer = value.as<Integer>()) return ArchivedObject{*integer};
        if (const auto* real = value.as<double>()) return ArchivedObject{*real};
        if (const auto* flag = value.as<bool>()) return ArchivedObject{*flag};
        if (!value.dictionary()) return wrongClass("an object of a type that no archived object has");

        const auto index = static_cast<std::size_t>(uid.index);
        if (open_[index]) return damaged("an object within itself");
        open_[index] = true;
        auto result = classed(value, depth);
        open_[index] = false;
        return result;
    }

private:
    /// A string from a plain string, or from data: the form of strings that are no UTF-8. Data that is UTF-8 is really
    /// data.
    Result<std::string> string(const Value& value) {
        const auto* text = value.as<std::string>();
        const auto* data = value.as<Bytes>();
        if (!text && !data) return wrongClass("another object where a string was expected");
        const std::string_view bytes = text ? std::string_view(*text) : textOf(*data);
        if (bytes.size() > kMaxArchiveContentBytes - contentRead_) return damaged("too much content");
        contentRead_ += bytes.size();
        if (data && isUTF8(bytes)) return wrongClass("data");
        return std::string(bytes);
    }

    Result<std::string> className(const Value& object) const {
        if (hasTooManyFields(object)) return damaged("an object with too many fields");
        const Uid* uid = uidUnder(object, format::kClassKey);
        if (!uid || uid->index >= objects_.size()) return damaged("an object without a class record");
        const Value& record = objects_[static_cast<std::size_t>(uid->index)];
        if (hasTooManyFields(record)) return damaged("a class record with too many fields");
        const Value* name = record.find(format::kClassNameKey);
        const auto* text = name ? name->as<std::string>() : nullptr;
        if (!text) return damaged("a class record without a name");
        return *text;
    }

    Result<ArchivedObject> classed(const Value& object, std::size_t depth) {
        const auto name = className(object);
        if (!name) return failure(name.error());
        if (*name == format::kDateClass) return date(object);
        if (*name == format::kBundleRecordClass) return bundleRecord(object);
        if (*name != format::kArrayClass && *name != format::kDictionaryClass)
            return wrongClass("an object of class \"" + *name + "\"");
        if (depth >= kMaxArchiveDepth) return damaged("too deep");
        return *name == format::kArrayClass ? array(object, depth + 1) : dictionary(object, depth + 1);
    }

    static Result<ArchivedObject> date(const Value& object) {
        constexpr auto kLast = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
        const Integer* count = integerUnder(object, format::kNanosecondsKey);
        if (!count || (!count->negative && count->magnitude > kLast)) return damaged("a date without its time");
        // The reader gives no negative number below the signed range, and the last of them has no positive counterpart.
        const auto nanoseconds =
            static_cast<std::int64_t>(count->negative ? std::uint64_t{0} - count->magnitude : count->magnitude);
        return ArchivedObject{Date(std::chrono::nanoseconds(nanoseconds))};
    }

    /// The UIDs in the array under a key.
    Result<std::vector<Uid>> uids(const Value& object, const char* key) const {
        const Value* value = object.find(key);
        const Array* elements = value ? value->array() : nullptr;
        if (!elements) return damaged("a container without its elements");
        if (elements->size() > kMaxArchiveObjects - objectsRead_) return damaged("too many objects");
        std::vector<Uid> uids;
        uids.reserve(elements->size());
        for (const Value& element : *elements) {
            const Uid* uid = element.as<Uid>();
            if (!uid) return damaged("an element that is no UID");
            uids.push_back(*uid);
        }
        return uids;
    }

    Result<ArchivedObject> array(const Value& object, std::size_t depth) {
        const auto elements = uids(object, format::kElementsKey);
        if (!elements) return failure(elements.error());
        ArchivedArray array;
        for (const Uid uid : *elements) {
            auto element = this->object(uid, depth);
            if (!element) return element;
            array.push_back(std::move(*element));
        }
        return ArchivedObject{std::move(array)};
    }

    Result<ArchivedObject> dictionary(const Value& object, std::size_t depth) {
        const auto keys = uids(object, format::kKeysKey);
        if (!keys) return failure(keys.error());
        const auto elements = uids(object, format::kElementsKey);
        if (!elements) return failure(elements.error());
        if (keys->size() != elements->size()) return damaged("a dictionary with more keys than values or fewer");
        ArchivedDictionary dictionary;
        for (std::size_t i = 0; i < keys->size(); ++i) {
            auto key = countedString((*keys)[i]);
            if (!key) return failure(key.error());
            auto element = this->object((*elements)[i], depth);
            if (!element) return element;
            dictionary.emplace_back(std::move(*key), std::move(*element));
        }
        return ArchivedObject{std::move(dictionary)};
    }

    Result<std::string> countedString(Uid uid) {
        if (uid.index == 0 || uid.index >= objects_.size()) return damaged("a string outside the object table");
        if (++objectsRead_ > kMaxArchiveObjects) return damaged("too many objects");
        return string(objects_[static_cast<std::size_t>(uid.index)]);
    }

    Result<std::optional<std::string>> optionalString(const Value& object, const char* key) {
        const Uid* uid = uidUnder(object, key);
        if (!uid) return damaged("an application record without its strings");
        if (uid->index == 0) {
            if (++objectsRead_ > kMaxArchiveObjects) return damaged("too many objects");
            return std::nullopt;
        }
        auto text = countedString(*uid);
        if (!text) return failure(text.error());
        return std::move(*text);
    }

    Result<ArchivedObject> bundleRecord(const Value& object) {
        registry::ArchivedBundleRecord record;
        auto identifier = optionalString(object, format::kBundleIdentifierKey);
        if (!identifier) return failure(identifier.error());
        auto path = optionalString(object, format::kDataContainerPathKey);
        if (!path) return failure(path.error());
        record.bundleIdentifier = std::move(*identifier);
        record.dataContainerPath = std::move(*path);

        const Integer* origin = integerUnder(object, format::kOriginKey);
        const Integer* type = integerUnder(object, format::kTypeKey);
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

    const Array& objects_;
    /// Classed objects that are being read, by place in the table.
    std::vector<bool> open_;
    std::size_t objectsRead_ = 0;
    std::size_t contentRead_ = 0;
};

}  // namespace

Result<ArchivedObject> unarchiveTree(ByteView bytes) {
    const auto list = readTree(bytes);
    if (!list) {
        const auto message = list.error().userInfo.find(kErrorMessage);
        return damaged(message == list.error().userInfo.end() ? describe(list.error()) : message->second);
    }
    const Integer* version = integerUnder(*list, format::kVersionKey);
    const Value* archiver = list->find(format::kArchiverKey);
    const auto* archiverName = archiver ? archiver->as<std::string>() : nullptr;
    if (!version || *version != Integer::fromUnsigned(format::kVersion) || !archiverName ||
        *archiverName != format::kArchiver)
        return damaged("no archive of this kind");

    const Value* objects = list->find(format::kObjectsKey);
    const Array* table = objects ? objects->array() : nullptr;
    if (!table || table->empty() || table->front() != Value(format::kNullObject)) return damaged("no object table");
    const Value* top = list->find(format::kTopKey);
    const Uid* root = top ? uidUnder(*top, format::kRootKey) : nullptr;
    if (!root) return damaged("no root");
    return Unarchiver(*table).object(*root, 0);
}

}  // namespace tarnwell::archive::testing
