#include "tests/load/parts/RawConnection.h"

#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <memory>
#include <utility>

#include "bus/wire/Dictionary.h"
#include "bus/wire/Names.h"

namespace tarnwell::load {
namespace {

constexpr std::uint64_t kPatience = 60'000'000;  // microseconds

int answered(sd_bus_message* reply, void* data, sd_bus_error*) {
    const sd_bus_error* error = sd_bus_message_get_error(reply);
    (*static_cast<RawConnection::Answered*>(data))(error == nullptr ? "" : error->name, reply);
    return 0;
}

void forget(void* data) { delete static_cast<RawConnection::Answered*>(data); }

}  // namespace

RawConnection::RawConnection(const std::string& address) {
    EXPECT_GE(sd_bus_new(&bus_), 0);
    EXPECT_GE(sd_bus_set_address(bus_, address.c_str()), 0);
    EXPECT_GE(sd_bus_set_bus_client(bus_, 1), 0);
    EXPECT_GE(sd_bus_start(bus_), 0);
    // Connected when the bus has given it a name.
    EXPECT_NE(name(), "");
}

RawConnection::RawConnection(RawConnection&& other) noexcept : bus_(std::exchange(other.bus_, nullptr)) {}

RawConnection::~RawConnection() {
    if (bus_ != nullptr) sd_bus_close_unref(bus_);
}

std::string RawConnection::name() const {
    const char* name = nullptr;
    return sd_bus_get_unique_name(bus_, &name) < 0 ? "" : name;
}

sd_bus_message* RawConnection::newCall(const char* member) const {
    return newCall(member, bus::kInterface, bus::kObjectPath);
}

sd_bus_message* RawConnection::newCall(const char* member, const char* interface, const char* path) const {
    sd_bus_message* call = nullptr;
    EXPECT_GE(sd_bus_message_new_method_call(bus_, &call, bus::kServiceName, path, interface, member), 0);
    return call;
}

void RawConnection::send(sd_bus_message* call) const {
    // Without a place for its number it would say that it wants no answer.
    std::uint64_t number = 0;
    EXPECT_GE(sd_bus_send(bus_, call, &number), 0);
    sd_bus_message_unref(call);
    EXPECT_GE(sd_bus_flush(bus_), 0);
}

int RawConnection::ask(sd_bus_message* call, Answered answer) const {
    sd_bus_slot* slot = nullptr;
    auto kept = std::make_unique<Answered>(std::move(answer));
    const int outcome = sd_bus_call_async(bus_, &slot, call, answered, kept.get(), kPatience);
    sd_bus_message_unref(call);
    if (outcome < 0) return outcome;
    sd_bus_slot_set_destroy_callback(slot, forget);
    sd_bus_slot_set_floating(slot, 1);
    sd_bus_slot_unref(slot);
    (void)kept.release();
    return outcome;
}

bool RawConnection::read() const {
    int outcome = 0;
    while ((outcome = sd_bus_process(bus_, nullptr)) > 0) {
    }
    return outcome == 0;
}

std::string RawConnection::call(sd_bus_message* call) const {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    const int outcome = sd_bus_call(bus_, call, kPatience, &error, nullptr);
    sd_bus_message_unref(call);
    std::string name = outcome >= 0 ? "" : error.name == nullptr ? "none" : error.name;
    sd_bus_error_free(&error);
    return name;
}

pid_t RawConnection::processOf(const std::string& name) const {
    sd_bus_message* reply = nullptr;
    std::uint32_t process = 0;
    if (sd_bus_call_method(bus_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                           "GetConnectionUnixProcessID", nullptr, &reply, "s", name.c_str()) < 0) {
        return 0;
    }
    sd_bus_message_read(reply, "u", &process);
    sd_bus_message_unref(reply);
    return static_cast<pid_t>(process);
}

std::map<std::string, std::uint32_t> RawConnection::statisticsOf(const std::string& name) const {
    std::map<std::string, std::uint32_t> numbers;
    sd_bus_message* reply = nullptr;
    if (sd_bus_call_method(bus_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus.Debug.Stats",
                           "GetConnectionStats", nullptr, &reply, "s", name.c_str()) < 0) {
        return numbers;
    }
    bus::Reader reader(reply);
    bus::readDictionary(reader, [&](std::string_view key, std::string_view contents) {
        if (contents != "u") return false;
        numbers.emplace(key, reader.uint32());
        return true;
    });
    sd_bus_message_unref(reply);
    return numbers;
}

}  // namespace tarnwell::load
