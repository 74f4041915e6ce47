#include "testing/SystemCallFaults.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#include "testing/TemporaryDirectory.h"

namespace tarnwell::testing {
namespace {

using Kind = SystemCallFault::Kind;

/// A process that makes three folders, one after the other, and says how each went.
class SystemCallFaultsTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!run({})) GTEST_SKIP() << "no seccomp listener";
        for (const char* name : {"a", "b", "c"}) ASSERT_EQ(::rmdir(directory_.path(name).c_str()), 0);
    }
    std::optional<FaultedRun> run(const SystemCallFault& fault) {
        return runWithFault(fault, [&](const std::function<void()>& begin) {
            std::string text;
            const auto make = [&](const char* name) {
                const int code = ::mkdirat(AT_FDCWD, directory_.path(name).c_str(), 0755) == 0 ? 0 : errno;
                text += std::string(name) + std::to_string(code) + " ";
            };
            begin();
            for (const char* name : {"a", "b", "c"}) make(name);
            return text;
        });
    }
    bool exists(const char* name) const {
        struct stat status{};
        return ::lstat(directory_.path(name).c_str(), &status) == 0;
    }
    static std::string code(int number) { return std::to_string(number); }

    TemporaryDirectory directory_;
};

TEST_F(SystemCallFaultsTest, WithoutAFaultCallsAreCountedAndMade) {
    const auto done = run({});
    ASSERT_TRUE(done);
    EXPECT_EQ(done->text, "a0 b0 c0 ");
    EXPECT_EQ(done->calls, 3u);
    EXPECT_TRUE(done->ended);
    EXPECT_FALSE(done->befell);
    EXPECT_TRUE(exists("a") && exists("b") && exists("c"));
}

TEST_F(SystemCallFaultsTest, CallsBeforeTheBeginningAreNotCounted) {
    const auto done = runWithFault({Kind::error, 0, EIO}, [&](const std::function<void()>& begin) {
        const bool made = ::mkdirat(AT_FDCWD, directory_.path("before").c_str(), 0755) == 0;
        begin();
        return std::string(made ? "made" : "refused");
    });
    ASSERT_TRUE(done);
    EXPECT_EQ(done->text, "made");
    EXPECT_EQ(done->calls, 0u);
    EXPECT_FALSE(done->befell);
}

TEST_F(SystemCallFaultsTest, AnErrorBefallsTheCallThatIsNotMade) {
    const auto done = run({Kind::error, 1, EXDEV});
    ASSERT_TRUE(done);
    EXPECT_EQ(done->text, "a0 b" + code(EXDEV) + " c0 ");
    EXPECT_TRUE(done->befell);
    EXPECT_TRUE(done->ended);
    EXPECT_EQ(done->call, SYS_mkdirat);
    EXPECT_TRUE(exists("a") && !exists("b") && exists("c"));
}

TEST_F(SystemCallFaultsTest, ALastingErrorBefallsLaterCallsOfThatKindOnly) {
    const auto done = runWithFault({Kind::error, 0, ENOSPC, true}, [&](const std::function<void()>& begin) {
        begin();
        std::string text;
        for (const char* name : {"a", "b"}) {
            text += ::mkdirat(AT_FDCWD, directory_.path(name).c_str(), 0755) == 0 ? "made " : "not made ";
        }
        struct stat status{};
        return text + (::fstatat(AT_FDCWD, directory_.path().c_str(), &status, 0) == 0 ? "seen" : "not seen");
    });
    ASSERT_TRUE(done);
    EXPECT_EQ(done->text, "not made not made seen");
}

TEST_F(SystemCallFaultsTest, AKillComesBeforeTheCall) {
    const auto done = run({Kind::kill, 1});
    ASSERT_TRUE(done);
    EXPECT_FALSE(done->ended);
    EXPECT_TRUE(done->befell);
    EXPECT_EQ(done->text, "");
    EXPECT_TRUE(exists("a") && !exists("b") && !exists("c"));
}

TEST_F(SystemCallFaultsTest, SomebodyElseActsBeforeTheCallWhichIsThenMade) {
    SystemCallFault fault{Kind::act, 1};
    bool sawA = false, sawB = true;
    fault.act = [&] {
        sawA = exists("a");
        sawB = exists("b");
        ASSERT_EQ(::mkdir(directory_.path("c").c_str(), 0755), 0);
    };
    const auto done = run(fault);
    ASSERT_TRUE(done);
    EXPECT_TRUE(sawA);
    EXPECT_FALSE(sawB);
    EXPECT_EQ(done->text, "a0 b0 c" + code(EEXIST) + " ");
}

TEST_F(SystemCallFaultsTest, AFaultPastTheLastCallBefallsNothing) {
    const auto done = run({Kind::kill, 3});
    ASSERT_TRUE(done);
    EXPECT_TRUE(done->ended);
    EXPECT_FALSE(done->befell);
    EXPECT_EQ(done->text, "a0 b0 c0 ");
}

TEST_F(SystemCallFaultsTest, AProcessThatEndsBadlyIsSaid) {
    const auto done = runWithFault({}, [](const std::function<void()>& begin) -> std::string {
        begin();
        ::_exit(7);
    });
    ASSERT_TRUE(done);
    EXPECT_TRUE(done->ended);
    EXPECT_NE(done->text.find("the process ended with status"), std::string::npos) << done->text;
}

TEST_F(SystemCallFaultsTest, LongTextsComeWhole) {
    const auto done = runWithFault({}, [](const std::function<void()>& begin) {
        begin();
        return std::string(300'000, 'x');
    });
    ASSERT_TRUE(done);
    EXPECT_EQ(done->text, std::string(300'000, 'x'));
}

}  // namespace
}  // namespace tarnwell::testing
