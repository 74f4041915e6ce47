#pragma once

#include <string>

#include "platform/base/Ids.h"

namespace tarnwell {

/// "2024-05-01T12:00:00.123456Z".
std::string iso8601(Date date);

}  // namespace tarnwell
