#include "cli/output/Dates.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "platform/base/DateText.h"

namespace tarnwell::cli {
namespace {

/// The clocks of this test show Berlin's time.
class Dates : public ::testing::Test {
protected:
    Dates() {
        ::setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
        ::tzset();
    }
    ~Dates() override {
        ::unsetenv("TZ");
        ::tzset();
    }
    static std::string read(std::string_view text) {
        const auto date = dateOfText(text);
        return date ? iso8601(*date) : "none";
    }
};

TEST_F(Dates, WithoutAZoneAreLocal) {
    EXPECT_EQ(read("2024-05-01"), "2024-04-30T22:00:00.000000Z");
    EXPECT_EQ(read("2024-05-01T14:00"), "2024-05-01T12:00:00.000000Z");
    EXPECT_EQ(read("2024-05-01 14:00:30"), "2024-05-01T12:00:30.000000Z");
    EXPECT_EQ(read("2024-12-01T14:00:30.5"), "2024-12-01T13:00:30.500000Z");
    EXPECT_EQ(read("1969-12-31T23:59:59.999999999"), "1969-12-31T22:59:59.999999Z");
}

TEST_F(Dates, WithAZoneAreThere) {
    EXPECT_EQ(read("2024-05-01T14:00Z"), "2024-05-01T14:00:00.000000Z");
    EXPECT_EQ(read("2024-05-01T14:00:30.123456Z"), "2024-05-01T14:00:30.123456Z");
    EXPECT_EQ(read("2024-05-01T14:00+02:00"), "2024-05-01T12:00:00.000000Z");
    EXPECT_EQ(read("2024-05-01T14:00-0730"), "2024-05-01T21:30:00.000000Z");
    EXPECT_EQ(read("2024-05-01T14:00+05"), "2024-05-01T09:00:00.000000Z");
    EXPECT_EQ(read("2024-02-29T00:00Z"), "2024-02-29T00:00:00.000000Z");
}

TEST_F(Dates, WhatTheProgramPrintsIsRead) {
    for (const char* text :
         {"1970-01-01T00:00:00.000000Z", "2024-05-01T13:00:00.123456Z", "1969-12-31T23:59:59.999999Z",
          "2261-12-31T23:59:59.000001Z", "1678-01-01T00:00:00.000000Z"}) {
        EXPECT_EQ(read(text), text);
    }
}

TEST_F(Dates, AnyOtherTextIsNone) {
    for (const char* text : {"",
                             "now",
                             "yesterday",
                             "2024",
                             "2024-05",
                             "2024-5-1",
                             "24-05-01",
                             "2024-13-01",
                             "2024-00-01",
                             "2024-02-30",
                             "2023-02-29",
                             "2024-05-01T",
                             "2024-05-01T1",
                             "2024-05-01T24:00",
                             "2024-05-01T12:60",
                             "2024-05-01T12:00:60",
                             "2024-05-01T12:00:",
                             "2024-05-01T12:00:00.",
                             "2024-05-01T12:00:00.1234567890",
                             "2024-05-01T12:00z",
                             "2024-05-01T12:00Zx",
                             "2024-05-01T12:00+",
                             "2024-05-01T12:00+2",
                             "2024-05-01T12:00+24:00",
                             "2024-05-01T12:00+02:60",
                             "2024-05-01T12:00+02:00:00",
                             "2024-05-01Z",
                             " 2024-05-01",
                             "2024-05-01 ",
                             "1677-12-31",
                             "2262-01-01",
                             "9999-01-01",
                             "-2024-05-01",
                             "2024-05-01T12:00 Z"}) {
        EXPECT_EQ(read(text), "none") << text;
    }
}

TEST(Durations, AreANumberAndAUnit) {
    using std::chrono::seconds;
    EXPECT_EQ(durationOfText("0s"), seconds(0));
    EXPECT_EQ(durationOfText("90s"), seconds(90));
    EXPECT_EQ(durationOfText("15m"), seconds(900));
    EXPECT_EQ(durationOfText("12h"), seconds(43'200));
    EXPECT_EQ(durationOfText("30d"), seconds(2'592'000));
    EXPECT_EQ(durationOfText("4w"), seconds(2'419'200));
    EXPECT_EQ(durationOfText("36600d"), seconds(3'162'240'000));
    for (const char* text : {"", "d", "30", "30x", "-1d", "+1d", "1.5d", "30 d", " 30d", "30d ", "36601d", "0x10d",
                             "99999999999999999999d", "1dd"}) {
        EXPECT_EQ(durationOfText(text), std::nullopt) << text;
    }
}

}  // namespace
}  // namespace tarnwell::cli
