#include "bus/wire/Errors.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <set>

#include "session/Session.h"

namespace tarnwell::bus {
namespace {

std::vector<Error> everyError() {
    std::vector<Error> errors;
    for (int code = 1; code <= 133; ++code) errors.push_back(posixError(code));
    for (const std::int64_t code : {kNoSuchFileOnRead, kWriteNotPermitted, kFileExists, std::int64_t{514}}) {
        errors.push_back({ErrorDomain::generalFile, code, {}});
    }
    for (const std::int64_t code : {-1002, -1005, -1001, -1100, -7, 7}) errors.push_back({ErrorDomain::host, code, {}});
    for (const auto domain :
         {ErrorDomain::provider, ErrorDomain::deviceUUID, ErrorDomain::unarchive, ErrorDomain::store}) {
        for (std::int64_t code = 0; code < 6; ++code) errors.push_back({domain, code, {}});
    }
    errors.push_back(posixError(4242));
    return errors;
}

TEST(BusErrorsTest, EveryErrorHasANameOfItsOwnAndComesBackAsItself) {
    std::set<std::string> names;
    for (const Error& error : everyError()) {
        const std::string name = errorName(error);
        // EAGAIN and EWOULDBLOCK are one, as are others with two names.
        EXPECT_TRUE(names.insert(name).second) << name;
        EXPECT_TRUE(name.starts_with("org.tarnwell.Error.")) << name;
        EXPECT_EQ(errorOfName(name, errorMessage(error)), error) << name;
        Error told = error;
        told.userInfo[kErrorMessage] = "the disk is full";
        EXPECT_EQ(errorOfName(name, errorMessage(told)), told) << name;
    }
}

TEST(BusErrorsTest, NamesAreValidOnTheBus) {
    for (const Error& error : everyError()) {
        const std::string name = errorName(error);
        EXPECT_LT(name.size(), 256U);
        bool atStart = true;
        for (const char c : name) {
            EXPECT_TRUE(c == '.' || c == '_' || std::isalnum(static_cast<unsigned char>(c))) << name;
            EXPECT_FALSE(atStart && (c == '.' || std::isdigit(static_cast<unsigned char>(c)))) << name;
            atStart = c == '.';
        }
    }
}

TEST(BusErrorsTest, TheKnownOnesKeepTheirNames) {
    EXPECT_EQ(errorName({ErrorDomain::host, session::kSyncAnchorExpired, {}}), "org.tarnwell.Error.SyncAnchorExpired");
    EXPECT_EQ(errorName({ErrorDomain::host, session::kNoSuchItem, {}}), "org.tarnwell.Error.NoSuchItem");
    EXPECT_EQ(errorName({ErrorDomain::host, session::kFilenameCollision, {}}), "org.tarnwell.Error.FilenameCollision");
    EXPECT_EQ(errorName({ErrorDomain::generalFile, 513, {}}), "org.tarnwell.Error.WriteNotPermitted");
    EXPECT_EQ(errorName(posixError(ENOSPC)), "org.tarnwell.Error.Posix.ENOSPC");
}

TEST(BusErrorsTest, WhatTheBusItselfSaysIsAClearError) {
    EXPECT_TRUE(errorOfName("org.freedesktop.DBus.Error.NoReply", "gone").is(ErrorDomain::posix, ECONNRESET));
    EXPECT_TRUE(errorOfName("org.freedesktop.DBus.Error.ServiceUnknown", "").is(ErrorDomain::posix, ECONNREFUSED));
    EXPECT_TRUE(errorOfName(kAccessDenied, "you").is(ErrorDomain::posix, EACCES));
    EXPECT_TRUE(errorOfName(kLimitsExceeded, "too much").is(ErrorDomain::posix, EBUSY));
    for (const char* odd : {"", "x", "org.tarnwell.Error.", "org.tarnwell.Error.Posix.EWHAT",
                            "org.tarnwell.Error.Host.CodeMinus", "org.tarnwell.Error.Host.Code99999999999999999999"}) {
        EXPECT_TRUE(errorOfName(odd, "m").is(ErrorDomain::posix, EPROTO)) << odd;
    }
}

}  // namespace
}  // namespace tarnwell::bus
