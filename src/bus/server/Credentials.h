#pragma once

#include <functional>
#include <string>

#include "bus/server/Server.h"

struct sd_bus;

namespace tarnwell::bus {

/// Asks the bus who stands behind a connection (GetConnectionCredentials of the D-Bus interface); EACCES where it does
/// not say. Called back once, on the connection's thread, mostly later; not after the connection to the bus ended.
void askForCredentials(sd_bus* connection, const std::string& name, std::function<void(Result<Peer>)> told);

}  // namespace tarnwell::bus
