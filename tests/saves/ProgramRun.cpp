#include "tests/saves/ProgramRun.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

namespace tarnwell::saves {

namespace {

[[noreturn]] void stop(const char* call, int code) {
    std::fprintf(stderr, "%s: %s\n", call, std::strerror(code));
    std::abort();
}

/// A file without a name that holds the text, to be read from its beginning.
int fileHolding(const std::string& text) {
    std::FILE* made = std::tmpfile();
    if (made == nullptr) stop("tmpfile", errno);
    std::fwrite(text.data(), 1, text.size(), made);
    std::rewind(made);
    const int descriptor = ::fcntl(::fileno(made), F_DUPFD_CLOEXEC, 0);
    if (descriptor < 0) stop("fcntl", errno);
    std::fclose(made);
    ::lseek(descriptor, 0, SEEK_SET);
    return descriptor;
}

std::string contentOf(int descriptor) {
    std::string text;
    char buffer[4096];
    ::lseek(descriptor, 0, SEEK_SET);
    while (true) {
        const ssize_t got = ::read(descriptor, buffer, sizeof buffer);
        if (got <= 0) return text;
        text.append(buffer, static_cast<std::size_t>(got));
    }
}

}  // namespace

std::optional<std::string> findProgram(const std::string& name) {
    const char* path = std::getenv("PATH");
    std::istringstream folders(path != nullptr ? path : "/usr/bin:/bin");
    for (std::string folder; std::getline(folders, folder, ':');) {
        const std::string file = folder + "/" + name;
        if (::access(file.c_str(), X_OK) == 0) return file;
    }
    return std::nullopt;
}

ProgramEnd runProgram(const std::vector<std::string>& arguments, const std::string& folder, const std::string& home,
                      const std::string& input, const std::map<std::string, std::string>& variables) {
    std::map<std::string, std::string> all = variables;
    all.emplace("HOME", home);
    all.emplace("LC_ALL", "C.UTF-8");
    if (const char* path = std::getenv("PATH")) all.emplace("PATH", path);
    std::vector<std::string> environment;
    for (const auto& [name, value] : all) environment.push_back(name + "=" + value);
    std::vector<char*> argv, envp;
    for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    for (const std::string& variable : environment) envp.push_back(const_cast<char*>(variable.c_str()));
    argv.push_back(nullptr);
    envp.push_back(nullptr);

    const int in = fileHolding(input), out = fileHolding("");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in, 0);
    posix_spawn_file_actions_adddup2(&actions, out, 1);
    posix_spawn_file_actions_adddup2(&actions, out, 2);
    posix_spawn_file_actions_addchdir_np(&actions, folder.c_str());
    pid_t process = -1;
    const int code = ::posix_spawnp(&process, argv[0], &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    ProgramEnd end;
    if (code != 0) {
        end.status = 127;
        end.output = std::strerror(code);
    } else {
        int status = 0;
        while (::waitpid(process, &status, 0) < 0) {
            if (errno != EINTR) stop("waitpid", errno);
        }
        end.status = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
        end.output = contentOf(out);
    }
    ::close(in);
    ::close(out);
    return end;
}

}  // namespace tarnwell::saves
