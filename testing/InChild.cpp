#include "testing/InChild.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "platform/base/Descriptor.h"

namespace tarnwell::testing {
namespace {

bool writeText(const char* path, std::string_view text) {
    const Descriptor file(::open(path, O_WRONLY | O_CLOEXEC));
    return file.valid() && ::write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

}  // namespace

std::string inChild(const std::function<std::string()>& body) {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) return "no pipe";
    const Descriptor reading(ends[0]);
    Descriptor writing(ends[1]);
    const pid_t child = ::fork();
    if (child < 0) return "no child";
    if (child == 0) {
        const std::string text = body();
        const bool told = ::write(writing.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
        ::_exit(told ? 0 : 1);
    }
    writing = Descriptor();
    std::string text;
    std::array<char, 4096> buffer;
    for (ssize_t length = 0; (length = ::read(reading.get(), buffer.data(), buffer.size())) > 0;) {
        text.append(buffer.data(), static_cast<std::size_t>(length));
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    if (status != 0) text += " (the child ended with status " + std::to_string(status) + ")";
    return text;
}

std::optional<std::string> becomeOwnerOfUserNamespace() {
    const std::string user = std::to_string(::geteuid()), group = std::to_string(::getegid());
    if (::unshare(CLONE_NEWUSER) != 0 || !writeText("/proc/self/setgroups", "deny") ||
        !writeText("/proc/self/uid_map", user + " " + user + " 1") ||
        !writeText("/proc/self/gid_map", group + " " + group + " 1")) {
        return "no user namespace of its own: " + std::string(std::strerror(errno));
    }
    return std::nullopt;
}

std::optional<std::string> becomeOwnerOfMounts() {
    const uid_t user = ::geteuid();
    const gid_t group = ::getegid();
    if (::unshare(user == 0 ? CLONE_NEWNS : CLONE_NEWNS | CLONE_NEWUSER) != 0) {
        return "no mounts of its own: " + std::string(std::strerror(errno));
    }
    if (user != 0 && (!writeText("/proc/self/setgroups", "deny") ||
                      !writeText("/proc/self/uid_map", "0 " + std::to_string(user) + " 1") ||
                      !writeText("/proc/self/gid_map", "0 " + std::to_string(group) + " 1"))) {
        return "no user namespace of its own: " + std::string(std::strerror(errno));
    }
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return "mounts cannot be made private: " + std::string(std::strerror(errno));
    }
    return std::nullopt;
}

}  // namespace tarnwell::testing
