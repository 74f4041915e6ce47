#include "items/TarnwellError.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace tarnwell::items {
namespace {

TEST(TarnwellErrorTest, HasTheDomainAndCodeOfItsMaker) {
    const struct {
        Error error;
        Error expected;
    } rows[] = {
        {makeError(TarnwellError::invalidItemIdentifier), {ErrorDomain::provider, 0, {}}},
        {makeError(TarnwellError::invalidItemURL), {ErrorDomain::provider, 1, {}}},
        {makeError(TarnwellError::itemNotFound), {ErrorDomain::provider, 2, {}}},
        {makeError(DeviceUUIDError::unableToGetDeviceUUID), {ErrorDomain::deviceUUID, 0, {}}},
        {errorWithPOSIXCode(2), {ErrorDomain::posix, 2, {}}},
        {errorWithPOSIXCode(0), {ErrorDomain::posix, 0, {}}},
        {errorWithPOSIXCode(-7), {ErrorDomain::posix, -7, {}}},
        {errorFileWriteNoPermission(), {ErrorDomain::generalFile, 513, {}}},
    };
    for (const auto& row : rows) EXPECT_EQ(row.error, row.expected) << describe(row.expected);
}

TEST(TarnwellErrorTest, IsDescribedByTheNameOfItsCase) {
    EXPECT_EQ(describe(makeError(TarnwellError::invalidItemIdentifier)), "provider error 0 (invalidItemIdentifier)");
    EXPECT_EQ(describe(makeError(DeviceUUIDError::unableToGetDeviceUUID)),
              "device UUID error 0 (unableToGetDeviceUUID)");
}

}  // namespace
}  // namespace tarnwell::items
