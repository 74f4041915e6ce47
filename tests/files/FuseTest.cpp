#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>

#include "platform/base/Descriptor.h"
#include "platform/filesystem/Beneath.h"
#include "testing/InChild.h"
#include "testing/TemporaryDirectory.h"
#include "testing/TestDevice.h"

namespace tarnwell::files {
namespace {

/// A folder as a FUSE file system shows it, which keeps no birth times; what it shows lies in a folder beside. The
/// process that serves it ends with the mount.
class FuseMount {
public:
    explicit FuseMount(const std::string& base) : behind_(base + "/behind"), shown_(base + "/shown") {
        for (const std::string& folder : {behind_, shown_}) testing::makeDirectories(folder);
        // Nothing is answered from what the kernel remembers.
        std::string program = "bindfs", option = "-o", times = "attr_timeout=0,entry_timeout=0,negative_timeout=0";
        std::string behind = behind_, shown = shown_;
        char* arguments[] = {program.data(), option.data(), times.data(), behind.data(), shown.data(), nullptr};
        pid_t process = -1;
        if (::posix_spawnp(&process, "bindfs", nullptr, nullptr, arguments, environ) != 0) return;
        int status = -1;
        isMounted_ = ::waitpid(process, &status, 0) == process && status == 0;
    }
    FuseMount(const FuseMount&) = delete;
    FuseMount& operator=(const FuseMount&) = delete;
    ~FuseMount() {
        if (isMounted_) ::umount2(shown_.c_str(), MNT_DETACH);
    }
    bool isMounted() const { return isMounted_; }
    const std::string& shown() const { return shown_; }
    /// Where a place of the mount lies in the folder that it shows.
    std::string behind(const std::string& path) const { return behind_ + path.substr(shown_.size()); }

private:
    const std::string behind_, shown_;
    bool isMounted_ = false;
};

/// What `body` finds wrong on a device that lies on such a file system; "" for nothing.
std::string onFuse(const std::function<std::string(testing::TestDevice&, const FuseMount&)>& body) {
    const testing::TemporaryDirectory directory;
    return testing::inChild([&]() -> std::string {
        if (const auto reason = testing::becomeOwnerOfMounts()) return "skip: " + *reason;
        const FuseMount mount(directory.path());
        if (!mount.isMounted()) return "skip: bindfs is not installed, or may not mount here";
        ::setenv("TARNWELL_TEST_DIR", mount.shown().c_str(), 1);
        testing::TestDevice device;
        return body(device, mount);
    });
}

std::optional<filesystem::Status> statusOf(const std::string& path) {
    const Descriptor open(::open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    auto status = filesystem::statusOf(open.get());
    return status ? std::optional(*status) : std::nullopt;
}

std::string whatIsLeftOfAFolder(testing::TestDevice& device, const FuseMount&) {
    testing::makeDirectories(device.path("folder"));
    testing::writeFile(device.path("folder/inside"), "x");
    device.settle();
    const auto status = statusOf(device.path("folder"));
    const auto inside = device.files().stat(device.url("folder/inside"));
    const auto folder = device.files().stat(device.url("folder"));
    if (!status || !inside || !folder) return "no status";
    if (filesystem::isBirthTime(status->birth)) return "skip: this FUSE file system keeps birth times";

    if (::unlink(device.path("folder/inside").c_str()) != 0 || ::rmdir(device.path("folder").c_str()) != 0) {
        return "the folder cannot be removed";
    }
    std::string taker;
    for (int i = 0; i < 200 && taker.empty(); ++i) {
        const std::string name = "file" + std::to_string(i);
        testing::writeFile(device.path(name), "x");
        const auto made = statusOf(device.path(name));
        if (made && made->inode == status->inode) taker = name;
    }
    if (taker.empty()) return "skip: no file gets the folder's inode number here";
    device.settle();

    std::string wrong;
    store::Session session(device.store());
    const auto row = session.index().byFileID(inside->fileID);
    // Another file may have got its number, and is taken for it then.
    const bool isInside = row && row->parent == raw(folder->fileID);
    if (isInside && row->state != store::ObjectState::gone) wrong += "what lay in the folder is still there; ";
    const auto former = session.index().byFileID(folder->fileID);
    if (former && former->state != store::ObjectState::gone) wrong += "the file is taken for the folder";
    return wrong;
}

TEST(Fuse, AFileThatGotARemovedFoldersInodeNumberIsNotThatFolder) {
    const std::string found = onFuse(whatIsLeftOfAFolder);
    if (found.starts_with("skip: ")) GTEST_SKIP() << found.substr(6);
    EXPECT_EQ(found, "");
}

std::string whatComesFromBehind(testing::TestDevice& device, const FuseMount& mount) {
    testing::makeDirectories(device.path("folder"));
    testing::writeFile(device.path("folder/file"), "x");
    device.settle();
    device.watch();
    const auto live = device.liveStatus();
    if (!live || live->polledFolders < 2) return "the folders are not polled";
    const auto file = device.files().stat(device.url("folder/file"));
    if (!file) return "no status";
    const EventID before = device.settle();

    // No program of this machine does this by the mount.
    const std::string behind = mount.behind(device.path("folder/file"));
    if (::rename(behind.c_str(), (behind + " renamed").c_str()) != 0) return "no rename";
    const EventID after = device.settle();
    std::string wrong;
    if (after == before) wrong += "nothing was told; ";
    store::Session session(device.store());
    const auto row = session.index().byFileID(file->fileID);
    if (!row || row->name != "file renamed") wrong += "the file has the name " + (row ? row->name : "none");
    return wrong;
}

TEST(Fuse, WhatChangesBehindTheMountIsFoundWhileTheKernelTellsOfChanges) {
    const std::string found = onFuse(whatComesFromBehind);
    if (found.starts_with("skip: ")) GTEST_SKIP() << found.substr(6);
    EXPECT_EQ(found, "");
}

}  // namespace
}  // namespace tarnwell::files
