#pragma once

#include <csignal>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "testing/PrivateBus.h"
#include "testing/TemporaryDirectory.h"
#include "tests/mirror/ChildProcess.h"

namespace tarnwell::mirror {

/// A device in a private folder, with a storage root and two app libraries, and the process that hosts its provider.
class HostedDevice {
public:
    /// How its host finds changes: comparing when it is asked, or told by the kernel of all folders, or of some; or it
    /// is the service, which is told, too, and asked over a bus, by each client on a connection of its own.
    enum class Finding { comparing, watching, limited, serving };
    explicit HostedDevice(Finding finding = Finding::comparing);
    ~HostedDevice();

    static const char* nameOf(Finding finding);
    Finding finding() const { return finding_; }
    const std::string& home() const { return home_; }
    std::string path(const std::string& relative) const { return home_ + "/" + relative; }
    /// Folders whose names end so are packages to the host; nothing where this machine cannot declare any.
    const std::optional<std::string>& packageSuffix() const { return packageSuffix_; }

    /// The host's answer. Stops the test when the host ends instead.
    Message ask(const Message& message);
    /// The host's process stands still until it goes on.
    void pause() { host_->signal(SIGSTOP); }
    void goOn() { host_->signal(SIGCONT); }
    /// Ends the host's process in good order, and starts it again.
    void restart();
    /// Kills it while it works on the message, some microseconds after it was asked, and starts it again.
    void killWhileItAnswers(const Message& message, unsigned microseconds);

    /// Ends the connections of all clients, as if they had crashed; they come back with their next request.
    void disconnect();

private:
    struct Connection;
    void start();
    Connection& connectionFor(const Message& message);

    testing::TemporaryDirectory directory_;
    const std::string home_ = directory_.path("home");
    std::optional<std::string> packageSuffix_;
    const Finding finding_;
    std::unique_ptr<testing::PrivateBus> bus_;  ///< for the service
    std::unique_ptr<ChildProcess> host_;
    std::map<std::string, std::unique_ptr<Connection>> connections_;
};

}  // namespace tarnwell::mirror
