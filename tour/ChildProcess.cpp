#include "tour/ChildProcess.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string_view>

#include "platform/base/Descriptor.h"

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

Result<Outcome> run(const std::vector<std::string>& command, const EnvironmentChanges& changes, Output output) {
    Descriptor readEnd, writeEnd;
    if (output == Output::captured) {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) return failure(posixError(errno));
        readEnd = Descriptor(ends[0]);
        writeEnd = Descriptor(ends[1]);
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (output == Output::captured) posix_spawn_file_actions_adddup2(&actions, writeEnd.get(), STDOUT_FILENO);
    if (output == Output::discarded) {
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

    Outcome outcome;
    writeEnd = Descriptor();
    if (readEnd.valid()) outcome.output = readAll(readEnd.get());
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) return failure(posixError(errno));
    }
    outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return outcome;
}

}  // namespace tarnwell::tour
