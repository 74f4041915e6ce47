#pragma once

#include <functional>
#include <string>

#include "bus/server/Methods.h"

struct sd_bus;
struct sd_bus_message;

/// What goes back to clients. On the connection's thread.
namespace tarnwell::bus {

/// What an answer needs of a call, for one that has to wait: who asked, and under which number. What the call brought,
/// its arguments and descriptors, is let go with it. The caller's to unref; null where there is no memory.
sd_bus_message* withoutContents(sd_bus_message* call);

/// What went to a client, roughly.
struct Sent {
    std::size_t bytes = 0, descriptors = 0;
};

/// Answers the call, with the error where the answer cannot be written (it is too large, for one).
Sent sendAnswer(sd_bus_message* call, Answer& answer);
/// "AccessDenied" where the error is EACCES: the client is let in to nothing.
Sent sendRefusal(sd_bus_message* call, const Error& error);
/// "LimitsExceeded".
Sent sendLimit(sd_bus_message* call, const char* message);
/// For arguments that could not be read; `error` is the reader's.
Sent sendMisuse(sd_bus_message* call, int error);

/// To one connection only.
Sent sendSignal(sd_bus* connection, const std::string& to, const char* path, const char* interface, const char* member,
                const std::function<void(Writer&)>& write);

}  // namespace tarnwell::bus
