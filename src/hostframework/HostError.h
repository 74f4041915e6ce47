#pragma once

#include "hostframework/ItemIdentifier.h"
#include "hostframework/ProviderItem.h"
#include "platform/base/Result.h"

namespace tarnwell::hostframework {

/// Codes of ErrorDomain::host.
inline constexpr std::int64_t kSyncAnchorExpired = -1002;
inline constexpr std::int64_t kNoSuchItem = -1005;
inline constexpr std::int64_t kFilenameCollision = -1001;
inline constexpr std::int64_t kInvalidParameter = -1100;

/// User-info keys of host errors.
inline constexpr const char* kErrorItemIdentifier = "itemIdentifier";
inline constexpr const char* kErrorItemName = "itemName";
inline constexpr const char* kErrorParameter = "parameter";
inline constexpr const char* kErrorValue = "value";

Error syncAnchorExpired();
/// No item has that identifier: what a lookup fails with, and what an operation says of an item that it was given.
Error noSuchItem(const ItemIdentifier& identifier);
/// The name is taken by the item that is carried along (kErrorItemIdentifier, kErrorItemName).
Error filenameCollision(const ProviderItem& existing);
Error invalidParameter(const std::string& parameter, const std::string& value);

}  // namespace tarnwell::hostframework
