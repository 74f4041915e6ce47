#pragma once

#include <functional>
#include <string>

#include "bus/server/Methods.h"

struct sd_bus;
struct sd_bus_message;

/// What goes back to clients. On the connection's thread.
namespace tarnwell::bus {

/// Answers the call, with the error where the answer cannot be written (it is too large, for one).
void sendAnswer(sd_bus_message* call, Answer& answer);
/// "AccessDenied" where the error is EACCES: the client is let in to nothing.
void sendRefusal(sd_bus_message* call, const Error& error);
/// "LimitsExceeded".
void sendLimit(sd_bus_message* call, const char* message);
/// For arguments that could not be read; `error` is the reader's.
void sendMisuse(sd_bus_message* call, int error);

/// To one connection only.
void sendSignal(sd_bus* connection, const std::string& to, const char* path, const char* interface, const char* member,
                const std::function<void(Writer&)>& write);

}  // namespace tarnwell::bus
