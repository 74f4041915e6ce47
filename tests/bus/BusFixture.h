#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>

#include "bus/client/BusSession.h"
#include "bus/server/Server.h"
#include "testing/CapturingLog.h"
#include "testing/PrivateBus.h"
#include "testing/ScriptedSession.h"

namespace tarnwell::bus {

/// A server on a bus of its own whose clients all have the same scripted session, and one client.
class BusTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { bus_ = new testing::PrivateBus; }
    static void TearDownTestSuite() {
        delete bus_;
        bus_ = nullptr;
    }

    void SetUp() override {
        startServer({});
        client_ = connect();
    }
    void TearDown() override {
        client_.reset();
        server_.reset();
    }

    void startServer(const ClientLimits& limits) {
        server_.reset();
        Server::Options options;
        options.busAddress = bus_->address();
        options.programVersion = "1.2.3";
        options.storageRoot = "/home/p/Docu\xffments";
        options.stateDirectory = "/home/p/state";
        options.limits = limits;
        options.clients = mostClients_;
        auto server = Server::start(
            std::move(options),
            [this](const Peer& peer) -> Result<std::shared_ptr<session::Session>> {
                {
                    const std::lock_guard lock(mutex_);
                    peers_.push_back(peer);
                }
                if (refusal_) return failure(*refusal_);
                return session_;
            },
            log_);
        ASSERT_TRUE(server) << describe(server.error());
        server_ = std::move(*server);
    }

    std::unique_ptr<BusSession> connect(BusSession::Form form = BusSession::Form::packed) const {
        auto client = BusSession::connect(BusSession::Start::never, bus_->address(), form);
        EXPECT_TRUE(client) << describe(client.error());
        return client ? std::move(*client) : nullptr;
    }

    /// Waits until it holds, ten seconds at most.
    template <typename Condition>
    static bool soon(Condition condition) {
        for (int i = 0; i < 1000; ++i) {
            if (condition()) return true;
            ::usleep(10'000);
        }
        return condition();
    }

    static testing::PrivateBus* bus_;
    testing::CapturingLog log_;
    std::shared_ptr<testing::ScriptedSession> session_ = std::make_shared<testing::ScriptedSession>();
    std::mutex mutex_;
    std::vector<Peer> peers_;
    std::optional<Error> refusal_;
    std::size_t mostClients_ = 4096;
    std::unique_ptr<Server> server_;
    std::unique_ptr<BusSession> client_;
};

inline testing::PrivateBus* BusTest::bus_ = nullptr;

}  // namespace tarnwell::bus
