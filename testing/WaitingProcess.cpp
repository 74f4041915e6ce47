#include "testing/WaitingProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <cstdlib>
#include <utility>

namespace tarnwell::testing {
namespace {

constexpr int kInfo = 9;

const std::vector<std::string> kHostPrograms{"--ro-bind", "/usr",      "/usr",    "--symlink", "usr/bin",
                                             "/bin",      "--symlink", "usr/lib", "/lib",      "--symlink",
                                             "usr/lib64", "/lib64",    "--dev",   "/dev"};

bool send(int descriptor, const std::string& text) {
    return ::write(descriptor, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

/// Only what the next program is to have is left open in it.
bool passOn(int descriptor, int number) { return ::dup2(descriptor, number) == number; }

[[noreturn]] void becomeSandbox(const std::vector<std::string>& arguments, const std::string& command, int told,
                                int end, const std::string* flatpakInfo) {
    std::vector<std::string> words{"bwrap", "--die-with-parent"};
    words.insert(words.end(), arguments.begin(), arguments.end());
    if (flatpakInfo) {
        const int info = ::memfd_create("info", 0);
        if (!send(info, *flatpakInfo) || ::lseek(info, 0, SEEK_SET) != 0 || !passOn(info, kInfo)) ::_exit(1);
        words.insert(words.end(), {"--ro-bind-data", std::to_string(kInfo), "/.flatpak-info"});
    }
    // The shell itself waits, under the number that it tells: the namespace of numbers is the host's.
    words.insert(words.end(), {"/usr/bin/sh", "-c", command + " && echo $$ && read line"});
    std::vector<char*> pointers;
    for (std::string& word : words) pointers.push_back(word.data());
    pointers.push_back(nullptr);
    if (passOn(end, STDIN_FILENO) && passOn(told, STDOUT_FILENO)) ::execvp("bwrap", pointers.data());
    ::_exit(1);
}

}  // namespace

Descriptor descriptorOf(pid_t process) { return Descriptor(static_cast<int>(::syscall(SYS_pidfd_open, process, 0))); }

WaitingProcess WaitingProcess::started(const std::function<int(int told, int end)>& body) {
    WaitingProcess process;
    std::array<int, 2> told{}, end{};
    if (::pipe2(told.data(), O_CLOEXEC) != 0 || ::pipe2(end.data(), O_CLOEXEC) != 0) ::abort();
    const Descriptor toldReading(told[0]), endReading(end[0]);
    Descriptor toldWriting(told[1]);
    process.end_ = Descriptor(end[1]);
    process.child_ = ::fork();
    if (process.child_ == 0) {
        process.end_ = Descriptor();
        ::_exit(body(toldWriting.get(), endReading.get()));
    }
    toldWriting = Descriptor();
    const std::string line = process.readToLineEnd(toldReading.get());
    const auto parsed = std::from_chars(line.data(), line.data() + line.size(), process.waiting_);
    if (parsed.ec != std::errc() || process.waiting_ <= 0) process.trouble_ = "it does not wait: " + line;
    return process;
}

WaitingProcess WaitingProcess::forked(const std::function<std::string()>& prepare) {
    return started([&prepare](int told, int end) {
        const std::string trouble = prepare();
        if (!send(told, (trouble.empty() ? std::to_string(::getpid()) : trouble) + "\n")) return 1;
        char byte = 0;
        return ::read(end, &byte, 1) == 0 ? 0 : 1;
    });
}

WaitingProcess WaitingProcess::inSandbox(const std::vector<std::string>& arguments, const std::string& command,
                                         const std::string* flatpakInfo) {
    std::vector<std::string> words = kHostPrograms;
    words.insert(words.end(), arguments.begin(), arguments.end());
    return inBareSandbox(words, command, flatpakInfo);
}

WaitingProcess WaitingProcess::inBareSandbox(const std::vector<std::string>& arguments, const std::string& command,
                                             const std::string* flatpakInfo) {
    return started([&](int told, int end) -> int { becomeSandbox(arguments, command, told, end, flatpakInfo); });
}

WaitingProcess::WaitingProcess(WaitingProcess&& other) noexcept
    : child_(std::exchange(other.child_, -1)),
      waiting_(other.waiting_),
      end_(std::move(other.end_)),
      trouble_(std::move(other.trouble_)) {}

WaitingProcess::~WaitingProcess() {
    if (child_ < 0) return;
    end_ = Descriptor();
    ::waitpid(child_, nullptr, 0);
}

void WaitingProcess::end() {
    const Descriptor process = descriptorOf(child_);
    end_ = Descriptor();
    pollfd ended{process.get(), POLLIN, 0};
    ::poll(&ended, 1, -1);
}

std::string WaitingProcess::readToLineEnd(int told) const {
    std::string line;
    char byte = 0;
    while (::read(told, &byte, 1) == 1 && byte != '\n') line += byte;
    return line;
}

bool canMakeSandboxes(std::string& reason) {
    const WaitingProcess process = WaitingProcess::inSandbox({"--unshare-user"});
    reason = process.trouble().empty() ? "" : "bubblewrap makes no sandbox here";
    return reason.empty();
}

}  // namespace tarnwell::testing
