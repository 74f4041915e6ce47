#include "cli/verbs/ServiceChecks.h"

#include <systemd/sd-bus.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "bus/client/BusSession.h"

namespace tarnwell::cli {
namespace {

using host::Check;
using State = Check::State;

constexpr const char* kName = "org.tarnwell.Host1";
constexpr const char* kUnit = "tarnwell.service";
constexpr const char* kSystemd = "org.freedesktop.systemd1";
constexpr const char* kManagerPath = "/org/freedesktop/systemd1";
/// Whoever does not answer by then is broken, for a person who waits.
constexpr std::uint64_t kPatience = 5'000'000;  // microseconds

struct Unref {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using Bus = std::unique_ptr<sd_bus, Unref>;
using Message = std::unique_ptr<sd_bus_message, Unref>;

/// A negative errno where there is none.
int openBus(Bus& bus) {
    sd_bus* opened = nullptr;
    const int outcome = sd_bus_open_user(&opened);
    bus.reset(opened);
    if (outcome >= 0) sd_bus_set_method_call_timeout(opened, kPatience);
    return outcome;
}

/// What a method without or with one text answers; null where it fails.
Message call(const Bus& bus, const char* service, const char* path, const char* interface, const char* member,
             const char* argument = nullptr) {
    sd_bus_message* answer = nullptr;
    const int outcome =
        argument == nullptr
            ? sd_bus_call_method(bus.get(), service, path, interface, member, nullptr, &answer, "")
            : sd_bus_call_method(bus.get(), service, path, interface, member, nullptr, &answer, "s", argument);
    Message kept(answer);
    return outcome < 0 ? nullptr : std::move(kept);
}
Message callBus(const Bus& bus, const char* member, const char* argument = nullptr) {
    return call(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", member, argument);
}

bool hasOwner(const Bus& bus, const char* name) { return callBus(bus, "GetNameOwner", name) != nullptr; }

std::optional<std::string> textOf(const Message& answer) {
    const char* text = nullptr;
    if (!answer || sd_bus_message_read(answer.get(), "s", &text) <= 0) return std::nullopt;
    return text;
}

Check checkActivation(const Bus& bus) {
    const Message names = callBus(bus, "ListActivatableNames");
    const char* name = nullptr;
    if (names && sd_bus_message_enter_container(names.get(), 'a', "s") > 0) {
        while (sd_bus_message_read(names.get(), "s", &name) > 0) {
            if (std::strcmp(name, kName) == 0) return {"service file", State::good, "the bus starts the service", {}};
        }
    }
    return {"service file", State::warning, std::string("the bus has none for ") + kName + ", and starts no service",
            "install the package; or copy org.tarnwell.Host1.service to ~/.local/share/dbus-1/services and have the "
            "bus look again: busctl --user call org.freedesktop.DBus /org/freedesktop/DBus org.freedesktop.DBus "
            "ReloadConfig"};
}

/// "process 123 (/usr/bin/tarnwell)"
std::string ownerOf(const Bus& bus) {
    std::uint32_t process = 0;
    const Message answer = callBus(bus, "GetConnectionUnixProcessID", kName);
    if (!answer || sd_bus_message_read(answer.get(), "u", &process) <= 0) return "a process that the bus does not tell";
    std::error_code unknown;
    const auto program = std::filesystem::read_symlink("/proc/" + std::to_string(process) + "/exe", unknown);
    return "process " + std::to_string(process) + (unknown ? "" : " (" + program.string() + ")");
}

Check checkRunning(const Bus& bus) {
    if (!hasOwner(bus, kName)) return {"service", State::note, "does not run", {}};
    const std::string owner = ownerOf(bus);
    const auto session = bus::BusSession::connect(bus::BusSession::Start::never);
    if (!session) {
        return {"service", State::warning, owner + " does not answer this program: " + describe(session.error()),
                "end that process, and the bus starts the service anew"};
    }
    const std::string& version = (*session)->service().programVersion;
    if (version == TARNWELL_VERSION) return {"service", State::good, owner + ", version " + version, {}};
    return {"service", State::warning, owner + " is version " + version + ", this program is " TARNWELL_VERSION,
            "systemctl --user restart tarnwell, or end that process: the bus starts the new one"};
}

std::optional<std::string> unitProperty(const Bus& bus, const char* path, const char* interface, const char* name) {
    char* value = nullptr;
    if (sd_bus_get_property_string(bus.get(), kSystemd, path, interface, name, nullptr, &value) < 0) {
        return std::nullopt;
    }
    const std::unique_ptr<char, decltype(&std::free)> freed(value, &std::free);
    return std::string(value);
}

Check checkUnit(const Bus& bus) {
    const std::string unit(kUnit);
    if (!hasOwner(bus, kSystemd)) {
        return {"systemd unit", State::note, "this session has no systemd; the bus starts the service by itself", {}};
    }
    const auto installed =
        textOf(call(bus, kSystemd, kManagerPath, "org.freedesktop.systemd1.Manager", "GetUnitFileState", kUnit));
    if (!installed) {
        return {"systemd unit", State::warning, unit + " is not installed",
                "install the package; where that was done now: systemctl --user daemon-reload"};
    }
    if (*installed == "masked" || *installed == "masked-runtime") {
        return {"systemd unit", State::warning, unit + " is masked, so the service cannot be started",
                "systemctl --user unmask tarnwell"};
    }
    const Message loaded = call(bus, kSystemd, kManagerPath, "org.freedesktop.systemd1.Manager", "LoadUnit", kUnit);
    const char* path = nullptr;
    if (!loaded || sd_bus_message_read(loaded.get(), "o", &path) <= 0) {
        return {"systemd unit", State::warning, unit + " is installed and cannot be loaded",
                "systemctl --user status tarnwell"};
    }
    const auto active = unitProperty(bus, path, "org.freedesktop.systemd1.Unit", "ActiveState").value_or("unknown");
    if (active != "failed") return {"systemd unit", State::good, unit + " is installed and " + active, {}};
    const auto result = unitProperty(bus, path, "org.freedesktop.systemd1.Service", "Result").value_or("unknown");
    return {"systemd unit", State::warning, unit + " has failed (" + result + ")",
            "journalctl --user -u tarnwell says why; then systemctl --user restart tarnwell"};
}

}  // namespace

std::vector<Check> checkService() {
    Bus bus;
    if (const int opened = openBus(bus); opened < 0) {
        return {{"message bus", State::note,
                 "this session has none (" + describe(posixError(-opened)) + "), so there is no service",
                 "verbs do without; for the service log in to a session, or use dbus-run-session"}};
    }
    return {{"message bus", State::good, "is there", {}}, checkActivation(bus), checkRunning(bus), checkUnit(bus)};
}

}  // namespace tarnwell::cli
