#include "tests/cli/Program.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <utility>

#include "bus/client/BusSession.h"
#include "testing/PrivateBus.h"

namespace tarnwell::testing {
namespace {

constexpr uid_t kNobody = 65534;

[[noreturn]] void stop(const char* what) {
    std::perror(what);
    std::abort();
}

}  // namespace

std::vector<std::string> Finished::lines() const {
    std::vector<std::string> result;
    for (std::size_t begin = 0; begin < output.size();) {
        const std::size_t end = std::min(output.find('\n', begin), output.size());
        result.push_back(output.substr(begin, end - begin));
        begin = end + 1;
    }
    return result;
}

std::vector<nlohmann::json> Finished::json() const {
    std::vector<nlohmann::json> result;
    for (const auto& line : lines()) {
        result.push_back(nlohmann::json::parse(line, nullptr, false));
        EXPECT_FALSE(result.back().is_discarded()) << line;
    }
    return result;
}

ChildProgram::ChildProgram(const std::vector<std::string>& arguments, const tour::EnvironmentChanges& environment,
                           Person person, Output output) {
    int out[2], err[2];
    if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) stop("pipe");
    std::vector<std::string> words{TARNWELL_PROGRAM};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);

    process_ = ::fork();
    if (process_ < 0) stop("fork");
    if (process_ == 0) {
        // A test that crashes leaves nothing running.
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        for (const auto& [name, value] : environment) {
            if (value) {
                ::setenv(name.c_str(), value->c_str(), 1);
            } else {
                ::unsetenv(name.c_str());
            }
        }
        const int in = ::open("/dev/null", O_RDONLY);
        ::dup2(in, STDIN_FILENO);
        if (output == Output::noReader) {
            int unread[2];
            if (::pipe(unread) != 0) ::_exit(126);
            ::close(unread[0]);
            ::dup2(unread[1], STDOUT_FILENO);
        } else {
            ::dup2(output == Output::fullDisk ? ::open("/dev/full", O_WRONLY) : out[1], STDOUT_FILENO);
        }
        ::dup2(err[1], STDERR_FILENO);
        if (person == Person::nobody && (::setgid(kNobody) != 0 || ::setuid(kNobody) != 0)) ::_exit(126);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    ::close(out[1]);
    ::close(err[1]);
    output_ = out[0];
    error_ = err[0];
}

