#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>

struct sd_bus;
struct sd_bus_message;

namespace tarnwell::load {

/// A connection to a bus that does what no well-behaved client does: asks without waiting, does not read, leaves in the
/// middle.
class RawConnection {
public:
    explicit RawConnection(const std::string& address);
    ~RawConnection();
    RawConnection(RawConnection&& other) noexcept;
    RawConnection& operator=(RawConnection&&) = delete;

    sd_bus* get() const { return bus_; }
    std::string name() const;

    sd_bus_message* newCall(const char* member) const;
    sd_bus_message* newCall(const char* member, const char* interface, const char* path) const;
    /// Gives the call to the bus, and leaves what comes of it unread until something reads here.
    void send(sd_bus_message* call) const;
    /// Told the name of the error, "" for an answer, while `read` is called. It may be told when the connection goes.
    using Answered = std::function<void(const std::string& error, sd_bus_message* answer)>;
    /// A negative errno where it cannot be sent: EINVAL for a message that libsystemd would not make.
    int ask(sd_bus_message* call, Answered answered) const;
    /// Handles what came, without waiting; false once the connection has ended.
    bool read() const;
    /// The name of the error that the call ends with, "" for an answer.
    std::string call(sd_bus_message* call) const;

    /// What the bus says of somebody's connection: the process behind it (0 for none), and its statistics.
    pid_t processOf(const std::string& name) const;
    std::map<std::string, std::uint32_t> statisticsOf(const std::string& name) const;

private:
    sd_bus* bus_ = nullptr;
};

}  // namespace tarnwell::load
