#include "platform/base/DateText.h"

#include <gtest/gtest.h>

namespace tarnwell {
namespace {

using std::chrono::nanoseconds;

TEST(DateText, IsISO8601InUTCWithMicroseconds) {
    EXPECT_EQ(iso8601(Date{}), "1970-01-01T00:00:00.000000Z");
    EXPECT_EQ(iso8601(Date(nanoseconds(1714568400123456789))), "2024-05-01T13:00:00.123456Z");
    EXPECT_EQ(iso8601(Date(-nanoseconds(1))), "1969-12-31T23:59:59.999999Z");
    EXPECT_EQ(iso8601((Date::max)()), "2262-04-11T23:47:16.854775Z");
    EXPECT_EQ(iso8601((Date::min)()), "1677-09-21T00:12:43.145224Z");
}

}  // namespace
}  // namespace tarnwell
