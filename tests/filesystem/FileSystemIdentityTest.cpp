#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "platform/filesystem/Beneath.h"
#include "tests/filesystem/Sandbox.h"

namespace tarnwell::filesystem {
namespace {

/// Runs a program without output; true when it ended well.
bool run(const std::vector<std::string>& words) {
    const pid_t child = ::fork();
    if (child == 0) {
        const int null = ::open("/dev/null", O_RDWR);
        ::dup2(null, STDOUT_FILENO);
        ::dup2(null, STDERR_FILENO);
        std::vector<char*> arguments;
        for (const auto& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
        arguments.push_back(nullptr);
        ::execvp(arguments[0], arguments.data());
        ::_exit(127);
    }
    int status = 0;
    return child > 0 && ::waitpid(child, &status, 0) == child && status == 0;
}

/// A loop device over a file; taken apart when the last mount of it goes and it is closed.
Descriptor loopDevice(const std::string& image, std::string& path) {
    const Descriptor control(::open("/dev/loop-control", O_RDWR | O_CLOEXEC));
    const Descriptor file(::open(image.c_str(), O_RDWR | O_CLOEXEC));
    if (!control.valid() || !file.valid()) return {};
    for (int attempt = 0; attempt < 20; ++attempt) {
        const int number = ::ioctl(control.get(), LOOP_CTL_GET_FREE);
        if (number < 0) return {};
        path = "/dev/loop" + std::to_string(number);
        Descriptor device(::open(path.c_str(), O_RDWR | O_CLOEXEC));
        loop_config config{};
        config.fd = static_cast<std::uint32_t>(file.get());
        config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
        if (device.valid() && ::ioctl(device.get(), LOOP_CONFIGURE, &config) == 0) return device;
    }
    return {};
}

std::string identityText(const std::string& path) {
    const Descriptor place(::open(path.c_str(), O_PATH | O_CLOEXEC));
    const auto identity = fileSystemIdentityOf(place.get());
    if (!identity) return describe(identity.error());
    return identity->identity + (identity->keepsChangeTimes ? " keeps" : " does not keep");
}

TEST(FileSystemIdentity, IsOneForAllThatLiesOnAFileSystem) {
    const Sandbox sandbox;
    sandbox.file("folder/file");
    const std::string identity = identityText(sandbox.path());
    EXPECT_EQ(identityText(sandbox.path("folder")), identity);
    EXPECT_EQ(identityText(sandbox.path("folder/file")), identity);
    const Descriptor file(::open(sandbox.path("folder/file").c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(fileSystemIdentityOf(file.get())->identity, identity.substr(0, identity.find(' ')));
}

TEST(FileSystemIdentity, IsEmptyWhereNothingIsStored) { EXPECT_EQ(identityText("/proc"), " does not keep"); }

TEST(FileSystemIdentity, IsAskedOfFoldersAndFiles) {
    const Sandbox sandbox;
    sandbox.fifo("fifo");
    sandbox.link("link", "fifo");
    const Descriptor fifo = sandbox.open("fifo");
    EXPECT_EQ(fileSystemIdentityOf(fifo.get()).error(), posixError(EINVAL));
    const Descriptor link(::open(sandbox.path("link").c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    EXPECT_EQ(fileSystemIdentityOf(link.get()).error(), posixError(EINVAL));
    EXPECT_EQ(fileSystemIdentityOf(-1).error(), posixError(EBADF));
}

TEST(FileSystemIdentity, IsDeniedRatherThanAnotherOne) {
    const Sandbox sandbox;
    ASSERT_EQ(::chmod(sandbox.folder("closed").c_str(), 0111), 0);
    EXPECT_EQ(inChild([&]() -> std::string {
                  if (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0))
                      return "cannot drop privileges";
                  return identityText(sandbox.path("closed"));
              }),
              describe(posixError(EACCES)));
    ASSERT_EQ(::chmod(sandbox.path("closed").c_str(), 0755), 0);
}

TEST(FileSystemIdentity, TellsTemporaryFileSystemsApart) {
    const Sandbox sandbox;
    sandbox.folder("a");
    sandbox.folder("b");
    const std::string result = inChild([&]() -> std::string {
        if (const auto reason = becomeOwnerOfMounts()) return "skip: " + *reason;
        for (const char* name : {"a", "b"}) {
            if (::mount("tarnwell", sandbox.path(name).c_str(), "tmpfs", 0, nullptr) != 0) return "skip: no tmpfs";
        }
        const std::string a = identityText(sandbox.path("a")), b = identityText(sandbox.path("b"));
        if (a == " does not keep" || a == " keeps") return "skip: this kernel tells no UUID of a tmpfs";
        if (!a.ends_with(" keeps")) return a;
        return a == identityText(sandbox.path("a")) && a != b ? "" : a + " and " + b;
    });
    if (result.starts_with("skip: ")) GTEST_SKIP() << result;
    EXPECT_EQ(result, "");
}

TEST(FileSystemIdentity, IsTheSameAfterEveryMount) {
    int compared = 0;
    for (const std::vector<std::string>& maker :
         {std::vector<std::string>{"mkfs.ext4", "-q", "-F"}, {"mkfs.xfs", "-q", "-f"}, {"mkfs.btrfs", "-q", "-f"}}) {
        SCOPED_TRACE(maker.front());
        const std::string type = maker.front().substr(5);
        const Sandbox sandbox;
        const std::string image = sandbox.file("image");
        ASSERT_EQ(::truncate(image.c_str(), 400 << 20), 0);
        sandbox.folder("mount");
        const std::string result = inChild([&]() -> std::string {
            if (const auto reason = becomeOwnerOfMounts()) return "skip: " + *reason;
            auto words = maker;
            words.push_back(image);
            if (!run(words)) return "skip: " + maker.front() + " does not work here";
            std::string identities[2];
            for (auto& identity : identities) {
                std::string device;
                const Descriptor loop = loopDevice(image, device);
                if (!loop.valid()) return "skip: no loop device";
                if (::mount(device.c_str(), sandbox.path("mount").c_str(), type.c_str(), 0, nullptr) != 0) {
                    return "skip: " + type + " cannot be mounted: " + std::string(std::strerror(errno));
                }
                identity = identityText(sandbox.path("mount"));
                if (::umount(sandbox.path("mount").c_str()) != 0) return "cannot unmount";
            }
            if (identities[0] != identities[1]) return identities[0] + " and " + identities[1];
            return identities[0].starts_with(" ") || !identities[0].ends_with(" keeps") ? identities[0] : "";
        });
        if (result.starts_with("skip: ")) {
            std::printf("not compared: %s\n", result.c_str());
            continue;
        }
        EXPECT_EQ(result, "");
        ++compared;
    }
    if (compared == 0) GTEST_SKIP() << "no file system could be mounted";
}

TEST(FileSystemIdentity, TellsSubvolumesApart) {
    const Sandbox sandbox;
    const std::string image = sandbox.file("image");
    ASSERT_EQ(::truncate(image.c_str(), 400 << 20), 0);
    const std::string point = sandbox.folder("mount");
    const std::string result = inChild([&]() -> std::string {
        if (const auto reason = becomeOwnerOfMounts()) return "skip: " + *reason;
        if (!run({"mkfs.btrfs", "-q", "-f", image})) return "skip: mkfs.btrfs does not work here";
        std::string device;
        const Descriptor loop = loopDevice(image, device);
        if (!loop.valid()) return "skip: no loop device";
        if (::mount(device.c_str(), point.c_str(), "btrfs", 0, nullptr) != 0) return "skip: btrfs cannot be mounted";
        std::string found;
        if (!run({"btrfs", "subvolume", "create", point + "/sub"})) {
            found = "skip: no subvolume can be made";
        } else if (::mkdir((point + "/sub/folder").c_str(), 0755) != 0) {
            found = "no folder can be made";
        } else {
            const std::string top = identityText(point), sub = identityText(point + "/sub");
            if (top == sub || sub != identityText(point + "/sub/folder") ||
                top.find("/subvolume:5 ") == std::string::npos) {
                found = top + " and " + sub;
            }
        }
        if (::umount(point.c_str()) != 0) return "cannot unmount";
        return found;
    });
    if (result.starts_with("skip: ")) GTEST_SKIP() << result;
    EXPECT_EQ(result, "");
}

TEST(ChangedElsewhere, IsNoneOfThisKernelsOwn) {
    const Descriptor proc(::open("/proc", O_PATH | O_CLOEXEC));
    EXPECT_FALSE(isChangedElsewhere(proc.get()));
    EXPECT_FALSE(isChangedElsewhere(-1));
}

}  // namespace
}  // namespace tarnwell::filesystem
