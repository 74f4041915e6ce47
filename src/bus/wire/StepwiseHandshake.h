#pragma once

#include <string>

struct sd_bus;

namespace tarnwell::bus {

/// Connects to the bus at a socket, and waits for each answer of the handshake before it says more. sd-bus by itself
/// says all of it at once; the proxy that Flatpak puts before the bus (0.1.4, for one) then takes the answers for
/// messages, and ends the connection. A negative errno where there is no bus, and after ten seconds without an answer.
/// What `connection` is then, if anything, the caller lets go of.
int openBusStepwise(const std::string& socketPath, sd_bus** connection);

}  // namespace tarnwell::bus
