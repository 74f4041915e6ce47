#pragma once

#include <string_view>

#include "session/Session.h"

/// Which entries an item has in a dictionary, whatever the dictionary is made of. What is absent has no entry.
namespace tarnwell::bus {

inline Date dateOf(std::int64_t nanoseconds) { return Date(std::chrono::nanoseconds(nanoseconds)); }

template <typename Entries>
void writeEntries(Entries& entries, const session::Item& item) {
    entries.text("itemIdentifier", item.identifier);
    entries.text("parentItemIdentifier", item.parent);
    entries.bytes("filename", item.filename);
    entries.text("typeIdentifier", item.typeIdentifier);
    entries.number("documentSize", item.documentSize);
    entries.date("creationDate", item.creationDate);
    entries.date("contentModificationDate", item.contentModificationDate);
    if (item.childItemCount) entries.smallNumber("childItemCount", *item.childItemCount);
    entries.number("capabilities", item.capabilities);
    entries.boolean("isTrashed", item.isTrashed);
    entries.date("lastUsedDate", item.lastUsedDate);
    if (item.tags) entries.texts("tags", *item.tags);
    entries.number("favoriteRank", item.favoriteRank);
    entries.number("fileID", item.fileID);
    if (item.docID) entries.integer("docID", *item.docID);
    entries.bytes("path", item.path);
    entries.maybeText("searchDomainIdentifier", item.searchDomainIdentifier);
    entries.maybeText("appContainerBundleIdentifier", item.appContainerBundleIdentifier);
    entries.boolean("isFolder", item.isFolder);
    entries.boolean("isContainer", item.isContainer);
    entries.boolean("isUbiquitous", item.isUbiquitous);
}

/// One entry of an item, whose value is `value`; false for what is none, or has another type than it should.
template <typename Value>
bool readEntry(Value& value, std::string_view key, std::string_view type, session::Item& item) {
    if (type == "s") {
        if (key == "itemIdentifier") return item.identifier = value.string(), true;
        if (key == "parentItemIdentifier") return item.parent = value.string(), true;
        if (key == "typeIdentifier") return item.typeIdentifier = value.string(), true;
        if (key == "searchDomainIdentifier") return item.searchDomainIdentifier = value.string(), true;
        if (key == "appContainerBundleIdentifier") return item.appContainerBundleIdentifier = value.string(), true;
    } else if (type == "ay") {
        if (key == "filename") return item.filename = value.text(), true;
        if (key == "path") return item.path = value.text(), true;
    } else if (type == "t") {
        if (key == "documentSize") return item.documentSize = value.uint64(), true;
        if (key == "capabilities") return item.capabilities = value.uint64(), true;
        if (key == "favoriteRank") return item.favoriteRank = value.uint64(), true;
        if (key == "fileID") return item.fileID = value.uint64(), true;
    } else if (type == "x") {
        if (key == "creationDate") return item.creationDate = dateOf(value.int64()), true;
        if (key == "contentModificationDate") return item.contentModificationDate = dateOf(value.int64()), true;
        if (key == "lastUsedDate") return item.lastUsedDate = dateOf(value.int64()), true;
        if (key == "docID") return item.docID = value.int64(), true;
    } else if (type == "b") {
        if (key == "isTrashed") return item.isTrashed = value.boolean(), true;
        if (key == "isFolder") return item.isFolder = value.boolean(), true;
        if (key == "isContainer") return item.isContainer = value.boolean(), true;
        if (key == "isUbiquitous") return item.isUbiquitous = value.boolean(), true;
    } else if (type == "q") {
        if (key == "childItemCount") return item.childItemCount = value.uint16(), true;
    } else if (type == "aay") {
        if (key == "tags") return item.tags = value.texts(), true;
    }
    return false;
}

}  // namespace tarnwell::bus
