#include "tests/filesystem/Sandbox.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace tarnwell::filesystem {
namespace {

void require(bool done, const std::string& what) {
    if (done) return;
    std::perror(what.c_str());
    std::abort();
}

std::string baseFolder() {
    for (const char* name : {"TARNWELL_TEST_DIR", "TMPDIR"}) {
        const char* value = std::getenv(name);
        if (value != nullptr && *value != '\0') return value;
    }
    return "/tmp";
}

bool writeText(const char* path, const std::string& text) {
    const Descriptor file(::open(path, O_WRONLY | O_CLOEXEC));
    return file.valid() && ::write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

}  // namespace

Sandbox::Sandbox() {
    std::string name = baseFolder() + "/tarnwell-test-XXXXXX";
    require(::mkdtemp(name.data()) != nullptr, name);
    path_ = std::filesystem::canonical(name).string();
    require(::chmod(path_.c_str(), 0755) == 0, path_);
}

Sandbox::~Sandbox() {
    std::error_code error;
    std::filesystem::remove_all(path_, error);
    if (error) std::fprintf(stderr, "%s is left behind: %s\n", path_.c_str(), error.message().c_str());
}

std::string Sandbox::folder(const std::string& relative) const {
    std::filesystem::create_directories(path(relative));
    return path(relative);
}

std::string Sandbox::file(const std::string& relative, std::string_view content) const {
    std::filesystem::create_directories(std::filesystem::path(path(relative)).parent_path());
    std::ofstream stream(path(relative), std::ios::binary);
    stream << content;
    stream.close();
    require(!stream.fail(), path(relative));
    return path(relative);
}

std::string Sandbox::link(const std::string& relative, const std::string& target) const {
    require(::symlink(target.c_str(), path(relative).c_str()) == 0, path(relative));
    return path(relative);
}

std::string Sandbox::fifo(const std::string& relative) const {
    require(::mkfifo(path(relative).c_str(), 0644) == 0, path(relative));
    return path(relative);
}

Descriptor Sandbox::open(const std::string& relative) const {
    Descriptor folder(::open(path(relative).c_str(), O_PATH | O_CLOEXEC));
    require(folder.valid(), path(relative));
    return folder;
}

std::string contentOf(int descriptor) {
    std::string content;
    char buffer[4096];
    for (;;) {
        const ssize_t count = ::read(descriptor, buffer, sizeof buffer);
        require(count >= 0, "read");
        if (count == 0) return content;
        content.append(buffer, static_cast<std::size_t>(count));
    }
}

std::string inChild(const std::function<std::string()>& body) {
    int ends[2];
    require(::pipe2(ends, O_CLOEXEC) == 0, "pipe2");
    const pid_t child = ::fork();
    require(child >= 0, "fork");
    if (child == 0) {
        const std::string text = body();
        const bool told = ::write(ends[1], text.data(), text.size()) == static_cast<ssize_t>(text.size());
        ::_exit(told ? 0 : 1);
    }
    ::close(ends[1]);
    std::string text = contentOf(ends[0]);
    ::close(ends[0]);
    int status = 0;
    require(::waitpid(child, &status, 0) == child, "waitpid");
    if (status != 0) text += " (the child ended with status " + std::to_string(status) + ")";
    return text;
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

}  // namespace tarnwell::filesystem
