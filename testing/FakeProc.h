#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <string_view>

#include "platform/caller/Caller.h"
#include "testing/TemporaryDirectory.h"

namespace tarnwell::testing {

/// A made-up procfs with this process in it, a program of the host until a test says otherwise. Namespaces are files,
/// of which two with one content are one namespace.
class FakeProc {
public:
    FakeProc() {
        for (const char* folder : {"host", "sandbox", "namespaces", "proc/self/ns"}) {
            makeDirectories(directory_.path(folder));
        }
        makeDirectories(file("attr/apparmor"));
        makeDirectories(file("ns"));
        for (const char* name : {"ours", "other"}) writeFile(directory_.path("namespaces/") + name, "");
        for (const std::string& process : {directory_.path("proc/self"), file("")}) {
            link(process + "/root", directory_.path("host"));
            for (const char* kind : {"/ns/user", "/ns/mnt"}) link(process + kind, directory_.path("namespaces/ours"));
        }
        write("status", "Name:\tx\nUid:\t1000\t1000\t1000\t1000\nGid:\t0\t0\t0\t0\n");
        write("mountinfo", mountOf(host("")) + " 0 254:0 / / rw,relatime - ext4 /dev/x rw\n");
        write("cgroup", "0::/user.slice/user-1000.slice/user@1000.service/app.slice/app-gnome-notes-7.scope\n");
    }

    caller::Sources sources() const { return {.procFolder = directory_.path("proc"), .user = 1000}; }
    caller::Peer peer() const { return {.process = ::getpid(), .user = 1000, .securityLabel = {}}; }
    caller::Caller identify() const { return caller::identify(peer(), sources()); }

    /// A file of the process.
    std::string file(const std::string& name) const {
        return directory_.path("proc/" + std::to_string(::getpid()) + "/" + name);
    }
    void write(const std::string& name, std::string_view text) const { writeFile(file(name), text); }
    void remove(const std::string& name) const { std::filesystem::remove_all(file(name)); }

    void enterNamespace(const std::string& kind) const {
        link(file("ns/" + kind), directory_.path("namespaces/other"));
    }
    /// Gives it a root of its own, on a file system of that type.
    void enterRoot(const std::string& fileSystemType) const {
        link(file("root"), directory_.path("sandbox"));
        write("mountinfo", "1 0 0:1 / / rw - ext4 /dev/x rw\n" + mountOf(sandbox("")) +
                               " 1 0:39 /newroot / rw,nosuid,nodev,relatime master:3 - " + fileSystemType + " x rw\n");
    }
    /// Has the same root and namespaces as the process of another one.
    void shareSystemOf(const FakeProc& other) const {
        link(file("root"), other.host(""));
        for (const char* kind : {"ns/user", "ns/mnt"}) link(file(kind), other.path("namespaces/ours"));
    }
    std::string path(const std::string& name) const { return directory_.path(name); }
    std::string sandbox(const std::string& name) const { return directory_.path("sandbox/" + name); }
    std::string host(const std::string& name) const { return directory_.path("host/" + name); }

private:
    static void link(const std::string& path, const std::string& target) {
        std::filesystem::remove(path);
        std::filesystem::create_symlink(target, path);
    }
    static std::string mountOf(const std::string& path) {
        struct statx status{};
        ::statx(AT_FDCWD, path.c_str(), 0, STATX_MNT_ID, &status);
        return std::to_string(status.stx_mnt_id);
    }
    TemporaryDirectory directory_;
};

}  // namespace tarnwell::testing
