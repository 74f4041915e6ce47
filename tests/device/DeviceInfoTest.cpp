#include <gtest/gtest.h>

#include <map>

#include "platform/device/LinuxDeviceInfo.h"
#include "platform/device/MonitorsFile.h"
#include "testing/CapturingLog.h"
#include "testing/FakeDeviceInfo.h"
#include "testing/TemporaryDirectory.h"

namespace tarnwell::device {
namespace {

class DeviceInfoTest : public ::testing::Test {
protected:
    DeviceInfoTest() {
        sources_.variable = [this](const char* name) -> std::optional<std::string> {
            ++asked_;
            const auto found = variables_.find(name);
            return found == variables_.end() ? std::nullopt : std::optional(found->second);
        };
        sources_.machineInfo = folder_.path("machine-info");
        sources_.dmiChassis = folder_.path("chassis_type");
        sources_.deviceTreeChassis = folder_.path("chassis-type");
        sources_.monitors = folder_.path("monitors.xml");
    }
    void write(const std::string& name, std::string_view content) const {
        testing::writeFile(folder_.path(name), content);
    }
    std::int64_t classNumber() { return LinuxDeviceInfo(sources_, log_).deviceClassNumber(); }
    double scale() { return LinuxDeviceInfo(sources_, log_).mainScreenScale(); }

