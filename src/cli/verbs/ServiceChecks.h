#pragma once

#include <vector>

#include "host/Checks.h"

namespace tarnwell::cli {

/// Whether other programs reach the service: the session's message bus, what the bus would start, who has the service's
/// name and in which version, and the unit of the session's systemd. Starts nothing.
std::vector<host::Check> checkService();

}  // namespace tarnwell::cli
