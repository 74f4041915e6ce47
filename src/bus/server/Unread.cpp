#include "bus/server/Unread.h"

#include <systemd/sd-bus.h>

#include <cerrno>
#include <memory>
#include <optional>
#include <string_view>

#include "bus/wire/Dictionary.h"

namespace tarnwell::bus {
namespace {

/// What is asked of the bus, of one of its connections.
struct Question {
    sd_bus* connection;
    std::string name;
    std::function<void(Result<Unread>)> told;
};

/// What a bus without statistics, or one that keeps them to itself, answers; dbus-broker has others, and fails.
bool saysThatItCannot(const sd_bus_error& error) {
    return sd_bus_error_has_names(&error, SD_BUS_ERROR_UNKNOWN_METHOD, SD_BUS_ERROR_UNKNOWN_INTERFACE,
                                  SD_BUS_ERROR_UNKNOWN_OBJECT, SD_BUS_ERROR_NOT_SUPPORTED, SD_BUS_ERROR_ACCESS_DENIED,
                                  SD_BUS_ERROR_INVALID_ARGS, SD_BUS_ERROR_FAILED) > 0;
}

Error errorOf(const sd_bus_error& error) { return posixError(saysThatItCannot(error) ? ENOTSUP : EAGAIN); }

/// As the reference bus has it for one connection.
Result<Unread> readConnection(sd_bus_message* reply) {
    if (const sd_bus_error* error = sd_bus_message_get_error(reply)) return failure(errorOf(*error));
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

/// a{su}.
Unread readPeer(Reader& reader) {
    Unread unread;
    reader.enter('a', "{su}");
    while (reader.more()) {
        reader.enter('e', "su");
        const std::string key = reader.string();
        const std::uint32_t value = reader.uint32();
        if (key == "OutgoingBytes") unread.bytes = value;
        if (key == "OutgoingFds") unread.descriptors = value;
        reader.exit();
    }
    reader.exit();
    return unread;
}

/// As dbus-broker has it, for all connections together.
Result<Unread> readAmongAll(sd_bus_message* reply, const std::string& name) {
    if (const sd_bus_error* error = sd_bus_message_get_error(reply)) return failure(errorOf(*error));
    std::optional<Unread> unread;
    bool isTold = false;
    Reader reader(reply);
    readDictionary(reader, [&](std::string_view key, std::string_view contents) {
        constexpr const char *kPeers = "(sa{sv}a{su})", *kPeer = "sa{sv}a{su}";
        if (key != "org.bus1.DBus.Debug.Stats.PeerAccounting" || contents != "a" + std::string(kPeers)) return false;
        isTold = true;
        reader.enter('a', kPeers);
        while (reader.more()) {
            reader.enter('r', kPeer);
            const bool isAsked = reader.string() == name;
            reader.skip();
            if (isAsked) {
                unread = readPeer(reader);
            } else {
                reader.skip();
            }
            reader.exit();
        }
        reader.exit();
        return true;
    });
    if (reader.error() < 0 || !isTold) return failure(posixError(ENOTSUP));
    if (!unread) return failure(posixError(EAGAIN));
    return *unread;
}

/// Takes the question along, and gives it to who is called back.
void ask(std::unique_ptr<Question> question, const char* method, sd_bus_message_handler_t answered) {
    sd_bus_message* call = nullptr;
    int outcome = sd_bus_message_new_method_call(question->connection, &call, "org.freedesktop.DBus",
                                                 "/org/freedesktop/DBus", "org.freedesktop.DBus.Debug.Stats", method);
    const bool isOfOne = std::string_view(method) == "GetConnectionStats";
    if (outcome >= 0 && isOfOne) outcome = sd_bus_message_append(call, "s", question->name.c_str());
    if (outcome >= 0) outcome = sd_bus_call_async(question->connection, nullptr, call, answered, question.get(), 0);
    sd_bus_message_unref(call);
    if (outcome < 0) return question->told(failure(posixError(-outcome)));
    (void)question.release();
}

int answeredForAll(sd_bus_message* reply, void* data, sd_bus_error*) {
    const std::unique_ptr<Question> question(static_cast<Question*>(data));
    question->told(readAmongAll(reply, question->name));
    return 0;
}

int answeredForOne(sd_bus_message* reply, void* data, sd_bus_error*) {
    std::unique_ptr<Question> question(static_cast<Question*>(data));
    auto unread = readConnection(reply);
    if (!unread && unread.error().is(ErrorDomain::posix, ENOTSUP)) {
        ask(std::move(question), "GetStats", answeredForAll);
    } else {
        question->told(std::move(unread));
    }
    return 0;
}

}  // namespace

void askForUnread(sd_bus* connection, const std::string& name, std::function<void(Result<Unread>)> told) {
    ask(std::unique_ptr<Question>(new Question{connection, name, std::move(told)}), "GetConnectionStats",
        answeredForOne);
}

}  // namespace tarnwell::bus