std::optional<std::string> ChildProgram::readLine() {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    for (;;) {
        if (const auto end = read_.find('\n', lineBegin_); end != std::string::npos) {
            const std::size_t begin = std::exchange(lineBegin_, end + 1);
            return read_.substr(begin, end - begin);
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd stream{output_, POLLIN, 0};
        const int ready = ::poll(&stream, 1, static_cast<int>(std::max<std::int64_t>(left.count(), 0)));
        if (ready < 0 && errno == EINTR) continue;
        if (ready < 0) stop("poll");
        if (ready == 0) return std::nullopt;
        char buffer[16384];
        const ssize_t got = ::read(output_, buffer, sizeof buffer);
        if (got <= 0) return std::nullopt;
        read_.append(buffer, static_cast<std::size_t>(got));
    }
}

void ChildProgram::sendSignal(int signal) const {
    if (::kill(process_, signal) != 0) stop("kill");
}

Finished ChildProgram::finish() {
    Finished finished;
    finished.output = read_;
    pollfd streams[] = {{output_, POLLIN, 0}, {error_, POLLIN, 0}};
    std::string* texts[] = {&finished.output, &finished.error};
    for (int open = 2; open > 0;) {
        if (::poll(streams, 2, -1) < 0) {
            if (errno == EINTR) continue;
            stop("poll");
        }
        for (int i = 0; i < 2; ++i) {
            if (streams[i].fd < 0 || streams[i].revents == 0) continue;
            char buffer[16384];
            const ssize_t got = ::read(streams[i].fd, buffer, sizeof buffer);
            if (got > 0) {
                texts[i]->append(buffer, static_cast<std::size_t>(got));
            } else {
                ::close(streams[i].fd);
                streams[i].fd = -1;
                --open;
            }
        }
    }
    int status = 0;
    while (::waitpid(process_, &status, 0) < 0) {
        if (errno != EINTR) stop("waitpid");
    }
    finished.status = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    return finished;
}

struct Device::RunningService {
    PrivateBus bus;
    std::optional<ChildProgram> program;
};

Device::Device() {
    auto made = tour::makeSampleDevice(directory_.path("device"));
    if (!made) {
        std::fprintf(stderr, "no sample device: %s\n", describe(made.error()).c_str());
        std::abort();
    }
    sample_ = std::move(*made);
}

bool throughService() { return std::getenv("TARNWELL_TEST_THROUGH_SERVICE") != nullptr; }

Device::~Device() { stopService(); }

void Device::stopService() const {
    if (!service_) return;
    service_->program->sendSignal(SIGTERM);
    const auto finished = service_->program->finish();
    EXPECT_EQ(finished.status, 0) << finished.error;
    service_.reset();
}

void Device::startService(tour::EnvironmentChanges& environment) const {
    if (!service_) {
        service_ = std::make_unique<RunningService>();
        auto ofService = environment;
        ofService["DBUS_SESSION_BUS_ADDRESS"] = service_->bus.address();
        service_->program.emplace(std::vector<std::string>{"serve"}, ofService, ChildProgram::Person::same);
        for (int i = 0;; ++i) {
            if (bus::BusSession::connect(bus::BusSession::Start::never, service_->bus.address())) break;
            if (i == 1000) stop("the service does not come");
            ::usleep(10'000);
        }
    }
    environment["DBUS_SESSION_BUS_ADDRESS"] = service_->bus.address();
}

tour::EnvironmentChanges Device::environment() const {
    auto changes = sample_.environment();
    changes["TARNWELL_LOG"] = std::nullopt;
    changes["LANGUAGE"] = std::nullopt;
    changes["LC_ALL"] = "C.UTF-8";
    changes["TZ"] = "UTC";
    return changes;
}

tour::EnvironmentChanges Device::environmentWith(const tour::EnvironmentChanges& further) const {
    auto changes = environment();
    if (throughService()) startService(changes);
    for (const auto& [name, value] : further) changes[name] = value;
    return changes;
}

Finished Device::run(const std::vector<std::string>& arguments, const tour::EnvironmentChanges& further) const {
    return start(arguments, further).finish();
}

Finished Device::runInto(ChildProgram::Output output, const std::vector<std::string>& arguments) const {
    return ChildProgram(arguments, environmentWith({}), ChildProgram::Person::same, output).finish();
}

ChildProgram Device::start(const std::vector<std::string>& arguments, const tour::EnvironmentChanges& further) const {
    return ChildProgram(arguments, environmentWith(further), ChildProgram::Person::same);
}

std::optional<std::string> Device::giveToNobody() const {
    if (::geteuid() != 0) return "only root can run the program as somebody else";
    for (const auto& folder : {directory_.path(), sample_.root}) {
        if (::lchown(folder.c_str(), kNobody, kNobody) != 0) return "the device cannot be given away";
    }
    for (const auto& entry : std::filesystem::recursive_directory_iterator(sample_.root)) {
        if (::lchown(entry.path().c_str(), kNobody, kNobody) != 0) return "the device cannot be given away";
    }
    const auto shown = ChildProgram({"--version"}, environment(), ChildProgram::Person::nobody).finish();
    if (shown.status != 0) return "the program cannot be run as nobody from where it is built";
    return std::nullopt;
}

Finished Device::runAsNobody(const std::vector<std::string>& arguments) const {
    // The bus lets only its own user in.
    stopService();
    return ChildProgram(arguments, environment(), ChildProgram::Person::nobody).finish();
}

nlohmann::json Device::info(const std::string& item) const {
    const auto finished = run({"--json", "info", item});
    EXPECT_EQ(finished.status, 0) << finished.error;
    const auto json = finished.json();
    return json.size() == 1 ? json.front() : nlohmann::json::object();
}

std::string Device::idOf(const std::string& path) const {
    const auto finished = run({"id", path});
    EXPECT_EQ(finished.status, 0) << finished.error;
    const auto lines = finished.lines();
    return lines.size() == 1 ? lines.front() : std::string();
}

}  // namespace tarnwell::testing
