#include "bus/server/Unread.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>

#include <array>
#include <cerrno>
#include <functional>
#include <optional>
#include <string>

namespace tarnwell::bus {
namespace {

/// A bus that the test plays, and a connection to it.
class PlayedBus {
public:
    using Answer = std::function<int(sd_bus_message* call, const std::string& method)>;
    explicit PlayedBus(Answer answer) : answer_(std::move(answer)) {
        std::array<int, 2> pair{};
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair.data()), 0);
        sd_id128_t identity{};
        EXPECT_GE(sd_id128_randomize(&identity), 0);
        for (std::size_t i = 0; i < 2; ++i) {
            EXPECT_GE(sd_bus_new(&ends_[i]), 0);
            EXPECT_GE(sd_bus_set_fd(ends_[i], pair[i], pair[i]), 0);
        }
        EXPECT_GE(sd_bus_set_server(ends_[1], 1, identity), 0);
        EXPECT_GE(sd_bus_add_filter(ends_[1], nullptr, called, this), 0);
        for (sd_bus* end : ends_) EXPECT_GE(sd_bus_start(end), 0);
    }
    ~PlayedBus() {
        for (sd_bus* end : ends_) sd_bus_close_unref(end);
    }
    PlayedBus(const PlayedBus&) = delete;
    PlayedBus& operator=(const PlayedBus&) = delete;

    Result<Unread> unreadOf(const std::string& name) {
        std::optional<Result<Unread>> told;
        askForUnread(ends_[0], name, [&](Result<Unread> unread) {
            EXPECT_FALSE(told) << "told twice";
            told = std::move(unread);
        });
        for (int i = 0; i < 1000 && !told; ++i) {
            for (sd_bus* end : ends_) {
                while (sd_bus_process(end, nullptr) > 0) continue;
            }
        }
        return told ? std::move(*told) : failure(posixError(ETIME, "nobody was told"));
    }

private:
    static int called(sd_bus_message* call, void* data, sd_bus_error*) {
        const char* member = sd_bus_message_get_member(call);
        if (member == nullptr || !sd_bus_message_is_method_call(call, "org.freedesktop.DBus.Debug.Stats", member))
            return 0;
        return static_cast<PlayedBus*>(data)->answer_(call, member);
    }
    Answer answer_;
    std::array<sd_bus*, 2> ends_{};
};

int fail(sd_bus_message* call, const char* error) { return sd_bus_reply_method_errorf(call, error, "not here"); }

void appendPeer(sd_bus_message* reply, const char* name, std::uint32_t bytes, std::uint32_t descriptors) {
    ASSERT_GE(sd_bus_message_append(reply, "(sa{sv}a{su})", name, 2, "UnixUserID", "u", 1000U, "UnixGroupIDs", "au", 1,
                                    1000U, 4, "NameObjects", 1U, "OutgoingBytes", bytes, "IncomingBytes", 99U,
                                    "OutgoingFds", descriptors),
              0);
}

/// As dbus-broker 33 answers.
int answerAsBroker(sd_bus_message* call, const std::string& method) {
    if (method == "GetConnectionStats") return fail(call, SD_BUS_ERROR_FAILED);
    sd_bus_message* reply = nullptr;
    EXPECT_GE(sd_bus_message_new_method_return(call, &reply), 0);
    sd_bus_message_open_container(reply, 'a', "{sv}");
    sd_bus_message_append(reply, "{sv}", "Serial", "u", 7U);
    sd_bus_message_open_container(reply, 'e', "sv");
    sd_bus_message_append(reply, "s", "org.bus1.DBus.Debug.Stats.PeerAccounting");
    sd_bus_message_open_container(reply, 'v', "a(sa{sv}a{su})");
    sd_bus_message_open_container(reply, 'a', "(sa{sv}a{su})");
    appendPeer(reply, ":1.1", 11, 1);
    appendPeer(reply, ":1.2", 5'000'000, 33);
    appendPeer(reply, ":1.22", 22, 2);
    for (int i = 0; i < 4; ++i) sd_bus_message_close_container(reply);
    EXPECT_GE(sd_bus_send(nullptr, reply, nullptr), 0);
    sd_bus_message_unref(reply);
    return 1;
}

TEST(UnreadQuestion, IsAnsweredByTheReferenceBus) {
    PlayedBus bus([](sd_bus_message* call, const std::string& method) {
        const char* name = nullptr;
        if (method != "GetConnectionStats" || sd_bus_message_read(call, "s", &name) < 0) {
            return fail(call, SD_BUS_ERROR_FAILED);
        }
        EXPECT_STREQ(name, ":1.2");
        return sd_bus_reply_method_return(call, "a{sv}", 3, "IncomingBytes", "u", 1U, "OutgoingBytes", "u", 77U,
                                          "OutgoingFDs", "u", 3U);
    });
    const auto unread = bus.unreadOf(":1.2");
    ASSERT_TRUE(unread) << describe(unread.error());
    EXPECT_EQ(unread->bytes, 77U);
    EXPECT_EQ(unread->descriptors, 3U);
}

TEST(UnreadQuestion, IsAnsweredByDbusBrokerAmongAllConnections) {
    PlayedBus bus(answerAsBroker);
    const auto unread = bus.unreadOf(":1.2");
    ASSERT_TRUE(unread) << describe(unread.error());
    EXPECT_EQ(unread->bytes, 5'000'000U);
    EXPECT_EQ(unread->descriptors, 33U);
    const auto last = bus.unreadOf(":1.22");
    ASSERT_TRUE(last);
    EXPECT_EQ(last->bytes, 22U);
    // One that has just gone says nothing of the bus.
    const auto gone = bus.unreadOf(":1.3");
    ASSERT_FALSE(gone);
    EXPECT_TRUE(gone.error().is(ErrorDomain::posix, EAGAIN)) << describe(gone.error());
}

TEST(UnreadQuestion, ABusWithoutNumbersCannotTell) {
    for (const char* error : {SD_BUS_ERROR_UNKNOWN_METHOD, SD_BUS_ERROR_ACCESS_DENIED, SD_BUS_ERROR_FAILED}) {
        PlayedBus bus([error](sd_bus_message* call, const std::string&) { return fail(call, error); });
        const auto unread = bus.unreadOf(":1.2");
        ASSERT_FALSE(unread);
        EXPECT_TRUE(unread.error().is(ErrorDomain::posix, ENOTSUP)) << error << " " << describe(unread.error());
    }
    // Other numbers than ours.
    PlayedBus others([](sd_bus_message* call, const std::string& method) {
        if (method == "GetConnectionStats") return fail(call, SD_BUS_ERROR_FAILED);
        return sd_bus_reply_method_return(call, "a{sv}", 1, "org.bus1.DBus.Debug.Stats.PeerAccounting", "s", "none");
    });
    const auto unread = others.unreadOf(":1.2");
    ASSERT_FALSE(unread);
    EXPECT_TRUE(unread.error().is(ErrorDomain::posix, ENOTSUP)) << describe(unread.error());
    // It is under way, or too much at once: another time.
    PlayedBus busy([](sd_bus_message* call, const std::string&) { return fail(call, SD_BUS_ERROR_LIMITS_EXCEEDED); });
    const auto later = busy.unreadOf(":1.2");
    ASSERT_FALSE(later);
    EXPECT_TRUE(later.error().is(ErrorDomain::posix, EAGAIN)) << describe(later.error());
}

}  // namespace
}  // namespace tarnwell::bus
