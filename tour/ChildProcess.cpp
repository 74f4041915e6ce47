#include "tour/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string_view>
#include <tuple>
#include <utility>

namespace tarnwell::tour {
namespace {

std::vector<std::string> changedEnvironment(const EnvironmentChanges& changes) {
    std::vector<std::string> variables;
    for (char** variable = environ; *variable; ++variable) {
        const std::string_view text(*variable);
        if (!changes.contains(std::string(text.substr(0, text.find('='))))) variables.emplace_back(text);
    }
    for (const auto& [name, value] : changes) {
        if (value) variables.push_back(name + "=" + *value);
    }
    return variables;
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> result;
    for (std::string& text : texts) result.push_back(text.data());
    result.push_back(nullptr);
    return result;
}

std::string readAll(int descriptor) {
    std::string text;
    std::array<char, 64 * 1024> buffer;
    for (;;) {
        const ssize_t count = read(descriptor, buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return text;
        text.append(buffer.data(), static_cast<std::size_t>(count));
    }
}

}  // namespace

namespace {

/// Starts the command with its standard output on `writeEnd`, if that is open.
Result<pid_t> spawn(const std::vector<std::string>& command, const EnvironmentChanges& changes,
                    const Descriptor& writeEnd, bool discards) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (writeEnd.valid()) posix_spawn_file_actions_adddup2(&actions, writeEnd.get(), STDOUT_FILENO);
    if (discards) {
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    }
    std::vector<std::string> arguments = command;
    std::vector<std::string> variables = changedEnvironment(changes);
    pid_t child = 0;
    const int failed = posix_spawnp(&child, command.front().c_str(), &actions, nullptr, pointers(arguments).data(),
                                    pointers(variables).data());
    posix_spawn_file_actions_destroy(&actions);
    if (failed != 0) return failure(posixError(failed, "can't run " + command.front()));
    return child;
}

Result<int> statusOf(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) return failure(posixError(errno));
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

Result<std::pair<Descriptor, Descriptor>> makePipe() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return failure(posixError(errno));
    return std::pair(Descriptor(ends[0]), Descriptor(ends[1]));
}

}  // namespace

Result<Outcome> run(const std::vector<std::string>& command, const EnvironmentChanges& changes, Output output) {
    Descriptor readEnd, writeEnd;
    if (output == Output::captured) {
        auto ends = makePipe();
        if (!ends) return failure(ends.error());
        std::tie(readEnd, writeEnd) = std::move(*ends);
    }
    const auto child = spawn(command, changes, writeEnd, output == Output::discarded);
    if (!child) return failure(child.error());
    Outcome outcome;
    writeEnd = Descriptor();
    if (readEnd.valid()) outcome.output = readAll(readEnd.get());
    const auto status = statusOf(*child);
    if (!status) return failure(status.error());
    outcome.status = *status;
    return outcome;
}

Result<FollowedProgram> FollowedProgram::start(const std::vector<std::string>& command,
                                               const EnvironmentChanges& changes) {
    auto ends = makePipe();
    if (!ends) return failure(ends.error());
    const auto child = spawn(command, changes, ends->second, false);
    if (!child) return failure(child.error());
    return FollowedProgram(*child, std::move(ends->first));
}

FollowedProgram::~FollowedProgram() { end(); }

std::optional<std::string> FollowedProgram::line(std::chrono::milliseconds patience) {
    for (;;) {
        if (const auto end = read_.find('\n'); end != std::string::npos) {
            std::string line = read_.substr(0, end);
            read_.erase(0, end + 1);
            return line;
        }
        pollfd waited{output_.get(), POLLIN, 0};
        if (poll(&waited, 1, static_cast<int>(patience.count())) <= 0) return std::nullopt;
        std::array<char, 4096> buffer;
        const ssize_t count = read(output_.get(), buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return std::nullopt;
        read_.append(buffer.data(), static_cast<std::size_t>(count));
    }
}

int FollowedProgram::end() {
    const auto process = std::exchange(process_, std::nullopt);
    if (!process) return -1;
    kill(*process, SIGTERM);
    return statusOf(*process).value_or(-1);
}

}  // namespace tarnwell::tour
