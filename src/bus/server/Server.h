#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/base/Result.h"
#include "platform/log/Log.h"
#include "session/Session.h"

namespace tarnwell::bus {

/// Who asks, as the bus knows it.
struct Peer {
    std::string name;  ///< of the connection, such as ":1.42"
    pid_t pid = 0;
    uid_t uid = 0;
    std::optional<std::string> securityLabel;
};

/// What one client may have at a time. What goes beyond is refused with LimitsExceeded, and hurts nobody else.
struct ClientLimits {
    std::size_t requests = 64;
    std::size_t jobs = 32;  ///< whose results were not fetched yet, too
    std::size_t watches = 256;
};

/// Answers the clients on the session bus. Each client is known by its connection and has a session of its own; when
/// its connection ends, its jobs are cancelled, its watches end, and nothing of it is left.
class Server {
public:
    struct Options {
        std::string busAddress = {};  ///< of the bus; empty: that of the session
        std::string programVersion;
        std::string storageRoot;     ///< real path
        std::string stateDirectory;  ///< real path
        ClientLimits limits = {};
        std::size_t workers = 8;     ///< threads for requests
        std::size_t jobWorkers = 4;  ///< threads for jobs
        std::size_t clients = 4096;  ///< that are known at a time
        /// The connection to the bus ended by itself.
        std::function<void()> onDisconnect = {};
    };
    /// The session of a client, or why it gets none: EACCES is told as AccessDenied. Called on a worker's thread, once
    /// for each client.
    using Admit = std::function<Result<std::shared_ptr<session::Session>>(const Peer&)>;

    /// Takes the service's name. Fails with EEXIST where another process has it, and with another POSIX error where
    /// there is no bus. The log outlives the server.
    static Result<std::unique_ptr<Server>> start(Options options, Admit admit, log::Log& log);
    /// Takes no more requests, cancels the jobs, waits for what is running and answers it.
    ~Server();

    struct Counts {
        std::size_t clients = 0, requests = 0, jobs = 0, watches = 0;
    };
    /// What there is now. Any thread but those that the server calls others on.
    Counts counts() const;

private:
    class Impl;
    explicit Server(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

}  // namespace tarnwell::bus
