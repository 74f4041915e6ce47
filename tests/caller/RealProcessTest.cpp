#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/statfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <linux/magic.h>

#include "platform/base/Result.h"
#include "platform/caller/Caller.h"
#include "testing/InChild.h"
#include "testing/TemporaryDirectory.h"
#include "testing/WaitingProcess.h"

namespace tarnwell::caller {
namespace {

using testing::WaitingProcess;

constexpr uid_t kNobody = 65534;

/// What Flatpak writes, with the groups that matter to others left in.
constexpr const char* kInfo =
    "[Application]\n"
    "name=org.example.Notes\n"
    "runtime=runtime/org.example.Platform/x86_64/23.08\n"
    "\n"
    "[Instance]\n"
    "instance-id=2387440914\n"
    "branch=stable\n"
    "arch=x86_64\n"
    "flatpak-version=1.14.10\n"
    "session-bus-proxy=true\n"
    "\n"
    "[Context]\n"
    "shared=network;ipc;\n"
    "persistent=Documents;\n"
    "\n"
    "[Session Bus Policy]\n"
    "org.freedesktop.Notifications=talk\n";

std::string identified(pid_t process, uid_t user = ::getuid()) {
    Sources sources;
    sources.user = user;
    return describe(identify({.process = process, .user = user, .securityLabel = {}}, sources));
}

TEST(RealProcessTest, AnOrdinaryProcessIsOfTheHost) {
    EXPECT_EQ(identified(::getpid()), "host");
    const WaitingProcess process = WaitingProcess::forked();
    ASSERT_EQ(process.trouble(), "");
    EXPECT_EQ(identified(process.number()), "host");
}

TEST(RealProcessTest, AProcessThatEndedIsUnknown) {
    WaitingProcess process = WaitingProcess::forked();
    ASSERT_EQ(process.trouble(), "");
    process.end();
    EXPECT_EQ(identified(process.number()), "unknown (the process ended)") << "while nobody took note of its end";
    const pid_t number = process.number();
    {
        const WaitingProcess gone = std::move(process);
    }
    EXPECT_EQ(identified(number), "unknown (the process cannot be found: " + describe(posixError(ESRCH)) + ")");
}

TEST(RealProcessTest, AProcessOfAnotherUserIsUnknown) {
    if (::getuid() != 0) GTEST_SKIP() << "only root can become somebody else";
    const auto becoming = [](uid_t real, uid_t effective, uid_t saved) {
        return [=] { return std::string(::setresuid(real, effective, saved) == 0 ? "" : "it stays who it was"); };
    };
    for (const auto& become :
         {becoming(kNobody, kNobody, kNobody), becoming(0, kNobody, 0), becoming(kNobody, 0, kNobody)}) {
        const WaitingProcess process = WaitingProcess::forked(become);
        ASSERT_EQ(process.trouble(), "");
        EXPECT_EQ(identified(process.number()), "unknown (the process is of another user)");
    }
}

TEST(RealProcessTest, AProcessThatLetsNobodyLookAtItIsUnknown) {
    // Root looks at everything, so that both are somebody else.
    const uid_t user = ::getuid() == 0 ? kNobody : ::getuid();
    const auto become = [user](int dumpable) {
        return [user, dumpable] {
            if (::setresuid(user, user, user) != 0) return std::string("it stays who it was");
            return std::string(::prctl(PR_SET_DUMPABLE, dumpable) == 0 ? "" : "it cannot be hidden");
        };
    };
    const auto identifiedAsThatUser = [user](pid_t process) {
        return testing::inChild([&] {
            return ::setresuid(user, user, user) == 0 ? identified(process, user) : std::string("it stays who it was");
        });
    };
    const WaitingProcess open = WaitingProcess::forked(become(1));
    ASSERT_EQ(open.trouble(), "");
    EXPECT_EQ(identifiedAsThatUser(open.number()), "host");
    const WaitingProcess hidden = WaitingProcess::forked(become(0));
    ASSERT_EQ(hidden.trouble(), "");
    EXPECT_EQ(identifiedAsThatUser(hidden.number()),
              "unknown (the process cannot be looked at: " + describe(posixError(EACCES)) + ")");
}

TEST(RealProcessTest, AProcessInAUserNamespaceOfItsOwnIsUnknown) {
    const WaitingProcess process =
        WaitingProcess::forked([] { return testing::becomeOwnerOfUserNamespace().value_or(""); });
    if (!process.trouble().empty()) GTEST_SKIP() << process.trouble();
    EXPECT_EQ(identified(process.number()), "unknown (the process is in a user namespace that is not ours)");
}

TEST(RealProcessTest, WhoIsInASandboxHimselfTellsNobodyApart) {
    const pid_t host = ::getpid();
    const std::string seen = testing::inChild([host] {
        const uid_t user = ::getuid();
        const auto trouble = testing::becomeOwnerOfUserNamespace();
        return trouble ? *trouble : identified(::getpid(), user) + ", " + identified(host, user);
    });
    if (seen.starts_with("no user namespace")) GTEST_SKIP() << seen;
    EXPECT_TRUE(seen.starts_with("host, unknown (")) << seen;
}

TEST(RealProcessTest, AProcessWithMountsOfItsOwnIsUnknown) {
    if (::getuid() != 0) GTEST_SKIP() << "only root can have mounts of its own and nothing else";
    const WaitingProcess process = WaitingProcess::forked([] { return testing::becomeOwnerOfMounts().value_or(""); });
    ASSERT_EQ(process.trouble(), "");
    EXPECT_EQ(identified(process.number()), "unknown (the process has mounts that are not ours)");
}

TEST(RealProcessTest, AProcessWithAnotherRootIsUnknown) {
    if (::getuid() != 0) GTEST_SKIP() << "only root can have another root and nothing else";
    const WaitingProcess process =
        WaitingProcess::forked([] { return std::string(::chroot("/usr") == 0 ? "" : "it stays where it was"); });
    ASSERT_EQ(process.trouble(), "");
    EXPECT_EQ(identified(process.number()), "unknown (the process has a root folder that is not ours)");
}

/// With sandboxes as Flatpak has them made, and others.
class RealSandboxTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string reason;
        if (!testing::canMakeSandboxes(reason)) GTEST_SKIP() << reason;
    }
    /// What is behind a process that did the command in a sandbox without a Flatpak's file.
    static std::string identifiedAfter(const std::string& command) {
        const WaitingProcess process = WaitingProcess::inSandbox({"--unshare-user"}, command);
        return process.trouble().empty() ? identified(process.number()) : process.trouble();
    }
};

