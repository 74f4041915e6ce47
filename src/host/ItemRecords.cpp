#include "host/ItemRecords.h"

#include "hostframework/TagCodec.h"

namespace tarnwell::host {
namespace {

std::optional<std::vector<std::string>> labelsOf(const std::optional<Bytes>& tagData) {
    const auto tags = tagData ? hostframework::TagCodec::decode(*tagData) : std::nullopt;
    if (!tags) return std::nullopt;
    std::vector<std::string> labels;
    labels.reserve(tags->size());
    for (const auto& tag : *tags) labels.push_back(tag.label);
    return labels;
}

}  // namespace

session::Item recordOf(const hostframework::ProviderItem& item, const Roots& roots) {
    session::Item record;
    record.identifier = item.itemIdentifier();
    record.parent = item.parentItemIdentifier();
    record.filename = item.filename();
    record.typeIdentifier = item.typeIdentifier();
    record.documentSize = item.documentSize();
    record.creationDate = item.creationDate();
    record.contentModificationDate = item.contentModificationDate();
    record.childItemCount = item.childItemCount();
    record.capabilities = item.capabilities();
    record.isTrashed = item.isTrashed();
    record.lastUsedDate = item.lastUsedDate();
    record.tags = labelsOf(item.tagData());
    record.favoriteRank = item.favoriteRank();
    if (const auto fileID = item.fileID()) record.fileID = raw(*fileID);
    record.docID = item.docID();
    record.path = roots.realPath(item.fileURL().path());
    record.searchDomainIdentifier = item.searchDomainIdentifier();
    record.appContainerBundleIdentifier = item.appContainerBundleIdentifier();
    record.isFolder = item.isFolder();
    record.isContainer = item.isContainer();
    record.isUbiquitous = item.isUbiquitous();
    return record;
}

std::vector<session::Item> recordsOf(const std::vector<hostframework::ProviderItemPtr>& items, const Roots& roots) {
    std::vector<session::Item> records;
    records.reserve(items.size());
    for (const auto& item : items) records.push_back(recordOf(*item, roots));
    return records;
}

}  // namespace tarnwell::host
