#include "tests/mirror/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace tarnwell::mirror {
namespace {

[[noreturn]] void stop(const char* call, int code) {
    std::fprintf(stderr, "%s: %s\n", call, std::strerror(code));
    std::abort();
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& arguments) {
    std::array<int, 2> in{}, out{};
    if (::pipe2(in.data(), O_CLOEXEC) != 0 || ::pipe2(out.data(), O_CLOEXEC) != 0) stop("pipe2", errno);
    Descriptor itsIn(in[0]), itsOut(out[1]);
    to_ = Descriptor(in[1]);
    from_ = Descriptor(out[0]);

    std::vector<std::string> all{"test_mirror"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& argument : all) argv.push_back(argument.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, itsIn.get(), 0);
    ::posix_spawn_file_actions_adddup2(&actions, itsOut.get(), 1);
    const int failed = ::posix_spawn(&process_, "/proc/self/exe", &actions, nullptr, argv.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    if (failed != 0) stop("posix_spawn", failed);
}

ChildProcess::~ChildProcess() {
    if (process_ >= 0) kill();
}

bool ChildProcess::hasAnswered() const {
    pollfd wanted{from_.get(), POLLIN, 0};
    return ::poll(&wanted, 1, 0) > 0;
}

int ChildProcess::end() {
    to_ = Descriptor();
    return wait();
}

void ChildProcess::kill() {
    ::kill(process_, SIGKILL);
    wait();
}

int ChildProcess::wait() {
    int status = 0;
    while (::waitpid(process_, &status, 0) < 0) {
        const int code = errno;
        if (code != EINTR) stop("waitpid", code);
    }
    process_ = -1;
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace tarnwell::mirror