TEST_F(RealSandboxTest, AFlatpakIsKnownByItsID) {
    const std::string info = kInfo;
    const std::vector<std::string> ways[] = {
        {"--unshare-user"},
        {"--unshare-user", "--unshare-ipc", "--unshare-net", "--proc", "/proc", "--tmpfs", "/tmp", "--dir", "/app"},
        // Of a user who is somebody else within, which takes another namespace in between.
        {"--unshare-user", "--uid", "4711", "--gid", "4711"},
        // With the host's files, as an application may be granted.
        {"--unshare-user", "--ro-bind", "/", "/run/host"},
    };
    for (const auto& way : ways) {
        const WaitingProcess process = WaitingProcess::inSandbox(way, ":", &info);
        ASSERT_EQ(process.trouble(), "");
        EXPECT_EQ(identified(process.number()), "flatpak org.example.Notes") << way.size();
    }
    // Where the kernel grants no user namespaces, a bubblewrap with root's rights makes sandboxes without one.
    if (::getuid() != 0) return;
    const WaitingProcess process = WaitingProcess::inSandbox({}, ":", &info);
    ASSERT_EQ(process.trouble(), "");
    EXPECT_EQ(identified(process.number()), "flatpak org.example.Notes");
}

TEST_F(RealSandboxTest, TheBusProxyOfAFlatpakIsThatFlatpak) {
    // It stands between the sandbox and the bus, so that it is whom the bus names: it has all of the host's folders, in
    // a root of its own with the file of its Flatpak, which is no mount there.
    const WaitingProcess process = WaitingProcess::inSandbox(
        {"--unshare-user", "--bind", "/etc", "/etc", "--bind", "/var", "/var", "--bind", "/run", "/run"},
        "printf '%s' '" + std::string(kInfo) + "' >/.flatpak-info");
    ASSERT_EQ(process.trouble(), "");
    EXPECT_EQ(identified(process.number()), "flatpak org.example.Notes");
}

