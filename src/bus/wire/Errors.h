#pragma once

#include <string>
#include <string_view>

#include "bus/wire/Message.h"
#include "platform/base/Result.h"

struct sd_bus_message;

/// Errors on the bus. Every error of the host has a name of its own, so that a client tells them apart without reading
/// text: "org.tarnwell.Error.SyncAnchorExpired", "org.tarnwell.Error.Posix.ENOSPC".
namespace tarnwell::bus {

/// The caller may not ask that, or it cannot be told who it is.
inline constexpr const char* kAccessDenied = "org.tarnwell.Error.AccessDenied";
/// The client has too many requests, jobs, watches or descriptors at a time, or asked for too much at once.
inline constexpr const char* kLimitsExceeded = "org.tarnwell.Error.LimitsExceeded";

std::string errorName(const Error& error);
/// The error of that name; names that are not ours are those of the bus itself: the service went, or is not there.
Error errorOfName(std::string_view name, std::string message);

/// What people read of it on the bus: its sentence, else its name in the host's words.
std::string errorMessage(const Error& error);

/// {"error": s, "message": s, "info": a{say}}: the outcome of one of several items, as the entries of an open a{sv}.
void writeError(Writer& writer, const Error& error);

}  // namespace tarnwell::bus
