#pragma once

/// What the archiver and the unarchiver agree on: names in the top level, and the classes with their fields.
namespace tarnwell::archive::format {

inline constexpr const char* kVersionKey = "$version";
inline constexpr const char* kArchiverKey = "$archiver";
inline constexpr const char* kTopKey = "$top";
inline constexpr const char* kObjectsKey = "$objects";
inline constexpr const char* kRootKey = "root";
inline constexpr const char* kNullObject = "$null";
inline constexpr unsigned kVersion = 100'000;
inline constexpr const char* kArchiver = "TWKeyedArchiver";

/// Every classed object refers to its class record under this key.
inline constexpr const char* kClassKey = "$class";
inline constexpr const char* kClassNameKey = "$classname";
inline constexpr const char* kClassesKey = "$classes";
inline constexpr const char* kBaseClass = "TWObject";

/// A date: whole nanoseconds since 1970-01-01T00:00:00Z, negative before. An integer, because a real loses
/// microseconds.
inline constexpr const char* kDateClass = "TWDate";
inline constexpr const char* kNanosecondsKey = "nanoseconds";

/// An array: its elements as UIDs. A dictionary: its keys likewise, and its values at the same positions.
inline constexpr const char* kArrayClass = "TWArray";
inline constexpr const char* kDictionaryClass = "TWDictionary";
inline constexpr const char* kElementsKey = "elements";
inline constexpr const char* kKeysKey = "keys";

/// An application record: two strings as UIDs, UID 0 for none, and two numbers.
inline constexpr const char* kBundleRecordClass = "TWBundleRecord";
inline constexpr const char* kBundleIdentifierKey = "bundleIdentifier";
inline constexpr const char* kDataContainerPathKey = "dataContainerPath";
inline constexpr const char* kOriginKey = "origin";
inline constexpr const char* kTypeKey = "type";

}  // namespace tarnwell::archive::format
