#include "bus/server/Replies.h"

#include <systemd/sd-bus.h>

#include <cerrno>

#include "bus/wire/Errors.h"

namespace tarnwell::bus {
namespace {

/// A message's header, and what a message costs whoever keeps it.
constexpr std::size_t kHeader = 256;

Sent sendError(sd_bus_message* call, const std::string& name, const std::string& message) {
    // It may quote what the caller asked, which may be any bytes.
    const std::string text = displayable(message);
    sd_bus_reply_method_errorf(call, name.c_str(), "%s", text.c_str());
    return {kHeader + name.size() + text.size(), 0};
}

}  // namespace

sd_bus_message* withoutContents(sd_bus_message* call) {
    std::uint64_t number = 0;
    sd_bus_message* bare = nullptr;
    int outcome = sd_bus_message_get_cookie(call, &number);
    if (outcome >= 0) {
        outcome =
            sd_bus_message_new_method_call(sd_bus_message_get_bus(call), &bare, nullptr, sd_bus_message_get_path(call),
                                           sd_bus_message_get_interface(call), sd_bus_message_get_member(call));
    }
    if (outcome >= 0) outcome = sd_bus_message_set_sender(bare, sd_bus_message_get_sender(call));
    if (outcome >= 0) outcome = sd_bus_message_set_expect_reply(bare, sd_bus_message_get_expect_reply(call));
    if (outcome >= 0) outcome = sd_bus_message_seal(bare, number, 0);
    return outcome >= 0 ? bare : sd_bus_message_unref(bare);
}

Sent sendAnswer(sd_bus_message* call, Answer& answer) {
    if (answer) {
        sd_bus_message* reply = nullptr;
        int outcome = sd_bus_message_new_method_return(call, &reply);
        Writer writer(reply);
        if (outcome >= 0) (*answer)(writer);
        if (outcome >= 0) outcome = writer.error();
        if (outcome >= 0) outcome = sd_bus_send(nullptr, reply, nullptr);
        sd_bus_message_unref(reply);
        if (outcome >= 0) return {kHeader + writer.bytesWritten(), writer.descriptorsWritten()};
        answer = failure(posixError(-outcome, "the answer could not be written"));
    }
    return sendError(call, errorName(answer.error()), errorMessage(answer.error()));
}

Sent sendRefusal(sd_bus_message* call, const Error& error) {
    return sendError(call, error.is(ErrorDomain::posix, EACCES) ? kAccessDenied : errorName(error),
                     errorMessage(error));
}

Sent sendLimit(sd_bus_message* call, const char* message) { return sendError(call, kLimitsExceeded, message); }

Sent sendMisuse(sd_bus_message* call, int error) {
    if (error == -E2BIG || error == -EMSGSIZE) {
        return sendLimit(call, "one request may name a thousand things, each up to 64 KiB, and 4 MiB in all");
    }
    return sendError(call, SD_BUS_ERROR_INVALID_ARGS, "the arguments are not what was expected");
}

Sent sendSignal(sd_bus* connection, const std::string& to, const char* path, const char* interface, const char* member,
                const std::function<void(Writer&)>& write) {
    sd_bus_message* signal = nullptr;
    if (sd_bus_message_new_signal(connection, &signal, path, interface, member) < 0) return {};
    Writer writer(signal);
    write(writer);
    if (writer.error() == 0) sd_bus_send_to(connection, signal, to.c_str(), nullptr);
    sd_bus_message_unref(signal);
    return {kHeader + writer.bytesWritten(), 0};
}

}  // namespace tarnwell::bus
