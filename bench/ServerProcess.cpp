#include "bench/ServerProcess.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <fstream>

#include "platform/base/SystemCall.h"

namespace tarnwell::bench {

Outcome<std::unique_ptr<ServerProcess>> ServerProcess::start(std::vector<std::string> arguments,
                                                             const std::string& home, const std::string& log) {
    std::array<int, 2> in{}, out{};
    if (::pipe2(in.data(), O_CLOEXEC) != 0) return std::unexpected("no pipe");
    Descriptor itsInput(in[0]), input(in[1]);
    if (::pipe2(out.data(), O_CLOEXEC) != 0) return std::unexpected("no pipe");
    Descriptor output(out[0]), itsOutput(out[1]);
    std::string homeVariable = "HOME=" + home, path = "PATH=/usr/bin:/bin";
    std::array<char*, 3> environment{homeVariable.data(), path.data(), nullptr};
    std::vector<char*> pointers;
    for (std::string& argument : arguments) pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, itsInput.get(), STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, itsOutput.get(), STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    pid_t process = -1;
    const int code = ::posix_spawnp(&process, pointers.front(), &actions, nullptr, pointers.data(), environment.data());
    posix_spawn_file_actions_destroy(&actions);
    if (code != 0) return std::unexpected(arguments.front() + ": " + tarnwell::describe(posixError(code)));
    return std::unique_ptr<ServerProcess>(new ServerProcess(process, std::move(input), std::move(output)));
}

ServerProcess::~ServerProcess() {
    if (process_ < 0) return;
    ::kill(process_, SIGKILL);
    ::waitpid(process_, nullptr, 0);
}

std::uint64_t ServerProcess::residentKilobytes() const {
    std::ifstream file("/proc/" + std::to_string(process_) + "/statm");
    std::uint64_t size = 0, resident = 0;
    file >> size >> resident;
    return resident * static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE)) / 1024;
}

bool ServerProcess::waitForEnd() {
    input_ = Descriptor();
    constexpr int kMilliseconds = 10'000;
    for (int i = 0; i < kMilliseconds; ++i) {
        if (::waitpid(process_, nullptr, WNOHANG) == process_) {
            process_ = -1;
            return true;
        }
        ::usleep(1000);
    }
    return false;
}

bool sendAll(int descriptor, const std::string& text) {
    std::size_t sent = 0;
    while (sent < text.size()) {
        const ssize_t part = ::write(descriptor, text.data() + sent, text.size() - sent);
        if (part < 0 && errno != EINTR) return false;
        sent += static_cast<std::size_t>(std::max<ssize_t>(part, 0));
    }
    return true;
}

Outcome<std::string> readThrough(int descriptor, const std::string& prefix) {
    std::string text;
    std::size_t lineBegin = 0;
    std::array<char, 65536> buffer;
    while (true) {
        for (std::size_t end = 0; (end = text.find('\n', lineBegin)) != std::string::npos; lineBegin = end + 1) {
            if (text.compare(lineBegin, prefix.size(), prefix) == 0) return text;
        }
        const ssize_t got = ::read(descriptor, buffer.data(), buffer.size());
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return std::unexpected("the other program ended");
        text.append(buffer.data(), static_cast<std::size_t>(got));
    }
}

}  // namespace tarnwell::bench
