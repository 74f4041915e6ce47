#include "bus/wire/StepwiseHandshake.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string_view>

#include "platform/base/Descriptor.h"

namespace tarnwell::bus {
namespace {

constexpr std::size_t kLongestLine = 1024;
constexpr timeval kPatience{10, 0};
constexpr std::string_view kEnd = "\r\nBEGIN\r\n";

int connectTo(const std::string& path, Descriptor& socket) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) return -ENAMETOOLONG;
    path.copy(address.sun_path, path.size());
    socket = Descriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!socket.valid()) return -errno;
    for (const int option : {SO_RCVTIMEO, SO_SNDTIMEO}) {
        if (::setsockopt(socket.get(), SOL_SOCKET, option, &kPatience, sizeof kPatience) != 0) return -errno;
    }
    return ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ? 0 : -errno;
}

int send(const Descriptor& socket, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = ::send(socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count < 0 && errno != EINTR) return errno == EAGAIN ? -ETIMEDOUT : -errno;
        if (count > 0) bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    return 0;
}

/// Byte by byte: what follows the handshake may bring descriptors along, and is for another reader.
int readLine(const Descriptor& socket, std::string& line) {
    while (!line.ends_with("\r\n")) {
        char byte = 0;
        const ssize_t count = ::read(socket.get(), &byte, 1);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return errno == EAGAIN ? -ETIMEDOUT : -errno;
        if (count == 0) return -ECONNRESET;
        line += byte;
        if (line.size() > kLongestLine) return -EPROTO;
    }
    return 0;
}

/// What the bus answered in all.
int shakeHands(const Descriptor& socket, std::string& answers) {
    struct Step {
        std::string_view said;
        std::string_view expected;  ///< how the answer begins
    };
    using namespace std::string_view_literals;
    // Who it is that connects is what the kernel tells the bus.
    for (const Step& step : {Step{"\0AUTH EXTERNAL\r\n"sv, "DATA"sv}, Step{"DATA\r\n"sv, "OK "sv},
                             Step{"NEGOTIATE_UNIX_FD\r\n"sv, "AGREE_UNIX_FD"sv}}) {
        if (const int sent = send(socket, step.said); sent < 0) return sent;
        std::string line;
        if (const int read = readLine(socket, line); read < 0) return read;
        if (!line.starts_with(step.expected)) return line.starts_with("REJECTED") ? -EPERM : -EPROTO;
        answers += line;
    }
    return send(socket, kEnd.substr(2));
}

/// Has sd-bus shake hands with a socket of ours, on which the answers wait for it already. `first` is what it says
/// after that.
int playBack(sd_bus* connection, const Descriptor& ours, std::string_view answers, std::string& first) {
    if (const int sent = send(ours, answers); sent < 0) return sent;
    std::string said;
    for (int processed = 1; processed > 0;) {
        processed = sd_bus_process(connection, nullptr);
        if (processed < 0) return processed;
        std::array<char, 512> buffer{};
        for (ssize_t count; (count = ::recv(ours.get(), buffer.data(), buffer.size(), MSG_DONTWAIT)) > 0;) {
            said.append(buffer.data(), static_cast<std::size_t>(count));
        }
    }
    const std::size_t end = said.find(kEnd);
    if (end == std::string::npos) return -EPROTO;
    first = said.substr(end + kEnd.size());
    return 0;
}

}  // namespace

int openBusStepwise(const std::string& socketPath, sd_bus** connection) {
    Descriptor bus;
    std::string answers, first;
    if (const int connected = connectTo(socketPath, bus); connected < 0) return connected;
    if (const int shaken = shakeHands(bus, answers); shaken < 0) return shaken;

    std::array<int, 2> pair{};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair.data()) != 0) return -errno;
    const Descriptor ours(pair[0]);
    Descriptor theirs(pair[1]);
    int outcome = sd_bus_new(connection);
    if (outcome >= 0) outcome = sd_bus_set_fd(*connection, theirs.get(), theirs.get());
    if (outcome < 0) return outcome;
    const int number = theirs.release();
    outcome = sd_bus_set_bus_client(*connection, 1);
    if (outcome >= 0) outcome = sd_bus_start(*connection);
    if (outcome >= 0) outcome = playBack(*connection, ours, answers, first);
    // From here on its descriptor is the bus.
    if (outcome >= 0) outcome = send(bus, first);
    if (outcome < 0) return outcome;
    if (::fcntl(bus.get(), F_SETFL, O_NONBLOCK) != 0 || ::dup3(bus.get(), number, O_CLOEXEC) < 0) return -errno;
    return 0;
}

}  // namespace tarnwell::bus
