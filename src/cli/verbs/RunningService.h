#pragma once

#include <expected>
#include <memory>

#include "bus/client/BusSession.h"
#include "cli/verbs/Failure.h"
#include "host/Settings.h"

namespace tarnwell::cli {

/// A client of the service that runs for these documents; null where there is no bus, no service runs, or it serves
/// other documents. Fails where it runs and does not let this program in. Starts nothing. Where it is of another
/// version than this program a line on standard error says so.
std::expected<std::unique_ptr<bus::BusSession>, Failure> connectToService(const host::Settings& settings);

}  // namespace tarnwell::cli