    testing::TemporaryDirectory folder_;
    testing::CapturingLog log_;
    std::map<std::string, std::string> variables_;
    DeviceSources sources_;
    int asked_ = 0;
};

TEST_F(DeviceInfoTest, ADeviceThatSaysNothingIsOfClass2WithScale1) {
    EXPECT_EQ(classNumber(), 2);
    EXPECT_EQ(scale(), 1.0);
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(DeviceInfoTest, TheChassisSaysTheClass) {
    struct Row {
        std::string file;
        std::string_view content;
        std::int64_t expected;
    };
    for (const Row& row : {Row{"chassis_type", "30\n", 3},
                           {"chassis_type", "11\n", 1},
                           {"chassis_type", "10\n", 2},
                           {"chassis_type", "31\n", 2},  // can be folded over, and is a laptop
                           {"chassis_type", "300\n", 2},
                           {"chassis_type", "", 2},
                           {"chassis-type", {"tablet\0", 7}, 3},
                           {"chassis-type", {"handset\0", 8}, 1},
                           {"chassis-type", {"laptop\0", 7}, 2},
                           {"machine-info", "PRETTY_HOSTNAME=x\nCHASSIS=tablet\n", 3},
                           {"machine-info", "CHASSIS=\"handset\"", 1},
                           {"machine-info", "XCHASSIS=tablet\nCHASSISX=tablet\n", 2}}) {
        SCOPED_TRACE(row.file + ": " + std::string(row.content));
        write(row.file, row.content);
        EXPECT_EQ(classNumber(), row.expected);
        write(row.file, "");
    }
}

TEST_F(DeviceInfoTest, WhatTheAdministratorSaysCountsBeforeTheFirmware) {
    write("machine-info", "CHASSIS=desktop\n");
    write("chassis_type", "30\n");
    EXPECT_EQ(classNumber(), 2);
}

TEST_F(DeviceInfoTest, TheEnvironmentSetsTheClass) {
    write("chassis_type", "30\n");
    for (const std::int64_t number : {1, 2, 3}) {
        variables_["TARNWELL_DEVICE_CLASS"] = std::to_string(number);
        EXPECT_EQ(classNumber(), number);
    }
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(DeviceInfoTest, AClassOrScaleThatMakesNoSenseIsIgnoredWithOneLine) {
    write("chassis_type", "30\n");
    for (const std::string& value : {std::string("0"), std::string("4"), std::string("3 "), std::string("tablet"),
                                     std::string("-1"), std::string("3\n\x1b[31m"), std::string(100'000, '3')}) {
        variables_["TARNWELL_DEVICE_CLASS"] = value;
        EXPECT_EQ(classNumber(), 3);
        const auto lines = log_.texts(log::Level::error);
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_TRUE(lines[0].starts_with("[ERROR] ignored TARNWELL_DEVICE_CLASS=\"")) << lines[0];
        EXPECT_LT(lines[0].size(), 300u);
        EXPECT_EQ(lines[0].find('\x1b'), std::string::npos);
        log_.clear();
    }
    for (const char* value : {"0", "0.99", "3.01", "-2", "nan", "inf", "1e1", "2x", " 2", "2,5", "0x2", "1e999"}) {
        SCOPED_TRACE(value);
        variables_["TARNWELL_SCREEN_SCALE"] = value;
        EXPECT_EQ(scale(), 1.0);
        EXPECT_EQ(log_.texts(log::Level::error),
                  std::vector<std::string>{"[ERROR] ignored TARNWELL_SCREEN_SCALE=\"" + std::string(value) +
                                           "\"; it has to be a number from 1 to 3"});
        log_.clear();
    }
}

TEST_F(DeviceInfoTest, TheEnvironmentAndTheSessionSetTheScale) {
    struct Row {
        std::map<std::string, std::string> variables;
        double expected;
    };
    for (const Row& row : {Row{{{"TARNWELL_SCREEN_SCALE", "1"}}, 1},
                           {{{"TARNWELL_SCREEN_SCALE", "2.5"}, {"GDK_SCALE", "2"}}, 2.5},
                           {{{"TARNWELL_SCREEN_SCALE", "3"}}, 3},
                           {{{"GDK_SCALE", "2"}, {"QT_SCALE_FACTOR", "3"}}, 2},
                           {{{"GDK_SCALE", "0"}, {"QT_SCALE_FACTOR", "1.5"}}, 1.5},
                           {{{"GDK_SCALE", "8"}}, 3},
                           {{{"QT_SCALE_FACTOR", "0.5"}}, 1},
                           {{{"QT_SCALE_FACTOR", "big"}}, 1}}) {
        variables_ = row.variables;
        SCOPED_TRACE(variables_.begin()->first + "=" + variables_.begin()->second);
        EXPECT_EQ(scale(), row.expected);
    }
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(DeviceInfoTest, TheDesktopsListOfScreensSaysTheScaleOfThePrimaryOne) {
    write("monitors.xml",
          "<monitors version=\"2\"><configuration>"
          "<logicalmonitor><x>0</x><scale>1</scale><monitor/></logicalmonitor>"
          "<logicalmonitor><x>1920</x><scale>2</scale><primary>yes</primary></logicalmonitor>"
          "</configuration><configuration><logicalmonitor><scale>3</scale><primary>yes</primary></logicalmonitor>"
          "</configuration></monitors>");
    EXPECT_EQ(scale(), 2.0);
    variables_["GDK_SCALE"] = "1";
    EXPECT_EQ(scale(), 1.0);
}

TEST_F(DeviceInfoTest, AListOfScreensThatMakesNoSenseSaysNothing) {
    std::string deep;
    for (int i = 0; i < 20'000; ++i) deep += "<a>";
    for (const std::string& content :
         {std::string(), std::string("<"), std::string("\xff\xfe"), deep,
          std::string("<logicalmonitor><scale>2</scale></logicalmonitor>"),
          std::string("<logicalmonitor><scale>nan</scale><primary>yes</primary></logicalmonitor>"),
          std::string("<logicalmonitor><primary>yes</primary></logicalmonitor>"),
          std::string("<scale>2</scale><logicalmonitor><primary>yes</primary></logicalmonitor>"),
          std::string(2u << 20, ' ')}) {
        SCOPED_TRACE(content.substr(0, 60));
        write("monitors.xml", content);
        EXPECT_EQ(scale(), 1.0);
    }
}

TEST_F(DeviceInfoTest, EachAnswerIsLookedUpOnce) {
    LinuxDeviceInfo info(sources_, log_);
    variables_["TARNWELL_DEVICE_CLASS"] = "tablet";
    variables_["TARNWELL_SCREEN_SCALE"] = "2";
    EXPECT_EQ(info.deviceClassNumber(), 2);
    EXPECT_EQ(info.mainScreenScale(), 2.0);
    variables_.clear();
    write("chassis_type", "30\n");
    const int asked = asked_;
    EXPECT_FALSE(info.isTablet());
    EXPECT_EQ(info.deviceClassNumber(), 2);
    EXPECT_EQ(info.mainScreenScale(), 2.0);
    EXPECT_EQ(asked_, asked);
    EXPECT_EQ(log_.lines().size(), 1u);
}

TEST(FakeDeviceInfo, CountsHowOftenItIsLookedUp) {
    testing::FakeDeviceInfo info;
    info.set(kTablet, 2.5F);
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(info.isTablet());
        EXPECT_EQ(info.mainScreenScale(), 2.5);
    }
    EXPECT_EQ(info.timesAskedForClass(), 1);
    EXPECT_EQ(info.timesAskedForScale(), 1);
}

}  // namespace
}  // namespace tarnwell::device
