#include "platform/base/Result.h"

#include <cerrno>
#include <csignal>
#include <ostream>
#include <utility>

#include <gtest/gtest.h>

namespace tarnwell {
namespace {

struct DescribeRow {
    Error error;
    std::string line;
};

/// Names of tests are made of it: the line, with one underscore for what is neither letter nor digit.
void PrintTo(const DescribeRow& row, std::ostream* out) {
    bool between = false;
    for (const char c : row.line) {
        if ((c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z')) {
            if (std::exchange(between, false)) *out << '_';
            *out << c;
        } else {
            between = true;
        }
    }
}

class Describe : public ::testing::TestWithParam<DescribeRow> {};

TEST_P(Describe, IsOneLineForPeople) { EXPECT_EQ(describe(GetParam().error), GetParam().line); }

INSTANTIATE_TEST_SUITE_P(
    Errors, Describe,
    ::testing::Values(
        DescribeRow{posixError(ENOENT), "POSIX ENOENT (No such file or directory)"},
        DescribeRow{posixError(EAGAIN), "POSIX EAGAIN (Resource temporarily unavailable)"},
        DescribeRow{posixError(ENOSPC, "free some space"), "POSIX ENOSPC (No space left on device): free some space"},
        DescribeRow{posixError(EIO, ""), "POSIX EIO (Input/output error)"}, DescribeRow{posixError(0), "POSIX errno 0"},
        DescribeRow{posixError(4242), "POSIX errno 4242"}, DescribeRow{posixError(-2), "POSIX errno -2"},
        DescribeRow{{ErrorDomain::posix, std::int64_t{1} << 40, {}}, "POSIX errno 1099511627776"},
        DescribeRow{{ErrorDomain::generalFile, kNoSuchFileOnRead, {}}, "general file error 260 (no such file)"},
        DescribeRow{{ErrorDomain::generalFile, kWriteNotPermitted, {}}, "general file error 513 (write not permitted)"},
        DescribeRow{{ErrorDomain::generalFile, kFileExists, {}}, "general file error 516 (file exists)"},
        DescribeRow{{ErrorDomain::generalFile, 7, {}}, "general file error 7"},
        DescribeRow{{ErrorDomain::host, -1001, {}}, "host error -1001 (filename collision)"},
        DescribeRow{{ErrorDomain::host, -1002, {}}, "host error -1002 (sync anchor expired)"},
        DescribeRow{{ErrorDomain::host, -1005, {{kErrorMessage, "did=7"}}}, "host error -1005 (no such item): did=7"},
        DescribeRow{{ErrorDomain::host, -1100, {}}, "host error -1100 (invalid parameter)"},
        DescribeRow{{ErrorDomain::host, 1, {}}, "host error 1"},
        DescribeRow{{ErrorDomain::provider, 0, {}}, "provider error 0 (invalidItemIdentifier)"},
        DescribeRow{{ErrorDomain::provider, 1, {}}, "provider error 1 (invalidItemURL)"},
        DescribeRow{{ErrorDomain::provider, 2, {}}, "provider error 2 (itemNotFound)"},
        DescribeRow{{ErrorDomain::deviceUUID, 0, {}}, "device UUID error 0 (unableToGetDeviceUUID)"},
        DescribeRow{{ErrorDomain::unarchive, 0, {}}, "unarchive error 0 (invalidResultingClass)"},
        DescribeRow{{ErrorDomain::unarchive, 1, {}}, "unarchive error 1 (damaged archive)"},
        DescribeRow{{ErrorDomain::store, 3, {{kErrorMessage, "damaged"}}}, "store error 3: damaged"}));

TEST(Result, PosixErrorHasNoUserInfoUnlessGivenAMessage) {
    EXPECT_TRUE(posixError(EACCES).userInfo.empty());
    EXPECT_EQ(posixError(EACCES, "closed").userInfo, (std::map<std::string, std::string>{{"message", "closed"}}));
}

TEST(Result, ErrorsAreEqualWhenDomainCodeAndUserInfoAre) {
    EXPECT_EQ(posixError(EIO), posixError(EIO));
    EXPECT_NE(posixError(EIO), posixError(EPERM));
    EXPECT_NE(posixError(EIO), posixError(EIO, "disk"));
    EXPECT_NE(posixError(EIO), (Error{ErrorDomain::host, EIO, {}}));
    EXPECT_TRUE(posixError(EIO, "disk").is(ErrorDomain::posix, EIO));
    EXPECT_FALSE(posixError(EIO).is(ErrorDomain::host, EIO));
}

TEST(Result, ErrnoNameFallsBackToTheNumber) {
    EXPECT_EQ(errnoName(ENODATA), "ENODATA");
    EXPECT_EQ(errnoName(ESTALE), "ESTALE");
    EXPECT_EQ(errnoName(0), "errno 0");
    EXPECT_EQ(errnoName(-1), "errno -1");
    EXPECT_EQ(errnoName(4242), "errno 4242");
}

TEST(Result, AFailureHoldsTheError) {
    Result<int> result = failure(posixError(EBUSY));
    ASSERT_FALSE(result.has_value());
    EXPECT_EQ(result.error(), posixError(EBUSY));
}

TEST(ResultDeathTest, FatalWritesTheMessageAndStopsTheProcess) {
    EXPECT_EXIT(fatal("the index lost its root"), ::testing::KilledBySignal(SIGABRT),
                "tarnwell: the index lost its root");
}

TEST(ResultDeathTest, AFailedCheckNamesItsCondition) {
    int two = 2;
    TARNWELL_CHECK(two == 2);
    EXPECT_EXIT(TARNWELL_CHECK(two == 3), ::testing::KilledBySignal(SIGABRT), "tarnwell: check failed: two == 3");
}

}  // namespace
}  // namespace tarnwell
