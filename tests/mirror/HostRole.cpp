#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "host/LocalSession.h"
#include "host/ProgramContext.h"
#include "service/Service.h"
#include "testing/CapturingLog.h"
#include "testing/InChild.h"
#include "tests/mirror/Answers.h"
#include "tests/mirror/Roles.h"

namespace tarnwell::mirror {
namespace {

/// Errors of the program: those of a file that went while it was looked at are no news, so that they are shown only
/// when asked for.
class ErrorLog : public log::Log {
public:
    ErrorLog() { setThreshold(std::getenv("TARNWELL_LOG") != nullptr ? log::Level::debug : log::Level::off); }

private:
    void emit(log::Level, std::string_view text) override {
        std::fprintf(stderr, "%.*s\n", static_cast<int>(text.size()), text.data());
    }
};

/// Leaves this process a few watches, of whichever kind; false where a machine does not let it.
bool limitWatches() {
    constexpr const char* kFew = "12";
    constexpr ssize_t kLength = 2;
    if (testing::becomeOwnerOfUserNamespace()) return false;
    for (const char* limit : {"/proc/sys/user/max_fanotify_marks", "/proc/sys/user/max_inotify_watches"}) {
        const Descriptor file(::open(limit, O_WRONLY | O_CLOEXEC));
        if (!file.valid() || ::write(file.get(), kFew, kLength) != kLength) return false;
    }
    return true;
}

}  // namespace

int hostProvider(const std::string& home, const std::string& finding) {
    const bool isLimited = finding == kLimited && limitWatches();
    // The types of this device, not of whoever runs the test.
    ::setenv("XDG_DATA_HOME", (home + "/.local/share").c_str(), 1);
    ErrorLog log;
    auto context = host::ProgramContext::create(settingsOf(home), log);
    if (!context) {
        std::fprintf(stderr, "%s\n", describe(context.error()).c_str());
        return 1;
    }
    (*context)->prepareForRequests();
    // Where the kernel offers nothing, comparing it is.
    if (finding != kComparing) (void)(*context)->watchForChanges();
    host::LocalSession session(**context);
    Answers answers(session);
    while (const auto message = receive(STDIN_FILENO)) {
        Message answer = answers.to(*message);
        if (isLimited && message->at(0) == "status") answer.back() = "limited";
        if (!send(STDOUT_FILENO, answer)) return 1;
    }
    return 0;
}

int serveProvider(const std::string& home, const std::string& busAddress) {
    ::setenv("XDG_DATA_HOME", (home + "/.local/share").c_str(), 1);
    ErrorLog log;
    const auto settings = settingsOf(home);
    auto service = service::Service::start({.settings = settings, .programVersion = "", .busAddress = busAddress}, log);
    // The bus may not have noticed yet that the one before was killed.
    for (int i = 0; i < 200 && !service && service.error().is(ErrorDomain::posix, EEXIST); ++i) {
        ::usleep(10'000);
        service = service::Service::start({.settings = settings, .programVersion = "", .busAddress = busAddress}, log);
    }
    if (!service) {
        std::fprintf(stderr, "%s\n", describe(service.error()).c_str());
        return 1;
    }
    if (!send(STDOUT_FILENO, {"ready"})) return 1;
    (void)receive(STDIN_FILENO);
    return 0;
}

}  // namespace tarnwell::mirror
