#pragma once

#include <sys/types.h>

#include <string>

#include "testing/TemporaryDirectory.h"

namespace tarnwell::testing {

/// A message bus of its own: the real dbus-daemon with the session's rules, in a private folder, without any service
/// that it could start. Stops the test program with a message where it cannot be had.
class PrivateBus {
public:
    /// Whether it tells what it keeps for whom; some are set up not to.
    enum class Statistics { told, withheld };
    explicit PrivateBus(Statistics statistics = Statistics::told);
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    /// For DBUS_SESSION_BUS_ADDRESS.
    const std::string& address() const { return address_; }
    /// Lets the bus start a service by running a command (without a shell, words between blanks).
    void offer(const std::string& service, const std::string& command) const;
    /// Ends the bus as if it had crashed.
    void kill();

private:
    TemporaryDirectory folder_;
    std::string address_;
    pid_t process_ = 0;
};

}  // namespace tarnwell::testing
