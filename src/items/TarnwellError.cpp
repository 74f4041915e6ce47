#include "items/TarnwellError.h"

#include <utility>

namespace tarnwell::items {

Error makeError(TarnwellError code) { return {ErrorDomain::provider, std::to_underlying(code), {}}; }

Error makeError(DeviceUUIDError code) { return {ErrorDomain::deviceUUID, std::to_underlying(code), {}}; }

Error errorWithPOSIXCode(std::int32_t code) { return posixError(code); }

Error errorFileWriteNoPermission() { return {ErrorDomain::generalFile, kWriteNotPermitted, {}}; }

}  // namespace tarnwell::items
