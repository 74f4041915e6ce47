#pragma once

#include <functional>
#include <memory>
#include <string>
#include <unordered_map>

#include "bus/server/Client.h"
#include "bus/server/Server.h"
#include "bus/wire/Loop.h"

struct sd_bus;
struct sd_bus_message;

namespace tarnwell::bus {

/// What everything in a server works with. Set before the connection's thread begins.
struct Machinery {
    explicit Machinery(const Server::Options& serverOptions) : options(serverOptions) {}

    const Server::Options& options;
    sd_bus* connection = nullptr;
    std::unique_ptr<Loop> loop;
    std::unique_ptr<Workers> workers, jobWorkers;
};

/// Who asks, and which calls of theirs are not answered yet. On the connection's thread.
class Clients {
public:
    Clients(Machinery& machinery, Server::Admit admit, log::Log& log)
        : machinery_(machinery), admit_(std::move(admit)), log_(log) {}

    /// The client that sent the call, if it may ask anything more; else the caller was told why not.
    Client* asking(sd_bus_message* call);
    Client* named(const std::string& name);

    using Start = std::move_only_function<void(Client&, std::uint64_t call)>;
    /// Counts the call among the client's, and starts it once it is known who asks. `finish` ends it.
    void begin(sd_bus_message* call, Client& client, Start start);
    void finish(std::uint64_t call, Answer answer);
    /// Has the session asked on the client's lane, and answers.
    void request(sd_bus_message* call, Work work);

    /// The client went: nothing of it stays.
    void forget(const std::string& name);
    /// All went, and nobody comes any more.
    void end();

    Server::Counts counts() const;

private:
    struct Call {
        sd_bus_message* message;
        std::string client;
    };

    void admit(const Peer& peer);
    void admitted(const std::string& name, Result<std::shared_ptr<session::Session>> session);
    void drop(std::uint64_t call);

    Machinery& machinery_;
    const Server::Admit admit_;
    log::Log& log_;
    bool isEnding_ = false;
    std::unordered_map<std::string, std::shared_ptr<Client>> clients_;
    std::unordered_map<std::uint64_t, Call> calls_;
    std::uint64_t lastCall_ = 0;
};

}  // namespace tarnwell::bus
