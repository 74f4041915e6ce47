#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "platform/base/Result.h"

struct sd_bus;

namespace tarnwell::bus {

/// What the bus keeps for a connection that has not taken it yet.
struct Unread {
    std::uint32_t bytes = 0, descriptors = 0;
};

/// Asks the bus (GetConnectionStats of its statistics, or of dbus-broker GetStats). Fails with ENOTSUP where it cannot
/// tell. Called back once, on the connection's thread, mostly later; not after the connection to the bus ended.
void askForUnread(sd_bus* connection, const std::string& name, std::function<void(Result<Unread>)> told);

}  // namespace tarnwell::bus
