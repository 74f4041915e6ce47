#pragma once

#include <map>
#include <string>

#include "platform/base/Result.h"

namespace tarnwell::service {

/// True when systemd started this very process as a service: it is to live as long as the session's manager does,
/// longer than what the person logs into.
bool isStartedBySystemd();

/// The variables that systemd's user manager gives to what it starts now: those of the person's session, as the last
/// login handed them over. On a connection of its own; a manager that does not answer for a second fails.
Result<std::map<std::string, std::string>> environmentOfUserManager(const std::string& busAddress);

}  // namespace tarnwell::service
