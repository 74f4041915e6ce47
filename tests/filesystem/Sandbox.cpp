#include "tests/filesystem/Sandbox.h"

#include <fcntl.h>
#include <sys/stat.h>
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

}  // namespace tarnwell::filesystem
