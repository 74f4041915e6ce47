#include <gtest/gtest.h>

#include "host/Checks.h"
#include "testing/FakeProc.h"
#include "testing/WaitingProcess.h"

namespace tarnwell::host {
namespace {

using State = Check::State;
using testing::FakeProc;
using testing::WaitingProcess;

class CallerChecksTest : public ::testing::Test {
protected:
    std::vector<Check> checks() const { return checkCallers(proc_.sources(), proc_.path("apparmor")); }
    /// The process shows itself as that other one does.
    void addProcess(const WaitingProcess& process, const FakeProc& as) const {
        std::filesystem::create_symlink(as.file("."),
                                        proc_.sources().procFolder + "/" + std::to_string(process.number()));
    }
    FakeProc proc_;
};

TEST_F(CallerChecksTest, AreGoodInAnOrdinarySystem) {
    testing::writeFile(proc_.path("apparmor"), "Y\n");
    const auto found = checks();
    ASSERT_EQ(found.size(), 3u);
    for (const Check& check : found) {
        EXPECT_EQ(check.state, State::good) << check.finding;
        EXPECT_EQ(check.advice, "");
    }
    EXPECT_EQ(found[0].subject, "callers");
    EXPECT_EQ(found[1].finding, "of the processes of this user 1 are of the host, 0 of Flatpaks, 0 of Snaps");
    EXPECT_EQ(found[2].finding, "told by AppArmor's labels and by control groups");
}

TEST_F(CallerChecksTest, CountTheProcessesOfThisUserThatRun) {
    const WaitingProcess flatpak = WaitingProcess::forked(), snap = WaitingProcess::forked(),
                         hidden = WaitingProcess::forked(), ended = WaitingProcess::forked(),
                         other = WaitingProcess::forked();
    const FakeProc asFlatpak, asSnap, asHidden, asEnded, asOther;
    // Seen from within the same system, but for what makes the difference.
    testing::writeFile(asFlatpak.sandbox(".flatpak-info"), "[Application]\nname=org.example.Notes\n");
    asFlatpak.enterRoot("tmpfs");
    asSnap.write("cgroup", "0::/snap.notes.notes.service\n");
    for (const FakeProc* process : {&asSnap, &asHidden}) process->shareSystemOf(proc_);
    asHidden.remove("ns/user");
    asEnded.write("status", "Name:\tx\nState:\tZ (zombie)\nUid:\t1000\t1000\t1000\t1000\n");
    asOther.write("status", "Name:\tx\nUid:\t1001\t1001\t1001\t1001\n");
    addProcess(flatpak, asFlatpak);
    addProcess(snap, asSnap);
    addProcess(hidden, asHidden);
    addProcess(ended, asEnded);
    addProcess(other, asOther);
    const auto found = checks();
    ASSERT_EQ(found.size(), 3u);
    EXPECT_EQ(found[1].state, State::note);
    EXPECT_EQ(found[1].finding,
              "of the processes of this user 1 are of the host, 1 of Flatpaks, 1 of Snaps, 1 cannot be "
              "told (process " +
                  std::to_string(hidden.number()) +
                  ": the process cannot be looked at: " + describe(posixError(ENOENT)) + ")");
    EXPECT_NE(found[1].advice, "");
}

TEST_F(CallerChecksTest, WarnWithinASandbox) {
    testing::writeFile(proc_.host(".flatpak-info"), "[Application]\nname=org.example.Notes\n");
    const auto found = checks();
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].state, State::warning);
    EXPECT_EQ(found[0].finding, "this program runs within a sandbox (flatpak org.example.Notes)");
    EXPECT_NE(found[0].advice, "");
}

TEST_F(CallerChecksTest, WarnWhereNobodyCanBeTold) {
    proc_.remove("ns/user");
    const auto found = checks();
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].state, State::warning);
    EXPECT_EQ(found[0].finding,
              "cannot be told apart: the process cannot be looked at: " + describe(posixError(ENOENT)));
    EXPECT_NE(found[0].advice, "");
}

TEST_F(CallerChecksTest, NoteAMissingAppArmor) {
    for (const char* text : {"N\n", ""}) {
        testing::writeFile(proc_.path("apparmor"), text);
        EXPECT_EQ(checks().at(2).state, State::note);
        EXPECT_EQ(checks().at(2).finding, "told by control groups alone, since AppArmor is not in use");
    }
}

TEST_F(CallerChecksTest, NoteThatProcessesAreHidden) {
    const std::string line = "24 1 0:22 / " + proc_.sources().procFolder + " rw,nosuid shared:13 - proc proc rw";
    testing::writeFile(proc_.path("proc/self/mountinfo"),
                       "23 1 0:21 / /other rw - proc proc rw,hidepid=noaccess\n" + line + "\n");
    EXPECT_EQ(checks().size(), 3u);
    testing::writeFile(proc_.path("proc/self/mountinfo"), line + ",gid=4,hidepid=invisible\n");
    const auto found = checks();
    ASSERT_EQ(found.size(), 4u);
    EXPECT_EQ(found[3].state, State::note);
    EXPECT_TRUE(found[3].finding.contains(" hides processes (invisible), ")) << found[3].finding;
}

TEST(RealCallerChecksTest, KnowThisVeryProcess) {
    const auto found = checkCallers({}, "/none such");
    ASSERT_GE(found.size(), 3u);
    EXPECT_EQ(found[0].state, State::good);
    EXPECT_FALSE(found[1].finding.contains(" 0 are of the host")) << found[1].finding;
}

}  // namespace
}  // namespace tarnwell::host
