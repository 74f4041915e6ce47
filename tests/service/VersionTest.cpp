#include <algorithm>

#include "tests/service/ServedDevice.h"
#include "tour/ChildProcess.h"

/// What the program says when it asks a service that was started before the program was replaced.
namespace tarnwell::service {
namespace {

class VersionTest : public ServedDevice {
protected:
    /// What the program says of the folder, with standard error before or without it.
    std::string run(const std::string& streams) const {
        auto environment = device_.environment();
        environment["DBUS_SESSION_BUS_ADDRESS"] = bus_.address();
        const auto done = tour::run({"sh", "-c", "exec " TARNWELL_PROGRAM " id " + document("Letter.txt") + streams},
                                    environment, tour::Output::captured);
        EXPECT_TRUE(done) << describe(done.error());
        EXPECT_EQ(done->status, 0);
        return done->output;
    }
    void startAs(const std::string& version) {
        client_.reset();
        service_.reset();
        const auto given = settings();
        ASSERT_TRUE(given);
        auto service =
            Service::start({.settings = *given, .programVersion = version, .busAddress = bus_.address()}, log_);
        ASSERT_TRUE(service) << describe(service.error());
        service_ = std::move(*service);
        client_ = connect();
    }
};

TEST_F(VersionTest, AServiceOfAnotherVersionIsAnsweredByAndTold) {
    const std::string answer = idOf(document("Letter.txt")) + "\n";
    EXPECT_EQ(run(" 2>&1"), "tarnwell: the service that runs is version 9, this program is " TARNWELL_VERSION
                            "; \"systemctl --user restart tarnwell\" changes it for the new one\n" +
                                answer);
    EXPECT_EQ(run(" 2>/dev/null"), answer);
}

TEST_F(VersionTest, AServiceOfTheSameVersionIsNothingToTell) {
    startAs(TARNWELL_VERSION);
    EXPECT_EQ(run(" 2>&1"), idOf(document("Letter.txt")) + "\n");
}

TEST_F(VersionTest, AVersionIsShownAsText) {
    startAs("2\x1b[2J\n3");
    const std::string told = run(" 2>&1 >/dev/null");
    EXPECT_EQ(told.find('\x1b'), std::string::npos);
    EXPECT_EQ(std::count(told.begin(), told.end(), '\n'), 1);
}

}  // namespace
}  // namespace tarnwell::service
