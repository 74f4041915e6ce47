#include "bus/wire/OpenBus.h"

#include <systemd/sd-bus.h>

namespace tarnwell::bus {

int openBus(const std::string& address, sd_bus** connection) {
    if (address.empty()) return sd_bus_open_user(connection);
    int outcome = sd_bus_new(connection);
    if (outcome >= 0) outcome = sd_bus_set_address(*connection, address.c_str());
    if (outcome >= 0) outcome = sd_bus_set_bus_client(*connection, 1);
    if (outcome >= 0) outcome = sd_bus_start(*connection);
    return outcome;
}

}  // namespace tarnwell::bus
