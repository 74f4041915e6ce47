#pragma once

#include <systemd/sd-bus.h>

#include <string>

#include "bus/wire/Names.h"
#include "tests/bus/BusFixture.h"

namespace tarnwell::bus {

/// A connection that does what no well-behaved client does.
class RawClient {
public:
    explicit RawClient(const std::string& address) {
        EXPECT_GE(sd_bus_new(&bus_), 0);
        EXPECT_GE(sd_bus_set_address(bus_, address.c_str()), 0);
        EXPECT_GE(sd_bus_set_bus_client(bus_, 1), 0);
        EXPECT_GE(sd_bus_start(bus_), 0);
        // Connected when the bus has given it a name.
        const char* name = nullptr;
        EXPECT_GE(sd_bus_get_unique_name(bus_, &name), 0);
    }
    ~RawClient() { sd_bus_close_unref(bus_); }
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    sd_bus* get() const { return bus_; }

    sd_bus_message* newCall(const char* member, const char* interface = kInterface,
                            const char* path = kObjectPath) const {
        sd_bus_message* call = nullptr;
        EXPECT_GE(sd_bus_message_new_method_call(bus_, &call, kServiceName, path, interface, member), 0);
        return call;
    }

    /// The name of the error that the call ends with; "" for an answer, which it gives too.
    std::string call(sd_bus_message* call, sd_bus_message** answer = nullptr) const {
        sd_bus_error error = SD_BUS_ERROR_NULL;
        sd_bus_message* reply = nullptr;
        const int outcome = sd_bus_call(bus_, call, 10'000'000, &error, &reply);
        sd_bus_message_unref(call);
        const std::string name = outcome < 0 ? error.name : "";
        sd_bus_error_free(&error);
        if (answer != nullptr) {
            *answer = reply;
        } else {
            sd_bus_message_unref(reply);
        }
        return name;
    }

    /// Starts one that trashes something; its path.
    std::string startedJob() const {
        sd_bus_message* trash = newCall("Trash");
        sd_bus_message_append(trash, "as", 1, "did=1");
        sd_bus_message* answer = nullptr;
        EXPECT_EQ(call(trash, &answer), "");
        const char* path = "";
        EXPECT_GE(sd_bus_message_read(answer, "o", &path), 0);
        std::string started(path);
        sd_bus_message_unref(answer);
        return started;
    }

    std::string anchor(const char* container) const {
        sd_bus_message* message = newCall("CurrentAnchor");
        sd_bus_message_append(message, "s", container);
        return call(message);
    }

    /// Sends the call and does not wait.
    void send(sd_bus_message* call) const {
        EXPECT_GE(sd_bus_send(bus_, call, nullptr), 0);
        sd_bus_message_unref(call);
        EXPECT_GE(sd_bus_flush(bus_), 0);
    }

    std::string name() const {
        const char* name = nullptr;
        sd_bus_get_unique_name(bus_, &name);
        return name;
    }

private:
    sd_bus* bus_ = nullptr;
};

/// A server that is asked by such connections.
class ServerTest : public BusTest {
protected:
    void SetUp() override {
        session_->anchor = Bytes{1};
        startServer({});
    }
    void restart(const ClientLimits& limits) { startServer(limits); }
};

}  // namespace tarnwell::bus
