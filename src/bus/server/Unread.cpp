#include "bus/server/Unread.h"

#include <systemd/sd-bus.h>

#include <cerrno>
#include <memory>

#include "bus/wire/Dictionary.h"

namespace tarnwell::bus {
namespace {

using Told = std::function<void(Result<Unread>)>;

/// What a bus without statistics, or one that keeps them to itself, answers.
bool saysThatItCannot(const sd_bus_error& error) {
    return sd_bus_error_has_names(&error, SD_BUS_ERROR_UNKNOWN_METHOD, SD_BUS_ERROR_UNKNOWN_INTERFACE,
                                  SD_BUS_ERROR_UNKNOWN_OBJECT, SD_BUS_ERROR_NOT_SUPPORTED, SD_BUS_ERROR_ACCESS_DENIED,
                                  SD_BUS_ERROR_INVALID_ARGS) > 0;
}

Result<Unread> read(sd_bus_message* reply) {
    if (const sd_bus_error* error = sd_bus_message_get_error(reply)) {
        return failure(posixError(saysThatItCannot(*error) ? ENOTSUP : EAGAIN));
    }
    Unread unread;
    bool isTold = false;
    Reader reader(reply);
    readDictionary(reader, [&](std::string_view key, std::string_view contents) {
        if (key == "OutgoingBytes" && contents == "u") return unread.bytes = reader.uint32(), isTold = true;
        if (key != "OutgoingFDs" || contents != "u") return false;
        unread.descriptors = reader.uint32();
        return true;
    });
    if (reader.error() < 0 || !isTold) return failure(posixError(ENOTSUP));
    return unread;
}

int answered(sd_bus_message* reply, void* data, sd_bus_error*) {
    const std::unique_ptr<Told> told(static_cast<Told*>(data));
    (*told)(read(reply));
    return 0;
}

}  // namespace

void askForUnread(sd_bus* connection, const std::string& name, Told told) {
    auto kept = std::make_unique<Told>(std::move(told));
    const int sent = sd_bus_call_method_async(connection, nullptr, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                              "org.freedesktop.DBus.Debug.Stats", "GetConnectionStats", answered,
                                              kept.get(), "s", name.c_str());
    if (sent < 0) return (*kept)(failure(posixError(-sent)));
    (void)kept.release();
}

}  // namespace tarnwell::bus
