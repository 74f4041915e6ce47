#include <fcntl.h>
#include <systemd/sd-bus.h>

#include <cerrno>
#include <filesystem>

#include "tests/bus/RawClient.h"

/// What clients may make the server hold: of their requests, of what they attach to them, and of what they do not read.
namespace tarnwell::bus {
namespace {

std::size_t ownDescriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

class LimitsTest : public ServerTest {
protected:
    static sd_bus_message* items(const RawClient& client, std::size_t count, const std::string& identifier) {
        sd_bus_message* call = client.newCall("Items");
        sd_bus_message_open_container(call, 'a', "s");
        for (std::size_t i = 0; i < count; ++i) sd_bus_message_append_basic(call, 's', identifier.c_str());
        sd_bus_message_close_container(call);
        return call;
    }

    /// A search with an option that is not known.
    template <typename Append>
    static sd_bus_message* search(const RawClient& client, const Append& appendOptions) {
        sd_bus_message* call = client.newCall("Search");
        sd_bus_message_append_array(call, 'y', "x", 1);
        sd_bus_message_open_container(call, 'a', "{sv}");
        appendOptions(call);
        sd_bus_message_close_container(call);
        sd_bus_message_append(call, "t", UINT64_C(5));
        return call;
    }
};

TEST_F(LimitsTest, ARequestHasALargestSize) {
    const RawClient client(bus_->address());
    const std::string longest(kLongestText, 'x');
    EXPECT_EQ(client.call(items(client, kLargestRequest / kLongestText - 1, longest)), "");
    EXPECT_EQ(client.call(items(client, kLargestRequest / kLongestText, longest)), "org.tarnwell.Error.LimitsExceeded");
}

TEST_F(LimitsTest, RequestsThatWaitHoldSoMuch) {
    std::atomic<bool> isHeld = true;
    session_->onRequest = [&](const std::string&) {
        while (isHeld) ::usleep(1000);
    };
    const RawClient client(bus_->address());
    // Four of them are as much as a client may have.
    for (int i = 0; i < 4; ++i) client.send(items(client, 60, std::string(kLongestText, 'x')));
    EXPECT_TRUE(soon([&] { return server_->counts().requests == 4; }));
    EXPECT_EQ(client.call(items(client, 60, std::string(kLongestText, 'x'))), "org.tarnwell.Error.LimitsExceeded");
    isHeld = false;
    EXPECT_TRUE(soon([&] { return server_->counts().requests == 0; }));
    EXPECT_EQ(client.call(items(client, 60, std::string(kLongestText, 'x'))), "");
}

TEST_F(LimitsTest, WhatNobodyKnowsIsPassedOverWithinBounds) {
    const RawClient client(bus_->address());
    const std::string large(1 << 20, 'x');
    EXPECT_EQ(client.call(search(client,
                                 [&](sd_bus_message* call) {
                                     sd_bus_message_open_container(call, 'e', "sv");
                                     sd_bus_message_append(call, "s", "unheardOf");
                                     sd_bus_message_open_container(call, 'v', "ay");
                                     sd_bus_message_append_array(call, 'y', large.data(), large.size());
                                     sd_bus_message_close_container(call);
                                     sd_bus_message_close_container(call);
                                 })),
              "");
    EXPECT_EQ(client.call(search(client,
                                 [](sd_bus_message* call) {
                                     for (int i = 0; i < 100'000; ++i) {
                                         sd_bus_message_append(call, "{sv}", "unheardOf", "v", "v", "u", 7U);
                                     }
                                 })),
              "org.tarnwell.Error.LimitsExceeded");
}

TEST_F(LimitsTest, RequestsThatWaitHoldNoDescriptors) {
    std::atomic<bool> isHeld = true;
    session_->onRequest = [&](const std::string&) {
        while (isHeld) ::usleep(1000);
    };
    const RawClient client(bus_->address());
    EXPECT_TRUE(soon([&] { return server_->counts().clients == 0; }));
    const std::size_t before = ownDescriptors();
    const Descriptor null(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    for (int i = 0; i < 40; ++i) {
        client.send(search(client, [&](sd_bus_message* call) {
            for (int j = 0; j < 10; ++j) sd_bus_message_append(call, "{sv}", "unheardOf", "h", null.get());
        }));
    }
    EXPECT_TRUE(soon([&] { return server_->counts().requests == 40; }));
    EXPECT_LT(ownDescriptors(), before + 20);
    isHeld = false;
    EXPECT_TRUE(soon([&] { return server_->counts().requests == 0; }));
}

TEST_F(LimitsTest, AnErrorThatQuotesAnyBytesIsTold) {
    session_->anchor = failure(posixError(EINVAL, std::string("\xff is no text\0 at all", 21)));
    const RawClient client(bus_->address());
    EXPECT_EQ(client.anchor("root"), "org.tarnwell.Error.Posix.EINVAL");
}

TEST_F(LimitsTest, OneCallWaitsForTheResultOfAJob) {
    std::atomic<bool> isHeld = true;
    session_->onRequest = [&](const std::string& name) {
        while (isHeld && name == "trash") ::usleep(1000);
    };
    const RawClient client(bus_->address());
    const std::string path = client.startedJob();
    client.send(client.newCall("Result", kJobInterface, path.c_str()));
    EXPECT_EQ(client.call(client.newCall("Result", kJobInterface, path.c_str())), "org.tarnwell.Error.LimitsExceeded");
    isHeld = false;
    EXPECT_TRUE(soon([&] { return server_->counts().jobs == 0; }));
}

TEST_F(LimitsTest, WhatAClientThatWentWantedToSeeIsNotLookedFor) {
    std::atomic<bool> isHeld = true;
    session_->onRequest = [&](const std::string&) {
        while (isHeld) ::usleep(1000);
    };
    {
        const RawClient client(bus_->address());
        for (int i = 0; i < 5; ++i) {
            sd_bus_message* call = client.newCall("CurrentAnchor");
            sd_bus_message_append(call, "s", "root");
            client.send(call);
        }
        sd_bus_message* call = client.newCall("MakeFolder");
        sd_bus_message_append_array(call, 'y', "new", 3);
        sd_bus_message_append(call, "s", "did=1");
        client.send(call);
        EXPECT_TRUE(soon([&] { return server_->counts().requests == 6 && session_->requests().size() == 1; }));
    }
    EXPECT_TRUE(soon([&] { return server_->counts().clients == 0; }));
    isHeld = false;
    EXPECT_TRUE(soon([&] { return server_->counts().requests == 0; }));
    // The one that was under way, and what was to be done.
    EXPECT_EQ(session_->requests(), (std::vector<std::string>{"currentAnchor root", "makeFolder new did=1"}));
}

/// Pages of half a MiB, and a client that asks for forty of them.
class UnreadTest : public LimitsTest {
protected:
    static constexpr std::size_t kPages = 40;

    void SetUp() override {
        session::Item item;
        item.identifier = "did=1";
        item.filename = std::string(kLongestText - 1, 'x');
        session_->page = session::Page{std::vector<session::Item>(8, item), std::nullopt};
    }
    static void askWithoutReading(const RawClient& client, std::size_t& answered) {
        for (std::size_t i = 0; i < kPages; ++i) {
            sd_bus_message* call = client.newCall("Enumerate");
            sd_bus_message_append(call, "s", "root");
            sd_bus_message_append_array(call, 'y', nullptr, 0);
            const auto count = [](sd_bus_message* reply, void* data, sd_bus_error*) {
                EXPECT_EQ(sd_bus_message_get_error(reply), nullptr);
                ++*static_cast<std::size_t*>(data);
                return 0;
            };
            EXPECT_GE(sd_bus_call_async(client.get(), nullptr, call, count, &answered, 0), 0);
            sd_bus_message_unref(call);
        }
        EXPECT_GE(sd_bus_flush(client.get()), 0);
    }
    static bool readAll(const RawClient& client, const std::size_t& answered) {
        return soon([&] {
            while (sd_bus_process(client.get(), nullptr) > 0) {
            }
            return answered == kPages;
        });
    }
};

TEST_F(UnreadTest, WhoIsBehindIsServedAgainWhenItHasRead) {
    startServer({});
    const RawClient client(bus_->address());
    std::size_t answered = 0;
    askWithoutReading(client, answered);
    // Some lie in the client's socket, some in the bus; after that nothing more is asked of the session.
    EXPECT_TRUE(soon([&] { return session_->requests().size() >= 8; }));
    ::usleep(300'000);
    EXPECT_LT(session_->requests().size(), 30U);
    const RawClient other(bus_->address());
    EXPECT_EQ(other.call(other.newCall("Info")), "");
    EXPECT_EQ(answered, 0U);
    EXPECT_TRUE(readAll(client, answered)) << answered;
}

TEST_F(UnreadTest, WhereTheBusWithholdsItsNumbersNobodyWaits) {
    const testing::PrivateBus secretive(testing::PrivateBus::Statistics::withheld);
    Server::Options options;
    options.busAddress = secretive.address();
    auto server = Server::start(
        std::move(options), [this](const Peer&) -> Result<std::shared_ptr<session::Session>> { return session_; },
        log_);
    ASSERT_TRUE(server) << describe(server.error());
    const RawClient client(secretive.address());
    std::size_t answered = 0;
    askWithoutReading(client, answered);
    EXPECT_TRUE(soon([&] { return session_->requests().size() == kPages; }));
    EXPECT_TRUE(readAll(client, answered)) << answered;
}

}  // namespace
}  // namespace tarnwell::bus
