#pragma once

#include <memory>
#include <string>

#include "platform/log/Log.h"

namespace tarnwell::log {

/// The log of a real program run: to standard error on a terminal or pipe, to journald when standard error is
/// connected to it (JOURNAL_STREAM, see systemd.exec(5)). `category` names the origin of each line.
std::unique_ptr<Log> makeProgramLog(std::string category, Level threshold);

/// The level that TARNWELL_LOG names (debug, info, error, off); `fallback` when it is unset or names none.
Level levelFromEnvironment(Level fallback);

}  // namespace tarnwell::log
