#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>

#include "bus/client/BusSession.h"
#include "service/Service.h"
#include "testing/CapturingLog.h"
#include "testing/PrivateBus.h"
#include "tour/SampleDevice.h"

namespace tarnwell::service {

/// The service on a sample device of its own, on a bus of its own, and one client.
class ServedDevice : public ::testing::Test {
protected:
    void SetUp() override {
        auto made = tour::makeSampleDevice(directory_.path("device"));
        ASSERT_TRUE(made) << describe(made.error());
        device_ = *made;
        start();
    }
    void TearDown() override {
        client_.reset();
        service_.reset();
    }

    Result<host::Settings> settings(const tour::EnvironmentChanges& further = {}) const {
        auto environment = device_.environment();
        for (const auto& [name, value] : further) environment[name] = value;
        return host::Settings::from(
            [&](const char* name) -> std::optional<std::string> {
                const auto found = environment.find(name);
                return found == environment.end() ? std::nullopt : found->second;
            },
            std::nullopt);
    }

    void start() {
        const auto given = settings();
        ASSERT_TRUE(given);
        auto service = Service::start({.settings = *given, .programVersion = "9", .busAddress = bus_.address()}, log_);
        ASSERT_TRUE(service) << describe(service.error());
        service_ = std::move(*service);
        client_ = connect();
    }

    std::unique_ptr<bus::BusSession> connect() const {
        auto client = bus::BusSession::connect(bus::BusSession::Start::never, bus_.address());
        EXPECT_TRUE(client) << describe(client.error());
        return client ? std::move(*client) : nullptr;
    }

    std::string idOf(const std::string& path) const {
        const auto found = client_->identifiersAtPaths({path}, session::PathUse::lookUp);
        EXPECT_TRUE(found.at(0)) << path;
        return found.at(0).value_or("");
    }
    std::string note(const std::string& name) const {
        return device_.root + "/home/.var/app/org.example.Notes/Documents/" + name;
    }
    std::string document(const std::string& name) const { return device_.root + "/home/Documents/" + name; }

    template <typename Condition>
    static bool soon(Condition condition) {
        for (int i = 0; i < 1000; ++i) {
            if (condition()) return true;
            ::usleep(10'000);
        }
        return condition();
    }

    testing::TemporaryDirectory directory_;
    testing::PrivateBus bus_;
    testing::CapturingLog log_;
    tour::SampleDevice device_;
    std::unique_ptr<Service> service_;
    std::unique_ptr<bus::BusSession> client_;
};

}  // namespace tarnwell::service
