#include "applibraries/AppLibraryCacheFile.h"

#include <string_view>

#include "platform/archive/KeyedArchive.h"

namespace tarnwell::applibraries {

namespace {

constexpr const char* kVersionTokenKey = "versionToken";
constexpr const char* kBundleProxyKey = "bundleProxy";

const archive::ArchivedObject* find(const archive::ArchivedDictionary& dictionary, std::string_view key) {
    for (auto entry = dictionary.rbegin(); entry != dictionary.rend(); ++entry) {
        if (entry->first == key) return &entry->second;
    }
    return nullptr;
}

}  // namespace

Bytes encodeAppLibraryList(const AppLibraryList& list) {
    archive::ArchivedArray records;
    records.reserve(list.records.size());
    for (const registry::ArchivedBundleRecord& record : list.records) records.push_back({record});

    archive::ArchivedDictionary dictionary;
    dictionary.emplace_back(kVersionTokenKey,
                            archive::ArchivedObject{archive::Integer::fromUnsigned(list.versionToken)});
    dictionary.emplace_back(kBundleProxyKey, archive::ArchivedObject{std::move(records)});
    return archive::archiveRoot({std::move(dictionary)});
}

std::expected<AppLibraryList, CacheFileDefect> decodeAppLibraryList(ByteView bytes) {
    Result<archive::ArchivedObject> root = archive::unarchiveRoot(bytes);
    const auto* dictionary = root ? root->as<archive::ArchivedDictionary>() : nullptr;
    const auto* token = dictionary ? find(*dictionary, kVersionTokenKey) : nullptr;
    const auto* number = token ? token->as<archive::Integer>() : nullptr;
    if (!number || number->negative) return std::unexpected(CacheFileDefect::versionToken);

    const auto* proxies = find(*dictionary, kBundleProxyKey);
    const auto* array = proxies ? proxies->as<archive::ArchivedArray>() : nullptr;
    if (!array) return std::unexpected(CacheFileDefect::bundleProxies);
    AppLibraryList list{number->magnitude, {}};
    list.records.reserve(array->size());
    for (const archive::ArchivedObject& element : *array) {
        const auto* record = element.as<registry::ArchivedBundleRecord>();
        if (!record) return std::unexpected(CacheFileDefect::bundleProxies);
        list.records.push_back(*record);
    }
    return list;
}

}  // namespace tarnwell::applibraries
