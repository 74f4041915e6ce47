#pragma once

#include "platform/base/Result.h"

namespace tarnwell::items {

/// Codes of ErrorDomain::provider.
enum class TarnwellError : std::int64_t { invalidItemIdentifier = 0, invalidItemURL = 1, itemNotFound = 2 };
Error makeError(TarnwellError code);

/// The one case of ErrorDomain::deviceUUID.
enum class DeviceUUIDError : std::int64_t { unableToGetDeviceUUID = 0 };
Error makeError(DeviceUUIDError code);

Error errorWithPOSIXCode(std::int32_t code);
Error errorFileWriteNoPermission();

}  // namespace tarnwell::items
