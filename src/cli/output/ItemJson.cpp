#include "cli/output/ItemJson.h"

#include <nlohmann/json.hpp>

#include "cli/output/Text.h"
#include "hostframework/TagCodec.h"

namespace tarnwell::cli {
namespace {

using nlohmann::ordered_json;

template <typename T>
ordered_json orNull(const std::optional<T>& value) {
    return value ? ordered_json(*value) : ordered_json(nullptr);
}

ordered_json dateOrNull(const std::optional<Date>& date) {
    return date ? ordered_json(iso8601(*date)) : ordered_json(nullptr);
}

ordered_json textOrNull(const std::optional<std::string>& text) {
    return text ? ordered_json(toUtf8(*text)) : ordered_json(nullptr);
}

ordered_json labels(const std::optional<Bytes>& tagData) {
    if (!tagData) return nullptr;
    const auto tags = hostframework::TagCodec::decode(*tagData);
    if (!tags) return nullptr;
    auto result = ordered_json::array();
    for (const auto& tag : *tags) result.push_back(toUtf8(tag.label));
    return result;
}

}  // namespace

ordered_json itemJson(const hostframework::ProviderItem& item, const Roots& roots) {
    ordered_json json;
    json["itemIdentifier"] = toUtf8(item.itemIdentifier());
    json["parentItemIdentifier"] = toUtf8(item.parentItemIdentifier());
    json["filename"] = toUtf8(item.filename());
    if (!isUtf8(item.filename())) json["filenameBytes"] = base64(bytesOf(item.filename()));
    json["typeIdentifier"] = item.typeIdentifier();
    json["documentSize"] = orNull(item.documentSize());
    json["creationDate"] = dateOrNull(item.creationDate());
    json["contentModificationDate"] = dateOrNull(item.contentModificationDate());
    json["childItemCount"] = orNull(item.childItemCount());
    json["capabilities"] = item.capabilities();
    json["isTrashed"] = item.isTrashed();
    json["lastUsedDate"] = dateOrNull(item.lastUsedDate());
    json["tags"] = labels(item.tagData());
    json["favoriteRank"] = orNull(item.favoriteRank());
    json["fileID"] = item.fileID() ? ordered_json(raw(*item.fileID())) : ordered_json(nullptr);
    json["docID"] = orNull(item.docID());
    json["fileURL"] = URL::file(roots.realPath(item.fileURL().path())).text();
    json["searchDomainIdentifier"] = textOrNull(item.searchDomainIdentifier());
    json["appContainerBundleIdentifier"] = textOrNull(item.appContainerBundleIdentifier());
    json["isFolder"] = item.isFolder();
    json["isContainer"] = item.isContainer();
    json["isUbiquitous"] = item.isUbiquitous();
    return json;
}

std::string jsonLine(const ordered_json& json) {
    return json.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
}

}  // namespace tarnwell::cli
