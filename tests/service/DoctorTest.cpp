#include <systemd/sd-bus.h>

#include <atomic>
#include <cstring>
#include <map>
#include <thread>

#include "bus/wire/Names.h"
#include "tests/service/ServedDevice.h"
#include "tour/ChildProcess.h"

/// What `doctor` says of the bus, the service and the session's systemd.
namespace tarnwell::service {
namespace {

/// Somebody on the bus who answers for systemd.
class PlayedSystemd {
public:
    struct Unit {
        std::string fileState = "static";  ///< empty: there is no such unit
        std::string activeState = "active";
        std::string result = "success";
    };

    PlayedSystemd(const std::string& address, Unit unit) : unit_(std::move(unit)) {
        EXPECT_GE(sd_bus_new(&bus_), 0);
        EXPECT_GE(sd_bus_set_address(bus_, address.c_str()), 0);
        EXPECT_GE(sd_bus_set_bus_client(bus_, 1), 0);
        EXPECT_GE(sd_bus_start(bus_), 0);
        EXPECT_GE(sd_bus_add_filter(bus_, nullptr, asked, this), 0);
        EXPECT_GE(sd_bus_request_name(bus_, "org.freedesktop.systemd1", 0), 0);
        thread_ = std::thread([this] {
            while (!isEnding_) {
                if (sd_bus_process(bus_, nullptr) == 0) sd_bus_wait(bus_, 10'000);
            }
        });
    }
    ~PlayedSystemd() {
        isEnding_ = true;
        thread_.join();
        sd_bus_close_unref(bus_);
    }

private:
    static int asked(sd_bus_message* call, void* data, sd_bus_error*) {
        const Unit& unit = static_cast<PlayedSystemd*>(data)->unit_;
        const char *first = nullptr, *second = nullptr;
        if (sd_bus_message_is_method_call(call, "org.freedesktop.systemd1.Manager", "GetUnitFileState") > 0) {
            sd_bus_message_read(call, "s", &first);
            EXPECT_STREQ(first, "tarnwell.service");
            if (!unit.fileState.empty()) return sd_bus_reply_method_return(call, "s", unit.fileState.c_str());
            return sd_bus_reply_method_errorf(call, "org.freedesktop.DBus.Error.FileNotFound", "no such file");
        }
        if (sd_bus_message_is_method_call(call, "org.freedesktop.systemd1.Manager", "LoadUnit") > 0) {
            return sd_bus_reply_method_return(call, "o", "/org/freedesktop/systemd1/unit/tarnwell");
        }
        if (sd_bus_message_is_method_call(call, "org.freedesktop.DBus.Properties", "Get") > 0) {
            sd_bus_message_read(call, "ss", &first, &second);
            const bool isActive = std::strcmp(second, "ActiveState") == 0;
            return sd_bus_reply_method_return(call, "v", "s",
                                              isActive ? unit.activeState.c_str() : unit.result.c_str());
        }
        return 0;
    }

    const Unit unit_;
    sd_bus* bus_ = nullptr;
    std::atomic<bool> isEnding_ = false;
    std::thread thread_;
};

class DoctorTest : public ServedDevice {
protected:
    /// What follows the subject in each line of JSON, by subject.
    std::map<std::string, std::string> linesOf(const std::string& address) const {
        auto environment = device_.environment();
        environment["DBUS_SESSION_BUS_ADDRESS"] = address;
        const auto done = tour::run({TARNWELL_PROGRAM, "--json", "doctor"}, environment, tour::Output::captured);
        EXPECT_TRUE(done) << describe(done.error());
        EXPECT_EQ(done->status, 0) << done->output;
        std::map<std::string, std::string> lines;
        constexpr std::string_view kBegin = "{\"check\":\"";
        for (std::size_t begin = 0; begin < done->output.size();) {
            const std::size_t end = done->output.find('\n', begin);
            const std::string line = done->output.substr(begin, end - begin);
            if (line.starts_with(kBegin)) {
                const std::size_t quote = line.find('"', kBegin.size());
                lines[line.substr(kBegin.size(), quote - kBegin.size())] = line.substr(quote + 2);
            }
            begin = end + 1;
        }
        return lines;
    }
    std::map<std::string, std::string> lines() const { return linesOf(bus_.address()); }

    static bool has(const std::string& line, const std::string& state, const std::string& words,
                    const std::string& advice = {}) {
        const bool isSo = line.starts_with("\"state\":\"" + state + "\"") && line.contains(words) &&
                          (advice.empty() ? line.ends_with("\"advice\":null}") : line.contains(advice));
        if (!isSo) ADD_FAILURE() << line;
        return isSo;
    }
};

TEST_F(DoctorTest, WithoutABusThereIsNoService) {
    // Then the store is the program's own.
    client_.reset();
    service_.reset();
    const auto said = linesOf("unix:path=/nonexistent/socket");
    EXPECT_TRUE(has(said.at("message bus"), "note", "this session has none", "dbus-run-session"));
    EXPECT_FALSE(said.contains("service"));
}

TEST_F(DoctorTest, TheServiceIsToldWithItsProcessAndVersion) {
    auto said = lines();
    EXPECT_TRUE(has(said.at("message bus"), "good", "is there"));
    EXPECT_TRUE(has(said.at("service"), "warning", "process " + std::to_string(::getpid()) + " (",
                    "systemctl --user restart tarnwell"));
    EXPECT_TRUE(said.at("service").contains("is version 9, this program is " TARNWELL_VERSION));

    client_.reset();
    service_.reset();
    EXPECT_TRUE(has(lines().at("service"), "note", "does not run"));

    const auto given = settings();
    ASSERT_TRUE(given);
    auto same =
        Service::start({.settings = *given, .programVersion = TARNWELL_VERSION, .busAddress = bus_.address()}, log_);
    ASSERT_TRUE(same) << describe(same.error());
    service_ = std::move(*same);
    EXPECT_TRUE(has(lines().at("service"), "good", "version " TARNWELL_VERSION));
}

TEST_F(DoctorTest, WhatTheBusStartsIsTold) {
    EXPECT_TRUE(has(lines().at("service file"), "warning", "org.tarnwell.Host1", "install the package"));
    bus_.offer(bus::kServiceName, "/bin/false");
    EXPECT_TRUE(soon([&] { return lines().at("service file").starts_with("\"state\":\"good\""); }));
}

TEST_F(DoctorTest, TheUnitIsToldAsSystemdHasIt) {
    EXPECT_TRUE(has(lines().at("systemd unit"), "note", "has no systemd"));
    struct Row {
        PlayedSystemd::Unit unit;
        std::string state, words, advice;
    };
    const std::vector<Row> rows = {
        {{}, "good", "is installed and active", ""},
        {{.activeState = "inactive"}, "good", "is installed and inactive", ""},
        {{.fileState = ""}, "warning", "is not installed", "systemctl --user daemon-reload"},
        {{.fileState = "masked"}, "warning", "is masked", "systemctl --user unmask tarnwell"},
        {{.activeState = "failed", .result = "core-dump"}, "warning", "has failed (core-dump)", "journalctl --user -u"},
    };
    for (const Row& row : rows) {
        const PlayedSystemd systemd(bus_.address(), row.unit);
        EXPECT_TRUE(has(lines().at("systemd unit"), row.state, row.words, row.advice));
    }
}

}  // namespace
}  // namespace tarnwell::service
