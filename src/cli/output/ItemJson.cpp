#include "cli/output/ItemJson.h"

#include <nlohmann/json.hpp>

#include "cli/output/Text.h"
#include "platform/url/URL.h"

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

ordered_json labels(const std::optional<std::vector<std::string>>& tags) {
    if (!tags) return nullptr;
    auto result = ordered_json::array();
    for (const auto& label : *tags) result.push_back(toUtf8(label));
    return result;
}

}  // namespace

ordered_json itemJson(const session::Item& item) {
    ordered_json json;
    json["itemIdentifier"] = toUtf8(item.identifier);
    json["parentItemIdentifier"] = toUtf8(item.parent);
    json["filename"] = toUtf8(item.filename);
    if (!isUtf8(item.filename)) json["filenameBytes"] = base64(bytesOf(item.filename));
    json["typeIdentifier"] = item.typeIdentifier;
    json["documentSize"] = orNull(item.documentSize);
    json["creationDate"] = dateOrNull(item.creationDate);
    json["contentModificationDate"] = dateOrNull(item.contentModificationDate);
    json["childItemCount"] = orNull(item.childItemCount);
    json["capabilities"] = item.capabilities;
    json["isTrashed"] = item.isTrashed;
    json["lastUsedDate"] = dateOrNull(item.lastUsedDate);
    json["tags"] = labels(item.tags);
    json["favoriteRank"] = orNull(item.favoriteRank);
    json["fileID"] = orNull(item.fileID);
    json["docID"] = orNull(item.docID);
    json["fileURL"] = URL::file(item.path).text();
    json["searchDomainIdentifier"] = textOrNull(item.searchDomainIdentifier);
    json["appContainerBundleIdentifier"] = textOrNull(item.appContainerBundleIdentifier);
    json["isFolder"] = item.isFolder;
    json["isContainer"] = item.isContainer;
    json["isUbiquitous"] = item.isUbiquitous;
    return json;
}

std::string jsonLine(const ordered_json& json) {
    return json.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
}

}  // namespace tarnwell::cli
