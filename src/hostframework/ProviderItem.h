#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "hostframework/ItemIdentifier.h"
#include "platform/base/Ids.h"
#include "platform/url/URL.h"

namespace tarnwell::hostframework {

/// What a host reads of an item. Records never change while a host holds them, so they may cross threads.
class ProviderItem {
public:
    virtual ~ProviderItem() = default;

    virtual const ItemIdentifier& itemIdentifier() const = 0;
    virtual const ItemIdentifier& parentItemIdentifier() const = 0;
    virtual const std::string& filename() const = 0;
    virtual const std::string& typeIdentifier() const = 0;
    virtual std::optional<std::uint64_t> documentSize() const = 0;
    virtual std::optional<Date> creationDate() const = 0;
    virtual std::optional<Date> contentModificationDate() const = 0;
    virtual std::optional<std::uint16_t> childItemCount() const = 0;
    /// 0x1 read, 0x2 write or add sub-items, 0x4 reparent, 0x8 rename, 0x10 trash, 0x20 delete.
    virtual std::uint64_t capabilities() const = 0;
    virtual const std::optional<Bytes>& versionIdentifier() const = 0;
    virtual bool isTrashed() const = 0;
    virtual std::optional<Date> lastUsedDate() const = 0;
    virtual const std::optional<Bytes>& tagData() const = 0;
    virtual std::optional<std::uint64_t> favoriteRank() const = 0;
    virtual std::optional<FileID> fileID() const = 0;
    virtual std::optional<std::int64_t> docID() const = 0;
    virtual const URL& fileURL() const = 0;
    virtual const std::optional<std::string>& searchDomainIdentifier() const = 0;
    virtual const std::optional<std::string>& appContainerBundleIdentifier() const = 0;
    virtual bool isUbiquitous() const = 0;
    /// True when the type is exactly the platform's folder type; a package is no folder.
    virtual bool isFolder() const = 0;
    /// True for an app library.
    virtual bool isContainer() const = 0;
    /// One line for logs.
    virtual std::string description() const = 0;
};

using ProviderItemPtr = std::shared_ptr<const ProviderItem>;

}  // namespace tarnwell::hostframework