TEST_F(RealSandboxTest, AFlatpakThatEndsIsUnknown) {
    const std::string info = kInfo;
    WaitingProcess process = WaitingProcess::inSandbox({"--unshare-user"}, ":", &info);
    ASSERT_EQ(process.trouble(), "");
    process.end();
    EXPECT_TRUE(identified(process.number()).starts_with("unknown (the process "));
}

TEST_F(RealSandboxTest, ASandboxThatIsNoFlatpaksIsUnknown) {
    EXPECT_EQ(identifiedAfter(":"), "unknown (the process is in a user namespace that is not ours)");
    if (::getuid() != 0) return;
    const WaitingProcess other = WaitingProcess::inSandbox({});
    ASSERT_EQ(other.trouble(), "");
    EXPECT_EQ(identified(other.number()), "unknown (the process has a root folder that is not ours)");
    // The host's root with some folders hidden.
    const WaitingProcess hiding = WaitingProcess::inBareSandbox({"--dev-bind", "/", "/", "--tmpfs", "/home"});
    ASSERT_EQ(hiding.trouble(), "");
    EXPECT_EQ(identified(hiding.number()), "unknown (the process has mounts that are not ours)");
}

TEST_F(RealSandboxTest, WhatIsNoFileIsNotReadAndIsUnknown) {
    const std::string notRead = "unknown (its .flatpak-info cannot be read: ";
    const std::string einval = describe(posixError(EINVAL)) + ")";
    EXPECT_EQ(identifiedAfter("mkfifo /.flatpak-info"), notRead + einval);
    EXPECT_EQ(identifiedAfter("mkdir /.flatpak-info"), notRead + einval);
    EXPECT_EQ(identifiedAfter("mkdir /a && printf '[Application]\\nname=org.example.Maps\\n' >/a/info && "
                              "ln -s /a/info /.flatpak-info"),
              notRead + einval);
    EXPECT_EQ(identifiedAfter("ln -s /nowhere /.flatpak-info"), notRead + einval);
    EXPECT_EQ(identifiedAfter("truncate -s 100M /.flatpak-info"), notRead + describe(posixError(EFBIG)) + ")");
    EXPECT_EQ(
        identifiedAfter("printf '[Application]\\nname=org.example.Maps' >/.flatpak-info && chmod 0 /.flatpak-info"),
        ::getuid() == 0 ? "flatpak org.example.Maps" : notRead + describe(posixError(EACCES)) + ")");
    EXPECT_EQ(identifiedAfter(": >/.flatpak-info"),
              "unknown (its .flatpak-info is not right; it names no application)");
}

TEST_F(RealSandboxTest, ARootOrAFileThatIsNotInMemoryIsNoFlatpaks) {
    const testing::TemporaryDirectory directory;
    struct statfs status{};
    ASSERT_EQ(::statfs(directory.path().c_str(), &status), 0);
    if (status.f_type == TMPFS_MAGIC) GTEST_SKIP() << "the folder of the tests is in memory";
    testing::writeFile(directory.path("info"), kInfo);
    const WaitingProcess file =
        WaitingProcess::inSandbox({"--unshare-user", "--ro-bind", directory.path("info"), "/.flatpak-info"});
    ASSERT_EQ(file.trouble(), "");
    EXPECT_EQ(identified(file.number()), "unknown (its .flatpak-info is not one that Flatpak made)");

    testing::writeFile(directory.path(".flatpak-info"), kInfo);
    for (const char* name : {"usr", "dev"}) testing::makeDirectories(directory.path(name));
    const WaitingProcess root = WaitingProcess::inBareSandbox(
        {"--unshare-user", "--bind", directory.path(), "/", "--ro-bind", "/usr", "/usr", "--dev", "/dev", "--symlink",
         "usr/lib", "/lib", "--symlink", "usr/lib64", "/lib64"});
    ASSERT_EQ(root.trouble(), "");
    EXPECT_EQ(identified(root.number()), "unknown (the process is in a user namespace that is not ours)");
}

}  // namespace
}  // namespace tarnwell::caller
