#include <string_view>
#include <vector>

#include "platform/archive/KeyedArchive.h"
#include "platform/archive/KeyedArchiveFormat.h"
#include "platform/base/UTF8.h"

namespace tarnwell::archive {

namespace {

/// Puts objects into the object table: each before what it refers to, its class record after that where it is the first
/// of its class.
class Archiver {
public:
    Archiver() {
        objects_.reserve(8);
        objects_.emplace_back(format::kNullObject);
    }

    Uid add(const ArchivedObject& object, std::size_t depth) {
        return std::visit([&](const auto& value) { return addValue(value, depth); }, object.value);
    }

    Array take() { return std::move(objects_); }

private:
    Uid append(Value value) {
        objects_.push_back(std::move(value));
        return Uid{objects_.size() - 1};
    }

    Uid addValue(Integer value, std::size_t) { return append(value); }
    Uid addValue(double value, std::size_t) { return append(value); }
    Uid addValue(bool value, std::size_t) { return append(value); }
    Uid addValue(const std::string& value, std::size_t) {
        return append(isUTF8(value) ? Value(value) : Value(Bytes(value.begin(), value.end())));
    }

    Uid addValue(Date value, std::size_t) {
        const std::int64_t nanoseconds = value.time_since_epoch().count();
        const Uid uid = append({});
        return finish(uid, format::kDateClass, {{format::kNanosecondsKey, Integer::fromSigned(nanoseconds)}});
    }

    Uid addValue(const ArchivedArray& value, std::size_t depth) {
        TARNWELL_CHECK(depth < kMaxArchiveDepth);
        const Uid uid = append({});
        Array elements;
        elements.reserve(value.size());
        for (const ArchivedObject& element : value) elements.emplace_back(add(element, depth + 1));
        return finish(uid, format::kArrayClass, {{format::kElementsKey, std::move(elements)}});
    }

    Uid addValue(const ArchivedDictionary& value, std::size_t depth) {
        TARNWELL_CHECK(depth < kMaxArchiveDepth);
        const Uid uid = append({});
        Array keys, elements;
        keys.reserve(value.size());
        elements.reserve(value.size());
        for (const auto& [key, element] : value) keys.emplace_back(addValue(key, depth));
        for (const auto& [key, element] : value) elements.emplace_back(add(element, depth + 1));
        return finish(uid, format::kDictionaryClass,
                      {{format::kKeysKey, std::move(keys)}, {format::kElementsKey, std::move(elements)}});
    }

    Uid addValue(const registry::ArchivedBundleRecord& value, std::size_t depth) {
        const Uid uid = append({});
        const auto addOptional = [&](const std::optional<std::string>& text) {
            return text ? addValue(*text, depth) : Uid{0};
        };
        const Uid identifier = addOptional(value.bundleIdentifier);
        const Uid path = addOptional(value.dataContainerPath);
        return finish(uid, format::kBundleRecordClass,
                      {{format::kBundleIdentifierKey, identifier},
                       {format::kDataContainerPathKey, path},
                       {format::kOriginKey, Integer::fromSigned(static_cast<int>(value.origin))},
                       {format::kTypeKey, Integer::fromSigned(static_cast<int>(value.type))}});
    }

    Uid finish(Uid uid, const char* className, Dictionary fields) {
        fields.emplace_back(format::kClassKey, classRecord(className));
        objects_[uid.index] = std::move(fields);
        return uid;
    }

    Uid classRecord(const char* className) {
        for (const auto& [name, uid] : classRecords_)
            if (name == className) return uid;
        Array classes{Value(className), Value(format::kBaseClass)};
        const Uid uid =
            append(Dictionary{{format::kClassNameKey, className}, {format::kClassesKey, std::move(classes)}});
        classRecords_.emplace_back(className, uid);
        return uid;
    }

    Array objects_;
    /// No more than there are classes.
    std::vector<std::pair<std::string_view, Uid>> classRecords_;
};

}  // namespace

Bytes archiveRoot(const ArchivedObject& root) {
    Archiver archiver;
    const Uid top = archiver.add(root, 0);
    Dictionary archive;
    archive.reserve(4);
    archive.emplace_back(format::kVersionKey, Integer::fromUnsigned(format::kVersion));
    archive.emplace_back(format::kArchiverKey, format::kArchiver);
    archive.emplace_back(format::kTopKey, Dictionary{{format::kRootKey, top}});
    archive.emplace_back(format::kObjectsKey, archiver.take());
    return writeBinaryPropertyList(std::move(archive));
}

}  // namespace tarnwell::archive
