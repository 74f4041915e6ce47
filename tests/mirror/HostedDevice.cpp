#include "tests/mirror/HostedDevice.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "testing/RandomChanges.h"
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
    }
    std::abort();
}

void HostedDevice::start() {
    host_ = std::make_unique<ChildProcess>(std::vector<std::string>{kHostRole, home_, nameOf(finding_)});
}

Message HostedDevice::ask(const Message& message) {
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
    host_->tell(message);
    ::usleep(microseconds);
    host_->kill();
    start();
}

}  // namespace tarnwell::mirror
