#include <signal.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>

#include <cerrno>
#include <chrono>
#include <random>
#include <set>
#include <thread>

#include "bus/wire/Names.h"
#include "tests/bus/RawClient.h"

/// What a server does with clients that ask too much, the wrong things, or nothing any more.
namespace tarnwell::bus {
namespace {

TEST_F(ServerTest, IsToldWhoAsksOnce) {
    const RawClient client(bus_->address());
    EXPECT_EQ(client.anchor("root"), "");
    EXPECT_EQ(client.anchor("root"), "");
    ASSERT_EQ(peers_.size(), 1U);
    EXPECT_EQ(peers_[0].name, client.name());
    EXPECT_EQ(peers_[0].pid, ::getpid());
    EXPECT_EQ(peers_[0].uid, ::getuid());
}

TEST_F(ServerTest, WhoIsRefusedGetsNothing) {
    refusal_ = posixError(EACCES, "it cannot be told who asks");
    const RawClient client(bus_->address());
    EXPECT_EQ(client.anchor("root"), "org.tarnwell.Error.AccessDenied");
    EXPECT_EQ(client.anchor("root"), "org.tarnwell.Error.AccessDenied");
    sd_bus_message* trash = client.newCall("Trash");
    sd_bus_message_append(trash, "as", 1, "did=1");
    EXPECT_EQ(client.call(trash), "org.tarnwell.Error.AccessDenied");
    sd_bus_message* watch = client.newCall("Watch");
    sd_bus_message_append(watch, "s", "root");
    EXPECT_EQ(client.call(watch), "org.tarnwell.Error.AccessDenied");
    EXPECT_EQ(client.call(client.newCall("Info")), "org.tarnwell.Error.AccessDenied");
    EXPECT_TRUE(session_->requests().empty());
    EXPECT_EQ(server_->counts().jobs, 0U);
    EXPECT_EQ(peers_.size(), 1U);
    // The first thing that it asks may be a job.
    const RawClient other(bus_->address());
    trash = other.newCall("Trash");
    sd_bus_message_append(trash, "as", 1, "did=1");
    EXPECT_EQ(other.call(trash), "org.tarnwell.Error.AccessDenied");
    EXPECT_EQ(server_->counts().jobs, 0U);
    EXPECT_TRUE(session_->requests().empty());
}

TEST_F(ServerTest, OnlyOneProcessIsTheService) {
    Server::Options options;
    options.busAddress = bus_->address();
    const auto second =
        Server::start(std::move(options), [](const Peer&) { return failure(posixError(EACCES)); }, log_);
    ASSERT_FALSE(second);
    EXPECT_TRUE(second.error().is(ErrorDomain::posix, EEXIST));
}

TEST_F(ServerTest, WithoutABusItSaysSo) {
    Server::Options options;
    options.busAddress = "unix:path=/nonexistent/socket";
    const auto server =
        Server::start(std::move(options), [](const Peer&) { return failure(posixError(EACCES)); }, log_);
    ASSERT_FALSE(server);
    EXPECT_NE(describe(server.error()).find("no session bus"), std::string::npos);
}

TEST_F(ServerTest, MalformedArgumentsAreRefusedBeforeTheSession) {
    const RawClient client(bus_->address());
    sd_bus_message* wrong = client.newCall("CurrentAnchor");
    sd_bus_message_append(wrong, "u", 7U);
    EXPECT_EQ(client.call(wrong), "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(client.call(client.newCall("CurrentAnchor")), "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(client.call(client.newCall("NoSuchMethod")), "org.freedesktop.DBus.Error.UnknownMethod");
    // Two values where at most one may be.
    sd_bus_message* rank = client.newCall("SetFavoriteRank");
    sd_bus_message_append(rank, "sat", "did=1", 2, UINT64_C(1), UINT64_C(2));
    EXPECT_EQ(client.call(rank), "org.freedesktop.DBus.Error.InvalidArgs");
    sd_bus_message* move = client.newCall("Move");
    sd_bus_message_append(move, "ass", 2, "a", "b", "p");
    sd_bus_message_append(move, "aay", 1, 1, 'n');
    EXPECT_EQ(client.call(move), "org.freedesktop.DBus.Error.InvalidArgs");
    // An option of another type than it has.
    sd_bus_message* search = client.newCall("Search");
    sd_bus_message_append_array(search, 'y', "x", 1);
    sd_bus_message_append(search, "a{sv}t", 2, "below", "t", UINT64_C(1), "unheardOf", "(ss)", "a", "b", UINT64_C(5));
    EXPECT_EQ(client.call(search), "");
    EXPECT_EQ(session_->requests(), std::vector<std::string>{"search x [] [] none relevance untrashed 5"});
}

TEST_F(ServerTest, TooMuchAtOnceIsRefused) {
    const RawClient client(bus_->address());
    const auto items = [&](std::size_t count, const std::string& identifier) {
        sd_bus_message* call = client.newCall("Items");
        sd_bus_message_open_container(call, 'a', "s");
        for (std::size_t i = 0; i < count; ++i) sd_bus_message_append_basic(call, 's', identifier.c_str());
        sd_bus_message_close_container(call);
        return client.call(call);
    };
    EXPECT_EQ(items(kMostPerRequest, "did=1"), "");
    EXPECT_EQ(items(kMostPerRequest + 1, "did=1"), "org.tarnwell.Error.LimitsExceeded");
    EXPECT_EQ(items(1, std::string(kLongestText, 'x')), "");
    EXPECT_EQ(items(1, std::string(kLongestText + 1, 'x')), "org.tarnwell.Error.LimitsExceeded");
    sd_bus_message* changes = client.newCall("Changes");
    sd_bus_message_append(changes, "s", "root");
    const std::string anchor(kLongestText + 1, 'a');
    sd_bus_message_append_array(changes, 'y', anchor.data(), anchor.size());
    EXPECT_EQ(client.call(changes), "org.tarnwell.Error.LimitsExceeded");
    EXPECT_EQ(session_->requests().size(), 2U);
}

TEST_F(ServerTest, AClientMayHaveSoManyRequestsAndWatchesAndJobs) {
    restart({.requests = 4, .jobs = 2, .watches = 3});
    std::atomic<bool> isHeld = true;
    session_->onRequest = [&](const std::string& name) {
        while (isHeld && (name == "currentAnchor" || name == "trash")) ::usleep(1000);
    };
    const RawClient client(bus_->address());
    for (int i = 0; i < 3; ++i) {
        sd_bus_message* watch = client.newCall("Watch");
        sd_bus_message_append(watch, "s", ("#" + std::to_string(i)).c_str());
        EXPECT_EQ(client.call(watch), "");
    }
    sd_bus_message* watch = client.newCall("Watch");
    sd_bus_message_append(watch, "s", "#4");
    EXPECT_EQ(client.call(watch), "org.tarnwell.Error.LimitsExceeded");
    // One that is watched already costs nothing.
    watch = client.newCall("Watch");
    sd_bus_message_append(watch, "s", "#0");
    EXPECT_EQ(client.call(watch), "");

    const auto trash = [&](sd_bus_message** answer) {
        sd_bus_message* call = client.newCall("Trash");
        sd_bus_message_append(call, "as", 1, "did=1");
        return client.call(call, answer);
    };
    sd_bus_message* firstJob = nullptr;
    EXPECT_EQ(trash(&firstJob), "");
    EXPECT_EQ(trash(nullptr), "");
    EXPECT_EQ(trash(nullptr), "org.tarnwell.Error.LimitsExceeded");

    for (int i = 0; i < 4; ++i) {
        sd_bus_message* call = client.newCall("CurrentAnchor");
        sd_bus_message_append(call, "s", "root");
        client.send(call);
    }
    EXPECT_TRUE(soon([&] { return server_->counts().requests == 4; }));
    EXPECT_EQ(client.anchor("root"), "org.tarnwell.Error.LimitsExceeded");
    // Another client is not hurt.
    const RawClient other(bus_->address());
    EXPECT_EQ(other.call(other.newCall("Info")), "");
    isHeld = false;
    EXPECT_TRUE(soon([&] { return server_->counts().requests == 0; }));
    EXPECT_EQ(client.anchor("root"), "");

    // A job whose result was fetched makes room.
    const char* path = nullptr;
    ASSERT_GE(sd_bus_message_read(firstJob, "o", &path), 0);
    EXPECT_EQ(client.call(client.newCall("Result", kJobInterface, path)), "");
    EXPECT_EQ(client.call(client.newCall("Result", kJobInterface, path)), "org.freedesktop.DBus.Error.UnknownObject");
    EXPECT_EQ(trash(nullptr), "");
    sd_bus_message_unref(firstJob);
    server_.reset();  // that job asks whether it is held
}

TEST_F(ServerTest, AJobBelongsToWhoStartedIt) {
    std::atomic<bool> isHeld = true;
    session_->onRequest = [&](const std::string& name) {
        while (isHeld && name == "trash") ::usleep(1000);
    };
    const RawClient owner(bus_->address()), other(bus_->address());
    const std::string path = owner.startedJob();
    EXPECT_EQ(other.call(other.newCall("Info")), "");
    EXPECT_EQ(other.call(other.newCall("Cancel", kJobInterface, path.c_str())),
              "org.freedesktop.DBus.Error.UnknownObject");
    EXPECT_EQ(other.call(other.newCall("Result", kJobInterface, path.c_str())),
              "org.freedesktop.DBus.Error.UnknownObject");
    EXPECT_EQ(owner.call(owner.newCall("Cancel", kJobInterface, path.c_str())), "");
    isHeld = false;
    EXPECT_EQ(owner.call(owner.newCall("Result", kJobInterface, path.c_str())), "");
}

TEST_F(ServerTest, AClientThatGoesLeavesNothing) {
    std::atomic<bool> isHeld = true;
    {
        const RawClient client(bus_->address());
        sd_bus_message* watch = client.newCall("Watch");
        sd_bus_message_append(watch, "s", "root");
        EXPECT_EQ(client.call(watch), "");
        EXPECT_EQ(session_->watches(), 1U);
        session_->onRequest = [&](const std::string&) {
            while (isHeld) ::usleep(1000);
        };
        sd_bus_message* call = client.newCall("Trash");
        sd_bus_message_append(call, "as", 1, "did=1");
        EXPECT_EQ(client.call(call), "");
        for (int i = 0; i < 20; ++i) {
            sd_bus_message* anchor = client.newCall("CurrentAnchor");
            sd_bus_message_append(anchor, "s", "root");
            client.send(anchor);
        }
        EXPECT_TRUE(soon([&] { return server_->counts().requests == 20; }));
        EXPECT_EQ(server_->counts().jobs, 1U);
    }
    EXPECT_TRUE(soon([&] { return server_->counts().clients == 0; }));
    isHeld = false;
    EXPECT_TRUE(soon([&] {
        const auto counts = server_->counts();
        return counts.requests == 0 && counts.jobs == 0 && counts.watches == 0;
    }));
    EXPECT_TRUE(soon([&] { return session_->watches() == 0; }));
    // The session is held by the test alone.
    EXPECT_TRUE(soon([&] { return session_.use_count() == 1; }));
}

TEST_F(ServerTest, AClientThatGoesBeforeItIsKnownLeavesNothing) {
    for (int i = 0; i < 10; ++i) {
        // Nobody is let in as long as it is held.
        const std::lock_guard lock(mutex_);
        const RawClient client(bus_->address());
        for (int j = 0; j < 5; ++j) client.send(client.newCall("Info"));
        EXPECT_TRUE(soon([&] { return server_->counts().requests == 5; }));
    }
    EXPECT_TRUE(soon([&] { return server_->counts().clients == 0; }));
    EXPECT_TRUE(soon([&] { return server_->counts().requests == 0; }));
}

TEST_F(ServerTest, OneClientAtATimeBeyondTheMost) {
    mostClients_ = 2;
    restart({});
    const RawClient one(bus_->address()), two(bus_->address());
    EXPECT_EQ(one.anchor("root"), "");
    {
        const RawClient third(bus_->address());
        EXPECT_EQ(two.anchor("root"), "");
        EXPECT_EQ(third.anchor("root"), "org.tarnwell.Error.LimitsExceeded");
    }
    EXPECT_EQ(one.anchor("root"), "");
}

TEST_F(ServerTest, SignalsDoNotPileUpForAClientThatReadsNothing) {
    const RawClient client(bus_->address());
    sd_bus_message* watch = client.newCall("Watch");
    sd_bus_message_append(watch, "s", "root");
    ASSERT_EQ(client.call(watch), "");
    for (int i = 0; i < 10'000; ++i) session_->change("root");
    // Whatever was sent to it before the answer comes before the answer.
    EXPECT_EQ(client.call(client.newCall("Info")), "");
    int signals = 0;
    sd_bus_message* message = nullptr;
    while (sd_bus_process(client.get(), &message) > 0) {
        if (message != nullptr && sd_bus_message_is_signal(message, kInterface, "ContainerChanged") > 0) ++signals;
        message = sd_bus_message_unref(message);
    }
    EXPECT_EQ(signals, 1);
}

TEST_F(ServerTest, RequestsOfOneClientAreAnsweredInTheirOrder) {
    const RawClient client(bus_->address());
    for (int i = 0; i < 50; ++i) {
        sd_bus_message* call = client.newCall("CurrentAnchor");
        sd_bus_message_append(call, "s", ("#" + std::to_string(i)).c_str());
        client.send(call);
    }
    EXPECT_EQ(client.anchor("last"), "");
    const auto requests = session_->requests();
    ASSERT_EQ(requests.size(), 51U);
    for (int i = 0; i < 50; ++i) EXPECT_EQ(requests[i], "currentAnchor #" + std::to_string(i));
}

TEST_F(ServerTest, ManyWhoAskForLongThingsDoNotKeepAnother) {
    // Each of twenty clients has a request that takes long, and more behind it.
    session_->onRequest = [](const std::string& name) {
        if (name == "refresh") ::usleep(20'000);
    };
    std::vector<std::unique_ptr<RawClient>> busy;
    for (int i = 0; i < 20; ++i) {
        busy.push_back(std::make_unique<RawClient>(bus_->address()));
        for (int j = 0; j < 30; ++j) busy.back()->send(busy.back()->newCall("Refresh"));
    }
    EXPECT_TRUE(soon([&] { return server_->counts().requests > 100; }));
    const RawClient client(bus_->address());
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(client.anchor("root"), "");
    const auto took = std::chrono::steady_clock::now() - begin;
    // Its turn comes after one request of each: twenty of 20 ms on eight threads, and the same again for being known.
    EXPECT_LT(took, std::chrono::milliseconds(400));
    EXPECT_GT(server_->counts().requests, 50U);
}

TEST_F(ServerTest, ItEndsWithWhatIsUnderWayAnswered) {
    const RawClient client(bus_->address());
    EXPECT_EQ(client.anchor("root"), "");
    std::atomic<bool> isRunning = false;
    session_->onRequest = [&](const std::string&) {
        isRunning = true;
        ::usleep(200'000);
    };
    std::thread ending([&] {
        EXPECT_TRUE(soon([&] { return isRunning.load(); }));
        server_.reset();
    });
    EXPECT_EQ(client.anchor("root"), "");
    ending.join();
    EXPECT_EQ(client.anchor("root"), "org.freedesktop.DBus.Error.ServiceUnknown");
}

TEST_F(ServerTest, ItIsToldWhenTheBusEnds) {
    testing::PrivateBus bus;
    std::atomic<bool> hasEnded = false;
    Server::Options options;
    options.busAddress = bus.address();
    options.onDisconnect = [&] { hasEnded = true; };
    auto server = Server::start(std::move(options), [](const Peer&) { return failure(posixError(EACCES)); }, log_);
    ASSERT_TRUE(server);
    auto client = BusSession::connect(BusSession::Start::never, bus.address());
    bus.kill();
    EXPECT_TRUE(soon([&] { return hasEnded.load(); }));
    server->reset();
}

TEST_F(ServerTest, MessagesOfRandomTypesHurtNobody) {
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const std::vector<const char*> members = {
        "Item",   "Items", "Enumerate", "Changes", "Open",    "Import", "Move",   "SetTags", "CleanTrash", "Thumbnails",
        "Search", "Watch", "Unwatch",   "Status",  "Restore", "Result", "Cancel", "Info",    "Delete",     "Refresh"};
    const std::vector<const char*> signatures = {"s",      "as",  "ay",    "aay",  "a{sv}",  "t",
                                                 "x",      "b",   "(sss)", "aaas", "sb",     "h",
                                                 "aa{sv}", "say", "aays",  "g",    "assaay", "aya{sv}t"};
    const RawClient client(bus_->address());
    int answered = 0;
    for (int i = 0; i < 3000; ++i) {
        const bool isJob = random() % 10 == 0;
        sd_bus_message* call = client.newCall(members[random() % members.size()], isJob ? kJobInterface : kInterface,
                                              isJob ? "/org/tarnwell/Host1/jobs/1" : kObjectPath);
        for (auto parts = random() % 3; parts > 0; --parts) {
            const std::string signature = signatures[random() % signatures.size()];
            if (signature == "s") {
                sd_bus_message_append(call, "s", std::string(random() % 3000, 'x').c_str());
            } else if (signature == "as") {
                sd_bus_message_append(call, "as", 2, "did=1", "");
            } else if (signature == "t") {
                sd_bus_message_append(call, "t", std::uint64_t(random()));
            } else if (signature == "b") {
                sd_bus_message_append(call, "b", int(random() % 2));
            } else if (signature == "ay") {
                const std::string bytes(random() % 2000, '\xff');
                sd_bus_message_append_array(call, 'y', bytes.data(), bytes.size());
            } else if (signature == "h") {
                sd_bus_message_append(call, "h", 0);
            } else if (signature == "a{sv}") {
                sd_bus_message_append(call, "a{sv}", 1, "types", "a(ss)", 1, "a", "b");
            } else {
                // An empty array of whatever it is.
                if (signature[0] == 'a' && sd_bus_message_open_container(call, 'a', signature.substr(1).c_str()) >= 0) {
                    sd_bus_message_close_container(call);
                }
            }
        }
        sd_bus_message* reply = nullptr;
        sd_bus_error error = SD_BUS_ERROR_NULL;
        const int outcome = sd_bus_call(client.get(), call, 10'000'000, &error, &reply);
        ASSERT_NE(outcome, -ETIMEDOUT);
        answered += outcome >= 0 || error.name != nullptr ? 1 : 0;
        sd_bus_error_free(&error);
        sd_bus_message_unref(reply);
        sd_bus_message_unref(call);
    }
    EXPECT_EQ(answered, 3000);
    const RawClient other(bus_->address());
    EXPECT_EQ(other.anchor("root"), "");
}

}  // namespace
}  // namespace tarnwell::bus
