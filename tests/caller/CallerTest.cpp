#include <gtest/gtest.h>

#include "platform/base/Result.h"
#include "testing/FakeProc.h"
#include "testing/WaitingProcess.h"

namespace tarnwell::caller {
namespace {

using testing::FakeProc;
using testing::WaitingProcess;

constexpr const char* kNotesInfo = "[Application]\nname=org.example.Notes\n";

/// Over a made-up procfs: what is read there, and what is concluded.
class CallerTest : public ::testing::Test {
protected:
    std::string identified() const { return describe(proc_.identify()); }
    FakeProc proc_;
};

TEST_F(CallerTest, AProgramInOurSystemIsOfTheHost) { EXPECT_EQ(identified(), "host"); }

TEST_F(CallerTest, AConnectionOfAnotherUserIsUnknown) {
    Peer peer = proc_.peer();
    peer.user = 1001;
    EXPECT_EQ(describe(identify(peer, proc_.sources())), "unknown (the connection is of another user)");
}

TEST_F(CallerTest, AProcessThatIsOrMayBecomeAnotherUserIsUnknown) {
    for (const char* users : {"0\t0\t0\t0", "1001\t1000\t1000\t1000", "1000\t0\t1000\t1000", "1000\t1000\t0\t1000",
                              "1000\t1000\t1000\t0"}) {
        proc_.write("status", "Name:\tx\nUid:\t" + std::string(users) + "\n");
        EXPECT_EQ(identified(), "unknown (the process is of another user)") << users;
    }
}

TEST_F(CallerTest, AProcessWithoutAUserIsUnknown) {
    for (const char* status : {"", "Uid:\n", "Uid:\t1000\n", "Name:\tUid:\t1000\t1000\t1000\t1000\n"}) {
        proc_.write("status", status);
        EXPECT_EQ(identified(), "unknown (its user cannot be told)") << status;
    }
    proc_.remove("status");
    EXPECT_EQ(identified(), "unknown (its user cannot be told: " + describe(posixError(ENOENT)) + ")");
}

TEST_F(CallerTest, AProcessThatTheBusDoesNotNameIsUnknown) {
    for (const pid_t process : {0, -1}) {
        Peer peer = proc_.peer();
        peer.process = process;
        EXPECT_EQ(describe(identify(peer, proc_.sources())), "unknown (the bus names no process)");
    }
}

TEST_F(CallerTest, AProcessThatEndedIsUnknownHoweverWhatWasReadLooks) {
    WaitingProcess process = WaitingProcess::forked();
    ASSERT_EQ(process.trouble(), "");
    // The folder of the number has nothing to say against it.
    Peer peer = proc_.peer();
    peer.process = process.number();
    std::filesystem::create_symlink(proc_.file("."), proc_.sources().procFolder + "/" + std::to_string(peer.process));
    EXPECT_EQ(describe(identify(peer, proc_.sources())), "host");
    process.end();
    EXPECT_EQ(describe(identify(peer, proc_.sources())), "unknown (the process ended)");
}

TEST_F(CallerTest, AProcessThatTookTheNumberOfOneThatEndedIsUnknown) {
    Peer peer = proc_.peer();
    Descriptor ended;
    {
        const WaitingProcess process = WaitingProcess::forked();
        ASSERT_EQ(process.trouble(), "");
        ended = testing::descriptorOf(process.number());
    }
    peer.processDescriptor = ended.get();
    EXPECT_EQ(describe(identify(peer, proc_.sources())),
              "unknown (the process cannot be found: " + describe(posixError(ESRCH)) + ")");
    const Descriptor own = testing::descriptorOf(::getpid());
    peer.processDescriptor = own.get();
    EXPECT_EQ(describe(identify(peer, proc_.sources())), "host");
    // A descriptor of anything else says nothing of a process.
    const Descriptor other(::open("/", O_RDONLY | O_CLOEXEC));
    peer.processDescriptor = other.get();
    EXPECT_EQ(identify(peer, proc_.sources()).kind, Caller::Kind::unknown);
}

TEST_F(CallerTest, OtherNamespacesOrAnotherRootAreASandboxOfUnknownKind) {
    proc_.enterNamespace("mnt");
    EXPECT_EQ(identified(), "unknown (the process has mounts that are not ours)");
    proc_.enterRoot("ext4");
    EXPECT_EQ(identified(), "unknown (the process has a root folder that is not ours)");
    proc_.enterNamespace("user");
    EXPECT_EQ(identified(), "unknown (the process is in a user namespace that is not ours)");
}

TEST_F(CallerTest, AProcessThatCannotBeLookedAtIsUnknown) {
    for (const char* part : {"ns/user", "ns/mnt", "root"}) {
        const FakeProc proc;
        proc.remove(part);
        EXPECT_EQ(describe(proc.identify()),
                  "unknown (the process cannot be looked at: " + describe(posixError(ENOENT)) + ")")
            << part;
    }
}

TEST_F(CallerTest, ItsOwnProcessMustBeThereToCompareWith) {
    std::filesystem::remove(proc_.sources().procFolder + "/self/ns/user");
    EXPECT_EQ(identified(), "unknown (our own process cannot be looked at: " + describe(posixError(ENOENT)) + ")");
}

TEST_F(CallerTest, AFlatpakIsKnownByTheFileInItsRoot) {
    proc_.enterNamespace("user");
    proc_.enterNamespace("mnt");
    proc_.enterRoot("tmpfs");
    EXPECT_EQ(identified(), "unknown (the process is in a user namespace that is not ours)");
    testing::writeFile(proc_.sandbox(".flatpak-info"), kNotesInfo);
    EXPECT_EQ(identified(), "flatpak org.example.Notes");
    testing::writeFile(proc_.sandbox(".flatpak-info"), "[Runtime]\nname=org.example.Platform\n");
    EXPECT_EQ(identified(), "unknown (its .flatpak-info is not right; it is of a runtime without an application)");
}

TEST_F(CallerTest, NothingIsLookedUpInARootThatIsNotInMemory) {
    testing::writeFile(proc_.sandbox(".flatpak-info"), kNotesInfo);
    proc_.enterNamespace("mnt");
    for (const char* type : {"fuse", "fuse.sshfs", "ext4", "overlay", "-"}) {
        proc_.enterRoot(type);
        EXPECT_EQ(identified(), "unknown (the process has a root folder that is not ours)") << type;
    }
    // Our own root with somebody else's mounts in it is not ours either.
    const FakeProc proc;
    testing::writeFile(proc.host(".flatpak-info"), kNotesInfo);
    proc.enterNamespace("mnt");
    EXPECT_EQ(describe(proc.identify()), "unknown (the process has mounts that are not ours)");
}

TEST_F(CallerTest, ARootOfWhichTheMountsDoNotTellIsUnknown) {
    proc_.enterRoot("tmpfs");
    testing::writeFile(proc_.sandbox(".flatpak-info"), kNotesInfo);
    EXPECT_EQ(identified(), "flatpak org.example.Notes");
    proc_.write("mountinfo", "1 0 0:1 / / rw - tmpfs x rw\n");
    EXPECT_EQ(identified(), "unknown (the process has a root folder that is not ours)");
    proc_.write("mountinfo", std::string(1024 * 1024 + 1, '\n'));
    EXPECT_EQ(identified(), "unknown (its mounts cannot be read: " + describe(posixError(EFBIG)) + ")");
    proc_.remove("mountinfo");
    EXPECT_EQ(identified(), "unknown (its mounts cannot be read: " + describe(posixError(ENOENT)) + ")");
}

TEST_F(CallerTest, ARootInWhichNothingCanBeFoundIsUnknown) {
    proc_.enterRoot("tmpfs");
    std::filesystem::remove(proc_.sandbox(""));
    testing::writeFile(proc_.path("sandbox"), "");
    EXPECT_EQ(identified(), "unknown (its .flatpak-info cannot be found: " + describe(posixError(ENOTDIR)) + ")");
}

TEST_F(CallerTest, AProgramInTheSandboxThatWeAreInIsThatFlatpak) {
    testing::writeFile(proc_.host(".flatpak-info"), kNotesInfo);
    EXPECT_EQ(identified(), "flatpak org.example.Notes");
}

TEST_F(CallerTest, AFlatpakInfoOfMoreThanItsLimitIsUnknown) {
    proc_.enterRoot("tmpfs");
    std::string info = kNotesInfo;
    info.append(64 * 1024 - info.size(), '\n');
    testing::writeFile(proc_.sandbox(".flatpak-info"), info);
    EXPECT_EQ(identified(), "flatpak org.example.Notes");
    testing::writeFile(proc_.sandbox(".flatpak-info"), info + "\n");
    EXPECT_EQ(identified(), "unknown (its .flatpak-info cannot be read: " + describe(posixError(EFBIG)) + ")");
}

struct SnapRow {
    const char* given;     ///< by the bus; null for none
    const char* appArmor;  ///< attr/apparmor/current; null for none
    const char* current;   ///< attr/current; null for none
    const char* group;     ///< null for the one of a program of the host
    const char* expected;
};

constexpr const char* kScope =
    "0::/user.slice/user-1000.slice/user@1000.service/app.slice/snap.notes.notes-"
    "0b1a4c8e-5d36-4d55-9f0c-6a8f5a1f7a10.scope\n";
constexpr const char* kDifferent = "unknown (its security labels and its control groups name different Snaps)";

TEST_F(CallerTest, ASnapIsKnownByEachOfItsLabelsAndItsControlGroup) {
    const SnapRow rows[] = {
        {"unconfined", "unconfined\n", "unconfined\n", nullptr, "host"},
        {nullptr, "unconfined\n", nullptr, nullptr, "host"},
        {nullptr, nullptr, "", nullptr, "host"},
        {nullptr, nullptr, "unconfined_u:unconfined_r:unconfined_t:s0-s0:c0.c1023", nullptr, "host"},
        {"snap.notes.notes (enforce)", nullptr, nullptr, nullptr, "snap notes"},
        {nullptr, "snap.notes.notes (enforce)\n", nullptr, nullptr, "snap notes"},
        {nullptr, nullptr, "snap.notes_work.notes (complain)\n", nullptr, "snap notes_work"},
        {nullptr, nullptr, nullptr, kScope, "snap notes"},
        {"snap.notes.notes", "snap.notes.notes\n", "snap.notes.notes\n", kScope, "snap notes"},
        {"unconfined", "unconfined\n", nullptr, kScope, "snap notes"},
        {"snap.maps.maps", nullptr, nullptr, kScope, kDifferent},
        {"snap.notes_work.notes", nullptr, nullptr, kScope, kDifferent},
        {"snap.maps.maps", "snap.notes.notes\n", nullptr, nullptr, kDifferent},
        {nullptr, "snap.maps.maps\n", nullptr, kScope, kDifferent},
        // The first file is the one that is AppArmor's.
        {nullptr, "snap.notes.notes\n", "snap.maps.maps\n", nullptr, "snap notes"},
        {"snap.notes", nullptr, nullptr, kScope, "unknown (its security label is of a Snap without a proper name)"},
        {nullptr, "snap.\n", nullptr, nullptr, "unknown (its security label is of a Snap without a proper name)"},
        {nullptr, nullptr, nullptr, "garbage\n", "unknown (its control groups are not told as lines)"},
    };
    for (const SnapRow& row : rows) {
        const FakeProc proc;
        Peer peer = proc.peer();
        if (row.given) peer.securityLabel = row.given;
        if (row.appArmor) proc.write("attr/apparmor/current", row.appArmor);
        if (row.current) proc.write("attr/current", row.current);
        if (row.group) proc.write("cgroup", row.group);
        EXPECT_EQ(describe(identify(peer, proc.sources())), row.expected)
            << (row.given ? row.given : "none") << ", " << (row.appArmor ? row.appArmor : "none") << ", "
            << (row.current ? row.current : "none") << ", " << (row.group ? row.group : "none");
    }
}

TEST_F(CallerTest, ASnapMayHaveASystemOfItsOwn) {
    proc_.write("cgroup", kScope);
    proc_.enterNamespace("mnt");
    proc_.enterRoot("squashfs");
    EXPECT_EQ(identified(), "snap notes");
}

TEST_F(CallerTest, ASnapThatShowsItselfAsAFlatpakIsUnknown) {
    proc_.enterRoot("tmpfs");
    testing::writeFile(proc_.sandbox(".flatpak-info"), kNotesInfo);
    proc_.write("cgroup", kScope);
    EXPECT_EQ(identified(), "unknown (it seems to be a Snap and a Flatpak)");
}

TEST_F(CallerTest, LabelsAndGroupsThatCannotBeReadAreUnknown) {
    for (const char* name : {"attr/apparmor/current", "attr/current", "cgroup"}) {
        const FakeProc proc;
        proc.remove(name);
        // A folder opens, but does not read.
        testing::makeDirectories(proc.file(name));
        EXPECT_EQ(proc.identify().kind, Caller::Kind::unknown) << name;
    }
    proc_.remove("cgroup");
    EXPECT_EQ(identified(), "host") << "a kernel without control groups";
}

TEST_F(CallerTest, TextsOfMoreThanTheirLimitAreUnknown) {
    std::string label(4096, 'x');
    proc_.write("attr/current", label);
    EXPECT_EQ(identified(), "host");
    proc_.write("attr/current", label + "x");
    EXPECT_EQ(identified(), "unknown (its security label cannot be read: " + describe(posixError(EFBIG)) + ")");
    proc_.remove("attr/current");
    proc_.write("cgroup", "0::/" + std::string(64 * 1024 - 4, 'x'));
    EXPECT_EQ(identified(), "host");
    proc_.write("cgroup", "0::/" + std::string(64 * 1024 - 3, 'x'));
    EXPECT_EQ(identified(), "unknown (its control groups cannot be read: " + describe(posixError(EFBIG)) + ")");
}

}  // namespace
}  // namespace tarnwell::caller
