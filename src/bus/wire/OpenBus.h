#pragma once

#include <string>

struct sd_bus;

namespace tarnwell::bus {

/// Connects to the bus of that D-Bus address; an empty one stands for that of DBUS_SESSION_BUS_ADDRESS, else of the
/// runtime folder. A negative errno where there is none. What `connection` is then, if anything, the caller lets go of.
int openBus(const std::string& address, sd_bus** connection);

}  // namespace tarnwell::bus
