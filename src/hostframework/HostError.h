#pragma once

#include "hostframework/ItemIdentifier.h"
#include "platform/base/Result.h"

namespace tarnwell::hostframework {

/// Codes of ErrorDomain::host.
inline constexpr std::int64_t kSyncAnchorExpired = -1002;
inline constexpr std::int64_t kNoSuchItem = -1005;
inline constexpr std::int64_t kFilenameCollision = -1001;
inline constexpr std::int64_t kInvalidParameter = -1100;

/// User-info keys of host errors.
inline constexpr const char* kErrorItemIdentifier = "itemIdentifier";
inline constexpr const char* kErrorParameter = "parameter";
inline constexpr const char* kErrorValue = "value";

Error syncAnchorExpired();
Error noSuchItem(const ItemIdentifier& identifier);
Error invalidParameter(const std::string& parameter, const std::string& value);

}  // namespace tarnwell::hostframework
