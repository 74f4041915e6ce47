#include "bus/server/Credentials.h"

#include <systemd/sd-bus.h>

#include <cerrno>
#include <memory>

#include "bus/wire/Dictionary.h"

namespace tarnwell::bus {
namespace {

struct Question {
    std::string name;
    std::function<void(Result<Peer>)> told;
};

Result<Peer> read(const std::string& name, sd_bus_message* reply) {
    const Error unsaid = posixError(EACCES, "the bus does not say who asks");
    // Mostly gone meanwhile.
    if (sd_bus_message_get_error(reply) != nullptr) return failure(unsaid);
    Peer peer{name, 0, 0, std::nullopt};
    bool hasUser = false;
    Reader reader(reply);
    readDictionary(reader, [&](std::string_view key, std::string_view contents) {
        if (key == "ProcessID" && contents == "u") return peer.pid = static_cast<pid_t>(reader.uint32()), true;
        if (key == "UnixUserID" && contents == "u") return peer.uid = reader.uint32(), hasUser = true;
        if (key != "LinuxSecurityLabel" || contents != "ay") return false;
        std::string label = reader.text();
        // The bus gives it with the NUL at its end.
        if (!label.empty() && label.back() == '\0') label.pop_back();
        peer.securityLabel = std::move(label);
        return true;
    });
    if (reader.error() < 0 || !hasUser || peer.pid <= 0) return failure(unsaid);
    return peer;
}

int answered(sd_bus_message* reply, void* data, sd_bus_error*) {
    const std::unique_ptr<Question> question(static_cast<Question*>(data));
    question->told(read(question->name, reply));
    return 0;
}

}  // namespace

void askForCredentials(sd_bus* connection, const std::string& name, std::function<void(Result<Peer>)> told) {
    auto question = std::make_unique<Question>(name, std::move(told));
    const int sent = sd_bus_call_method_async(connection, nullptr, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                              "org.freedesktop.DBus", "GetConnectionCredentials", answered,
                                              question.get(), "s", name.c_str());
    if (sent < 0) return question->told(failure(posixError(-sent)));
    (void)question.release();
}

}  // namespace tarnwell::bus
