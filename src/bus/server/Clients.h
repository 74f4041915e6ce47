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
    Clients(Machinery& machinery, Server::Admit admit, log::Log& log);

    /// The client that sent the call, if it may ask anything more; else the caller was told why not.
    Client* asking(sd_bus_message* call);
    Client* named(const std::string& name);

    using Start = std::move_only_function<void(Client&, std::uint64_t call)>;
    /// Counts the call among the client's, with the size of what it asks, and starts it once it is known who asks.
    /// `finish` ends it. False where it was refused: then the caller was told why.
    bool begin(sd_bus_message* call, Client& client, std::size_t size, Start start);
    /// `turn` is that of the client's lane, where the answer was made on it.
    void finish(std::uint64_t call, Answer answer, Workers::Turn turn = {});
    /// Has the session asked on the client's lane, and answers.
    void request(sd_bus_message* call, std::size_t size, Effect effect, Work work);

    /// "LimitsExceeded" for the caller, if there is room for that.
    void refuse(sd_bus_message* call, const char* message);
    /// The same for arguments that could not be read; `error` is the reader's.
    void misused(sd_bus_message* call, int error);
    /// Something went to a client that was no answer to a counted call.
    void told(const std::string& name, const Sent& sent);
    /// True for a client that leaves what it gets unread.
    bool isBehind(const std::string& name);
    /// See Pace::goOn.
    void goOn(sd_bus* connection) { pace_.goOn(connection); }

    /// The client went: nothing of it stays.
    void forget(const std::string& name);
    /// All went, and nobody comes any more.
    void end();

    Server::Counts counts() const;

private:
    struct Call {
        sd_bus_message* message;
        std::string client;
        std::size_t size;
    };

    void admit(const Peer& peer);
    void admitted(const std::string& name, Result<std::shared_ptr<session::Session>> session);
    void drop(std::uint64_t call);
    void giveBackMemory(std::size_t goneBefore);

    Machinery& machinery_;
    const Server::Admit admit_;
    log::Log& log_;
    Pace pace_;
    bool isEnding_ = false;
    std::unordered_map<std::string, std::shared_ptr<Client>> clients_;
    std::unordered_map<std::uint64_t, Call> calls_;
    std::uint64_t lastCall_ = 0;
    std::size_t gone_ = 0;   ///< clients, since memory was given back
    std::size_t bytes_ = 0;  ///< of all that is asked and not answered
};

}  // namespace tarnwell::bus
