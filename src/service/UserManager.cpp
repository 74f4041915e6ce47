#include "service/UserManager.h"

#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string_view>

#include "bus/wire/OpenBus.h"

namespace tarnwell::service {
namespace {

constexpr std::uint64_t kPatience = 1'000'000;  // microseconds

using Connection = std::unique_ptr<sd_bus, decltype(&sd_bus_flush_close_unref)>;
using Message = std::unique_ptr<sd_bus_message, decltype(&sd_bus_message_unref)>;

/// The reply to the question for the property.
int ask(sd_bus* connection, sd_bus_message** reply) {
    sd_bus_message* raw = nullptr;
    int outcome = sd_bus_message_new_method_call(connection, &raw, "org.freedesktop.systemd1",
                                                 "/org/freedesktop/systemd1", "org.freedesktop.DBus.Properties", "Get");
    const Message question(raw, sd_bus_message_unref);
    if (outcome >= 0) outcome = sd_bus_message_set_auto_start(question.get(), 0);
    if (outcome >= 0) {
        outcome = sd_bus_message_append(question.get(), "ss", "org.freedesktop.systemd1.Manager", "Environment");
    }
    if (outcome >= 0) outcome = sd_bus_call(connection, question.get(), kPatience, nullptr, reply);
    return outcome;
}

}  // namespace

bool isStartedBySystemd() {
    const char* process = std::getenv("SYSTEMD_EXEC_PID");
    return process != nullptr && process == std::to_string(::getpid());
}

Result<std::map<std::string, std::string>> environmentOfUserManager(const std::string& busAddress) {
    sd_bus* rawConnection = nullptr;
    int outcome = bus::openBus(busAddress, &rawConnection);
    const Connection connection(rawConnection, sd_bus_flush_close_unref);
    sd_bus_message* rawReply = nullptr;
    if (outcome >= 0) outcome = ask(connection.get(), &rawReply);
    const Message reply(rawReply, sd_bus_message_unref);
    if (outcome >= 0) outcome = sd_bus_message_enter_container(reply.get(), 'v', "as");
    if (outcome >= 0) outcome = sd_bus_message_enter_container(reply.get(), 'a', "s");
    std::map<std::string, std::string> variables;
    while (outcome >= 0) {
        const char* text = nullptr;
        outcome = sd_bus_message_read_basic(reply.get(), 's', &text);
        if (outcome == 0) return variables;
        if (outcome < 0) break;
        const std::string_view assignment(text);
        const std::size_t sign = assignment.find('=');
        if (sign == std::string_view::npos) continue;
        variables.emplace(assignment.substr(0, sign), assignment.substr(sign + 1));
    }
    return failure(posixError(-outcome, "systemd's user manager does not tell the session's variables"));
}

}  // namespace tarnwell::service
