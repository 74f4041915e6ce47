#pragma once

#include <memory>
#include <string>
#include <vector>

#include "testing/TemporaryDirectory.h"
#include "tests/mirror/ChildProcess.h"

namespace tarnwell::mirror {

/// A device in a private folder, with a storage root and two app libraries, and the process that hosts its provider.
class HostedDevice {
public:
    HostedDevice();

    const std::string& home() const { return home_; }
    std::string path(const std::string& relative) const { return home_ + "/" + relative; }

    /// The host's answer. Stops the test when the host ends instead.
    Message ask(const Message& message);
    /// Ends the host's process in good order, and starts it again.
    void restart();
    /// Kills it while it works on the message, some microseconds after it was asked, and starts it again.
    void killWhileItAnswers(const Message& message, unsigned microseconds);

private:
    void start();

    testing::TemporaryDirectory directory_;
    const std::string home_ = directory_.path("home");
    std::unique_ptr<ChildProcess> host_;
};

}  // namespace tarnwell::mirror
