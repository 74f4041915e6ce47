#pragma once

#include <memory>
#include <string>

#include "host/ProgramContext.h"
#include "platform/base/Result.h"
#include "platform/log/Log.h"

namespace tarnwell::service {

/// The host as a service: one context, its search index kept up to date, and its clients on the session bus, each with
/// what it may see.
class Service {
public:
    struct Options {
        host::Settings settings;
        std::string programVersion;
        std::string busAddress = {};              ///< of the bus; empty: that of the session
        std::function<void()> onDisconnect = {};  ///< the connection to the bus ended by itself
        /// Applications are named in the language that systemd's user manager gives to new programs: looked at when
        /// somebody connects, and with `reload`. For a service that the manager started, and that may outlive a login.
        bool followsUserManager = false;
    };

    /// Opens the store, brings the libraries up to date, begins to watch, takes the name on the bus. The log outlives
    /// the service. Fails with a sentence for people: the store is in use, there is no bus, another process is the
    /// service.
    static Result<std::unique_ptr<Service>> start(Options options, log::Log& log);
    /// Answers what is under way, as far as it ends soon: looks at the disk are given up, jobs are cancelled.
    ~Service();

    /// Looks at the installed applications, and at their names' language, again, without waiting for it.
    void reload();
    /// One line on what it does, for those who look at it from outside.
    std::string summary() const;

private:
    class Impl;
    explicit Service(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

}  // namespace tarnwell::service
