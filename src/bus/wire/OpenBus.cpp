#include "bus/wire/OpenBus.h"

#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>
#include <string_view>

#include "bus/wire/StepwiseHandshake.h"

namespace tarnwell::bus {
namespace {

bool isInFlatpak() { return ::access("/.flatpak-info", F_OK) == 0; }

/// Of an address that says no more than a path, as Flatpak gives it to its programs.
std::optional<std::string> plainPathOf(std::string_view address) {
    constexpr std::string_view kPath = "unix:path=";
    if (!address.starts_with(kPath) || address.find_first_of("%,;") != std::string_view::npos) return std::nullopt;
    return std::string(address.substr(kPath.size()));
}

}  // namespace

int openBus(const std::string& address, sd_bus** connection) {
    if (isInFlatpak()) {
        const char* session = std::getenv("DBUS_SESSION_BUS_ADDRESS");
        const auto path = plainPathOf(!address.empty() ? address.c_str() : session != nullptr ? session : "");
        if (path) return openBusStepwise(*path, connection);
    }
    if (address.empty()) return sd_bus_open_user(connection);
    int outcome = sd_bus_new(connection);
    if (outcome >= 0) outcome = sd_bus_set_address(*connection, address.c_str());
    if (outcome >= 0) outcome = sd_bus_set_bus_client(*connection, 1);
    if (outcome >= 0) outcome = sd_bus_start(*connection);
    return outcome;
}

}  // namespace tarnwell::bus
