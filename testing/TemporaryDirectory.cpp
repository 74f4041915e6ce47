#include "testing/TemporaryDirectory.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <string_view>
#include <system_error>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "platform/base/Descriptor.h"
#include "platform/base/Result.h"

namespace tarnwell::testing {
namespace {

[[noreturn]] void failed(std::string_view operation, const std::string& path, int code) {
    fatal("test: can't " + std::string(operation) + " " + path + ": " + describe(posixError(code)));
}

std::string baseDirectory() {
    for (const char* name : {"TARNWELL_TEST_DIR", "TMPDIR"})
        if (const char* value = std::getenv(name); value && *value) return value;
    return "/tmp";
}

Descriptor openFolder(int parent, const char* name, const std::string& path) {
    Descriptor folder(::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!folder.valid()) failed("open", path, errno);
    return folder;
}

/// Removes what is in the folder until a folder comes, whose name is returned; nothing when it is empty.
std::optional<std::string> removeFiles(int folder, const std::string& path) {
    std::unique_ptr<DIR, int (*)(DIR*)> directory(::fdopendir(openFolder(folder, ".", path).release()), ::closedir);
    if (!directory) failed("read", path, errno);
    while (dirent* entry = ::readdir(directory.get())) {
        std::string_view name = entry->d_name;
        if (name == "." || name == "..") continue;
        if (::unlinkat(folder, entry->d_name, 0) == 0 || errno == ENOENT) continue;
        if (errno != EISDIR) failed("remove", path + "/" + entry->d_name, errno);
        return std::string(name);
    }
    return std::nullopt;
}

/// Goes down and up in the tree with one descriptor, so that its depth does not matter. Folders are opened up first,
/// since a test may have taken their permissions away.
void removeTree(const std::string& path) {
    std::vector<std::string> names;
    const auto enter = [&](int parent, const std::string& name) {
        if (::fchmodat(parent, name.c_str(), S_IRWXU, 0) != 0) failed("open up", path + "/…/" + name, errno);
        return openFolder(parent, name.c_str(), path + "/…/" + name);
    };
    struct stat info{};
    if (::lstat(path.c_str(), &info) != 0 && errno == ENOENT) return;
    Descriptor here = enter(AT_FDCWD, path);
    while (true) {
        if (auto name = removeFiles(here.get(), path + "/…")) {
            here = enter(here.get(), *name);
            names.push_back(std::move(*name));
        } else if (!names.empty()) {
            here = openFolder(here.get(), "..", path + "/…/..");
            if (::unlinkat(here.get(), names.back().c_str(), AT_REMOVEDIR) != 0)
                failed("remove", path + "/…/" + names.back(), errno);
            names.pop_back();
        } else {
            break;
        }
    }
    if (::rmdir(path.c_str()) != 0) failed("remove", path, errno);
}

}  // namespace

TemporaryDirectory::TemporaryDirectory() {
    std::string pattern = baseDirectory() + "/tarnwell-test-XXXXXX";
    if (!::mkdtemp(pattern.data())) failed("make a folder", pattern, errno);
    std::unique_ptr<char, void (*)(void*)> real(::realpath(pattern.c_str(), nullptr), std::free);
    if (!real) failed("resolve", pattern, errno);
    path_ = real.get();
}

TemporaryDirectory::~TemporaryDirectory() {
    if (std::getenv("TARNWELL_TEST_KEEP") != nullptr) {
        std::fprintf(stderr, "kept %s\n", path_.c_str());
        return;
    }
    removeTree(path_);
}

void makeDirectories(const std::string& path) {
    std::error_code error;
    std::filesystem::create_directories(path, error);
    if (error) failed("make folders", path, error.value());
}

void writeFile(const std::string& path, std::string_view content) {
    Descriptor fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!fd.valid()) failed("create", path, errno);
    while (!content.empty()) {
        ssize_t written = ::write(fd.get(), content.data(), content.size());
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) failed("write", path, errno);
        content.remove_prefix(static_cast<std::size_t>(written));
    }
}

std::string readFile(const std::string& path) {
    Descriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) failed("open", path, errno);
    std::string content;
    char buffer[65536];
    while (true) {
        ssize_t got = ::read(fd.get(), buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) failed("read", path, errno);
        if (got == 0) return content;
        content.append(buffer, static_cast<std::size_t>(got));
    }
}

void setUserAttribute(const std::string& path, const std::string& name, std::string_view value) {
    if (::lsetxattr(path.c_str(), ("user." + name).c_str(), value.data(), value.size(), 0) != 0)
        failed("set attribute user." + name + " on", path, errno);
}

}  // namespace tarnwell::testing
