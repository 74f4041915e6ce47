#include "bus/server/Replies.h"

#include <systemd/sd-bus.h>

#include <cerrno>

#include "bus/wire/Errors.h"

namespace tarnwell::bus {
namespace {

void sendError(sd_bus_message* call, const std::string& name, const std::string& message) {
    sd_bus_reply_method_errorf(call, name.c_str(), "%s", message.c_str());
}

}  // namespace

void sendAnswer(sd_bus_message* call, Answer& answer) {
    if (answer) {
        sd_bus_message* reply = nullptr;
        int outcome = sd_bus_message_new_method_return(call, &reply);
        Writer writer(reply);
        if (outcome >= 0) (*answer)(writer);
        if (outcome >= 0) outcome = writer.error();
        if (outcome >= 0) outcome = sd_bus_send(nullptr, reply, nullptr);
        sd_bus_message_unref(reply);
        if (outcome >= 0) return;
        answer = failure(posixError(-outcome, "the answer could not be written"));
    }
    sendError(call, errorName(answer.error()), errorMessage(answer.error()));
}

void sendRefusal(sd_bus_message* call, const Error& error) {
    sendError(call, error.is(ErrorDomain::posix, EACCES) ? kAccessDenied : errorName(error), errorMessage(error));
}

void sendLimit(sd_bus_message* call, const char* message) { sendError(call, kLimitsExceeded, message); }

void sendMisuse(sd_bus_message* call, int error) {
    if (error == -E2BIG || error == -EMSGSIZE) {
        return sendLimit(call, "one request may name a thousand things, each up to 64 KiB");
    }
    sendError(call, SD_BUS_ERROR_INVALID_ARGS, "the arguments are not what was expected");
}

void sendSignal(sd_bus* connection, const std::string& to, const char* path, const char* interface, const char* member,
                const std::function<void(Writer&)>& write) {
    sd_bus_message* signal = nullptr;
    if (sd_bus_message_new_signal(connection, &signal, path, interface, member) < 0) return;
    Writer writer(signal);
    write(writer);
    if (writer.error() == 0) sd_bus_send_to(connection, signal, to.c_str(), nullptr);
    sd_bus_message_unref(signal);
}

}  // namespace tarnwell::bus
