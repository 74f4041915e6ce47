#include "tests/mirror/HostedDevice.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <thread>

#include "bus/client/BusSession.h"
#include "testing/RandomChanges.h"
#include "tests/mirror/Answers.h"
#include "tests/mirror/Layout.h"
#include "tests/mirror/Roles.h"

namespace tarnwell::mirror {
namespace {

[[noreturn]] void stop(const char* what, int status) {
    std::fprintf(stderr, "the host %s; status %d\n", what, status);
    std::abort();
}

void installApplication(const std::string& home, const std::string& name) {
    testing::writeFile(home + "/.local/share/applications/" + name + ".desktop",
                       "[Desktop Entry]\nType=Application\nName=" + name +
                           "\nExec=true\nX-Tarnwell-DataContainer=~/Apps/" + name +
                           "\nX-Tarnwell-SupportsDocumentBrowser=true\n");
}

/// Makes folders whose names end so packages, in a type database of this device's own; false where no program makes
/// one.
bool declarePackages(const std::string& home, const std::string& suffix) {
    const std::string types = home + "/.local/share/mime";
    testing::makeDirectories(types + "/packages");
    testing::writeFile(types + "/packages/test.xml", R"(<?xml version="1.0" encoding="UTF-8"?>
<mime-info xmlns="http://www.freedesktop.org/standards/shared-mime-info">
  <mime-type type="application/x-test-bundle">
    <sub-class-of type="inode/directory"/>
    <glob pattern="*)" + suffix + R"("/>
  </mime-type>
</mime-info>
)");
    return std::system(("update-mime-database " + types + " >/dev/null 2>&1").c_str()) == 0;
}

}  // namespace

HostedDevice::HostedDevice(Finding finding) : finding_(finding) {
    for (const RootFolder& root : kRoots) testing::makeDirectories(path(root.path));
    testing::makeDirectories(path(kOutside));
    testing::makeDirectories(path(".local/share/applications"));
    installApplication(home_, "Notes");
    installApplication(home_, "Sketches");
    if (declarePackages(home_, testing::RandomChanges::kPackageSuffix)) {
        packageSuffix_ = testing::RandomChanges::kPackageSuffix;
    }
    start();
}

const char* HostedDevice::nameOf(Finding finding) {
    switch (finding) {
        case Finding::comparing:
            return kComparing;
        case Finding::watching:
            return kWatching;
        case Finding::limited:
            return kLimited;
        case Finding::serving:
            return kServing;
    }
    std::abort();
}

/// A client's connection to the service.
struct HostedDevice::Connection {
    explicit Connection(std::unique_ptr<bus::BusSession> client) : session(std::move(client)), answers(*session) {}
    std::unique_ptr<bus::BusSession> session;
    Answers answers;
};

HostedDevice::~HostedDevice() = default;

void HostedDevice::disconnect() { connections_.clear(); }

void HostedDevice::start() {
    if (finding_ == Finding::serving) {
        if (!bus_) bus_ = std::make_unique<testing::PrivateBus>();
        host_ = std::make_unique<ChildProcess>(std::vector<std::string>{kServeRole, home_, bus_->address()});
        if (!host_->hear()) stop("does not serve", host_->end());
        return;
    }
    host_ = std::make_unique<ChildProcess>(std::vector<std::string>{kHostRole, home_, nameOf(finding_)});
}

HostedDevice::Connection& HostedDevice::connectionFor(const Message& message) {
    auto& connection = connections_[message.size() > 1 && message[0] != "item" ? message[1] : std::string()];
    if (!connection) {
        auto session = bus::BusSession::connect(bus::BusSession::Start::never, bus_->address());
        if (!session) stop(describe(session.error()).c_str(), 0);
        connection = std::make_unique<Connection>(std::move(*session));
    }
    return *connection;
}

Message HostedDevice::ask(const Message& message) {
    if (finding_ == Finding::serving) return connectionFor(message).answers.to(message);
    if (host_->tell(message)) {
        if (auto answer = host_->hear()) return std::move(*answer);
    }
    stop("ended by itself", host_->end());
}

void HostedDevice::restart() {
    if (const int status = host_->end(); status != 0) stop("did not end well", status);
    start();
}

void HostedDevice::killWhileItAnswers(const Message& message, unsigned microseconds) {
    std::thread client;
    if (finding_ == Finding::serving) {
        // It hears no answer, or that the service ended.
        client = std::thread([&answers = connectionFor(message).answers, message] { (void)answers.to(message); });
    } else {
        host_->tell(message);
    }
    ::usleep(microseconds);
    host_->kill();
    if (client.joinable()) client.join();
    start();
}

}  // namespace tarnwell::mirror
