#include "testing/PrivateBus.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace tarnwell::testing {
namespace {

[[noreturn]] void stop(const char* what) {
    std::fprintf(stderr, "the private message bus cannot be had: %s\n", what);
    std::abort();
}

std::string configuration(const std::string& folder, PrivateBus::Statistics statistics) {
    return "<busconfig><type>session</type><listen>unix:path=" + folder + "/socket</listen><servicedir>" + folder +
           "/services</servicedir><auth>EXTERNAL</auth><policy context=\"default\">"
           "<allow send_destination=\"*\" eavesdrop=\"true\"/><allow eavesdrop=\"true\"/><allow own=\"*\"/>" +
           std::string(statistics == PrivateBus::Statistics::told
                           ? ""
                           : "<deny send_interface=\"org.freedesktop.DBus.Debug.Stats\"/>") +
           "</policy>"
           // As the session's bus has them.
           "<limit name=\"max_incoming_bytes\">1000000000</limit><limit name=\"max_outgoing_bytes\">1000000000</limit>"
           "<limit name=\"max_incoming_unix_fds\">250000000</limit>"
           "<limit name=\"max_outgoing_unix_fds\">250000000</limit>"
           "<limit name=\"max_message_size\">1000000000</limit><limit name=\"max_completed_connections\">100000</limit>"
           "<limit name=\"max_incomplete_connections\">10000</limit>"
           "<limit name=\"max_connections_per_user\">100000</limit>"
           "<limit name=\"max_match_rules_per_connection\">50000</limit>"
           "<limit name=\"max_replies_per_connection\">50000</limit></busconfig>";
}

}  // namespace

PrivateBus::PrivateBus(Statistics statistics) {
    std::filesystem::create_directory(folder_.path("services"));
    writeFile(folder_.path("bus.conf"), configuration(folder_.path(), statistics));
    std::array<int, 2> address{};
    if (::pipe2(address.data(), O_CLOEXEC) != 0) stop("no pipe");
    std::string program = "dbus-daemon", config = "--config-file=" + folder_.path("bus.conf"),
                print = "--print-address=3", stay = "--nofork";
    std::array<char*, 5> arguments{program.data(), config.data(), print.data(), stay.data(), nullptr};
    process_ = ::fork();
    if (process_ < 0) stop("no process");
    if (process_ == 0) {
        // A test that crashes leaves no bus.
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::dup2(address[1], 3) == 3) ::execvp(program.c_str(), arguments.data());
        ::_exit(127);
    }
    ::close(address[1]);
    char byte = 0;
    while (::read(address[0], &byte, 1) == 1 && byte != '\n') address_ += byte;
    ::close(address[0]);
    if (address_.empty()) stop("dbus-daemon cannot be run, or says no address");
}

PrivateBus::~PrivateBus() { kill(); }

void PrivateBus::kill() {
    if (process_ == 0) return;
    ::kill(process_, SIGKILL);
    int status = 0;
    ::waitpid(process_, &status, 0);
    process_ = 0;
}

void PrivateBus::offer(const std::string& service, const std::string& command) const {
    writeFile(folder_.path("services/" + service + ".service"),
              "[D-BUS Service]\nName=" + service + "\nExec=" + command + "\n");
    // Otherwise it looks when the kernel tells it, which takes a moment.
    ::kill(process_, SIGHUP);
}

}  // namespace tarnwell::testing
