#include <gtest/gtest.h>

#include "platform/caller/FlatpakInfo.h"
#include "platform/caller/ProcText.h"
#include "platform/caller/SnapNames.h"

namespace tarnwell::caller {
namespace {

/// The Snap's name, "none", or "unclear".
std::string shown(const Result<std::optional<std::string>>& name) {
    if (!name) return name.error().userInfo.contains(kErrorMessage) ? "unclear" : "an error without a sentence";
    return name->value_or("none");
}

TEST(FlatpakIDTest, HasThreePartsAndFewKindsOfLetters) {
    const std::string longest = "org.example." + std::string(243, 'x');
    ASSERT_EQ(longest.size(), 255u);
    for (const std::string& good : {std::string("org.example.Notes"), std::string("org._example.N0tes-2"),
                                    std::string("io.github.a.b.c.D_e"), std::string("a.b.c"), longest}) {
        EXPECT_TRUE(isFlatpakID(good)) << good;
    }
    for (const std::string& bad :
         {std::string(), std::string("Notes"), std::string("example.Notes"), std::string("org..Notes"),
          std::string(".org.example"), std::string("org.example."), std::string("org.example.Notes."),
          std::string("org.exam-ple.Notes"), std::string("org.example.1Notes"), std::string("org.3xample.Notes"),
          std::string("org.example.-Notes/.."), std::string("org.example.No tes"),
          std::string("org.example.N\xc3\xb6te"), std::string("org.example.Not\0es", 18),
          std::string("org.example.../x"), longest + "x"}) {
        EXPECT_FALSE(isFlatpakID(bad)) << bad;
    }
}

TEST(FlatpakInfoTest, NamesItsApplicationOrIsWrong) {
    struct Row {
        std::string content;
        std::string expected;  ///< the ID, or the sentence of the error
    };
    const std::string none = "it names no application", broken = "not a key file",
                      badID = "its application has an ID that none can have";
    const Row rows[] = {
        {"[Application]\nname=org.example.Notes\n", "org.example.Notes"},
        {"# comment\n\n[Instance]\nname=org.example.Maps\n[Application]\nname = org.example.Notes",
         "org.example.Notes"},
        {"[Application]\nname[de]=org.example.Maps\nname=org.example.Notes\n", "org.example.Notes"},
        {"", none},
        {"[Application]\n", none},
        {"[Application]\nname[de]=org.example.Maps\n", none},
        {"[Instance]\nname=org.example.Notes\n", none},
        {"[application]\nname=org.example.Notes\n", none},
        {"[Runtime]\nname=org.example.Platform\n", "it is of a runtime without an application"},
        {"[Application]\nname=org.example.Notes\n[Runtime]\nname=org.example.Platform\n",
         "it is of a runtime without an application"},
        {"[Application]\nname=\n", badID},
        {"[Application]\nname=../../x\n", badID},
        {"[Application]\nname=org.example.Notes;\n", badID},
        {"[Application]\nname=org.example.Notes\\n\n", badID},
        {"[Application]\nname=org.example.N\xff\n", none},
        {"name=org.example.Notes\n", broken},
        {"[Application\nname=org.example.Notes\n", broken},
        {std::string("[Application]\nname=org.example.Notes\0x\n", 38), broken},
        {std::string("\x7f"
                     "ELF\0\0",
                     6),
         broken},
    };
    for (const Row& row : rows) {
        const auto application = applicationOfFlatpakInfo(row.content);
        if (application) {
            EXPECT_EQ(*application, row.expected) << row.content;
        } else {
            EXPECT_EQ(application.error(), posixError(EBADMSG, row.expected)) << row.content;
        }
    }
}

TEST(SnapNamesTest, AreInSecurityLabels) {
    struct Row {
        std::string label;
        std::string expected;
    };
    const Row rows[] = {
        {"", "none"},
        {"unconfined", "none"},
        {std::string("unconfined\n\0", 12), "none"},
        {"chrome (unconfined)", "none"},
        {"/usr/bin/evince (enforce)", "none"},
        {"/opt/Z\xc3\xb6\xc3\xa9/app (enforce)", "none"},
        {"snapper", "none"},
        {"system_u:system_r:snappy_t:s0", "none"},
        {"snap.notes.notes", "notes"},
        {"snap.notes.notes (enforce)", "notes"},
        {"snap.notes.notes (complain)\n", "notes"},
        {std::string("snap.notes.notes (enforce)\0", 27), "notes"},
        {"snap.notes_work.notes (enforce)", "notes_work"},
        {"snap.my-notes2.run-it (enforce)", "my-notes2"},
        {"snap.notes.hook.configure (enforce)", "notes"},
        {"snap.notes.notes//null-/usr/bin/git (complain)", "notes"},
        {"snap.notes.notes//&unconfined (mixed)", "notes"},
        {"snap.notes.notes//&snap.notes.other (enforce)", "notes"},
        {"snap.notes.notes//&snap.maps.maps (enforce)", "unclear"},
        {"unconfined//&:lxd-box_<var-lib>:unconfined", "unclear"},
        {":lxd-box://snap.notes.notes (enforce)", "unclear"},
        {"snap.", "unclear"},
        {"snap.notes", "unclear"},
        {"snap.notes.", "unclear"},
        {"snap.notes (enforce)", "unclear"},
        {"snap..notes", "unclear"},
        {"snap.Notes.notes", "unclear"},
        {"snap.notes_.notes", "unclear"},
        {"snap.notes_a_b.notes", "unclear"},
        {"snap.notes+part.hook.install", "unclear"},
        {"snap.no tes.notes", "unclear"},
        {"snap.notes.no/tes", "unclear"},
        {"snap.notes.notes (Enforce)", "unclear"},
        {"snap-update-ns.notes (enforce)", "unclear"},
        {"snap-confine", "unclear"},
        {"/usr/lib/snapd/snap-confine (enforce)", "unclear"},
        {"/usr/lib/snapd/snap-confine//mount-namespace-capture-helper (enforce)", "unclear"},
        {"/snap/snapd/19457/usr/lib/snapd/snap-confine (enforce)", "unclear"},
        {"snap.notes.notes\nsnap.maps.maps", "unclear"},
        {std::string("unconfined\0snap.notes.notes", 27), "unclear"},
        {std::string(4096, 'x'), "none"},
        {std::string(4097, 'x'), "unclear"},
    };
    for (const Row& row : rows) EXPECT_EQ(shown(snapOfLabel(row.label)), row.expected) << row.label.substr(0, 99);
}

TEST(SnapNamesTest, AreInControlGroups) {
    const std::string app = "0::/user.slice/user-1000.slice/user@1000.service/app.slice/";
    const std::string uuid = "0b1a4c8e-5d36-4d55-9f0c-6a8f5a1f7a10";
    struct Row {
        std::string text;
        std::string expected;
    };
    const Row rows[] = {
        {"", "none"},
        {"0::/\n", "none"},
        {"12:pids:/user.slice\n1:name=systemd:/user.slice/a:b\n0::/user.slice\n", "none"},
        {app + "app-gnome-snap.notes.notes-7.scope\n", "none"},
        {app + "snap.notes.notes-" + uuid + ".scope\n", "notes"},
        {app + "snap.notes.notes." + uuid + ".scope\n", "notes"},
        {app + "snap.notes_work.notes-" + uuid + ".scope\n", "notes_work"},
        {app + "snap.notes.hook.configure-" + uuid + ".scope\n", "notes"},
        {app + "snap.notes.notes.service\n", "notes"},
        {app + "snap.notes.notes-" + uuid + ".scope/of/its/own\n", "notes"},
        {"0::/system.slice/snap.quota.slice/snap.notes.daemon.service\n", "notes"},
        {"0::/system.slice/snap.quota.slice/other.service\n", "none"},
        {"9:freezer:/snap.notes\n0::/user.slice\n", "notes"},
        {"9:freezer:/snap.notes\n" + app + "snap.notes.notes-" + uuid + ".scope\n", "notes"},
        {"9:freezer:/snap.maps\n" + app + "snap.notes.notes-" + uuid + ".scope\n", "unclear"},
        {app + "snap.maps.maps.service/snap.notes.notes.service\n", "unclear"},
        {app + "snap.notes.notes-" + uuid + ".scope (deleted)\n", "unclear"},
        {app + "snap.notes.notes-" + uuid + "\n", "unclear"},
        {app + "snap.notes.scope\n", "unclear"},
        {app + "snap.notes\\x2bpart.hook.install-" + uuid + ".scope\n", "unclear"},
        {app + "snap..notes.scope\n", "unclear"},
        {app + "snap.\n", "unclear"},
        {app + "snap.Notes.notes.service\n", "unclear"},
        {"0:/user.slice\n", "unclear"},
        {"0::user.slice\n", "unclear"},
        {"0::/user.slice\n\n", "unclear"},
        {"text", "unclear"},
    };
    for (const Row& row : rows) EXPECT_EQ(shown(snapOfControlGroups(row.text)), row.expected) << row.text;
}

TEST(ProcTextTest, TellsTheUsers) {
    using Users = std::array<uid_t, 4>;
    EXPECT_EQ(usersOf("Name:\tx\nUid:\t1\t2\t3\t4294967295\nGid:\t9\t9\t9\t9\n"), (Users{1, 2, 3, 4294967295}));
    EXPECT_EQ(usersOf("Uid:\t1\t2\t3\t4"), (Users{1, 2, 3, 4}));
    for (const char* bad : {"", "Uid:", "Uid:\t", "Uid:\t1\t2\t3", "Uid:\t1\t2\t3\t4\t5", "Uid:\t1\t2\t3\t-4",
                            "Uid:\t1\t2\t3\t4294967296", "Uid: 1\t2\t3\t4", "FooUid:\t1\t2\t3\t4"}) {
        EXPECT_EQ(usersOf(bad), std::nullopt) << bad;
    }
}

TEST(ProcTextTest, TellsTheFileSystemOfAMount) {
    const char* const text =
        "26 1 254:0 / / rw,relatime - ext4 /dev/vda rw\n"
        "66 43 0:39 /newroot / rw,nosuid,nodev,relatime master:1 propagate_from:2 - tmpfs tmpfs rw\n"
        "67 66 0:39 - - rw - fuse.x\\040y me rw\n"
        "68 66 0:39 / / rw - - - rw\n"
        "69 66 0:39 / / rw\n"
        "70\n"
        "71 66 0:39 / / rw - \n";
    EXPECT_EQ(fileSystemOf(text, 26), "ext4");
    EXPECT_EQ(fileSystemOf(text, 66), "tmpfs");
    EXPECT_EQ(fileSystemOf(text, 67), "fuse.x\\040y");
    EXPECT_EQ(fileSystemOf(text, 68), "-");
    for (const std::uint64_t missing : {0, 1, 6, 69, 70, 71, 660}) EXPECT_EQ(fileSystemOf(text, missing), std::nullopt);
    EXPECT_EQ(fileSystemOf("", 1), std::nullopt);
}

TEST(ProcTextTest, TellsTheProcessOfADescriptor) {
    EXPECT_EQ(processOfDescriptor("pos:\t0\nflags:\t02000002\nPid:\t77\nNSpid:\t77\n"), 77);
    EXPECT_EQ(processOfDescriptor("pos:\t0\nPid:\t-1\n"), -1);
    EXPECT_EQ(processOfDescriptor("pos:\t0\nNSpid:\t77\n"), std::nullopt);
    EXPECT_EQ(processOfDescriptor("Pid:\tx\n"), std::nullopt);
}

}  // namespace
}  // namespace tarnwell::caller
