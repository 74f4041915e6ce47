#include "bus/wire/StepwiseHandshake.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <memory>
#include <string>
#include <thread>

#include "platform/base/Descriptor.h"
#include "testing/PrivateBus.h"

namespace tarnwell::bus {
namespace {

struct Closer {
    void operator()(sd_bus* connection) const { sd_bus_flush_close_unref(connection); }
};
using Connection = std::unique_ptr<sd_bus, Closer>;

std::string pathOf(const testing::PrivateBus& bus) {
    const std::string path = bus.address().substr(std::string("unix:path=").size());
    return path.substr(0, path.find(','));
}

/// The proxy that Flatpak starts for a sandbox, between a bus and a socket of its own.
class Proxy {
public:
    explicit Proxy(const std::string& address) {
        std::array<int, 2> ready{};
        if (::pipe2(ready.data(), O_CLOEXEC) != 0) return;
        process_ = ::fork();
        if (process_ == 0) {
            // A test that crashes leaves no proxy.
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::dup2(ready[1], 9);
            ::execlp("xdg-dbus-proxy", "xdg-dbus-proxy", "--fd=9", address.c_str(), path().c_str(), nullptr);
            ::_exit(127);
        }
        ::close(ready[1]);
        char byte = 0;
        isThere_ = ::read(ready[0], &byte, 1) == 1;
        ready_ = Descriptor(ready[0]);
    }
    ~Proxy() {
        ready_ = Descriptor();  // it ends when nobody holds the other end
        ::kill(process_, SIGKILL);
        ::waitpid(process_, nullptr, 0);
    }
    Proxy(const Proxy&) = delete;
    Proxy& operator=(const Proxy&) = delete;
    bool isThere() const { return isThere_; }
    std::string path() const { return folder_.path("bus"); }

private:
    testing::TemporaryDirectory folder_;
    pid_t process_ = -1;
    Descriptor ready_;
    bool isThere_ = false;
};

/// Says one thing to each who connects, and closes.
class Talker {
public:
    explicit Talker(std::string said) : said_(std::move(said)), listening_(::socket(AF_UNIX, SOCK_STREAM, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path().copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(::bind(listening_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(::listen(listening_.get(), 1), 0);
        thread_ = std::thread([this] {
            const Descriptor client(::accept(listening_.get(), nullptr, nullptr));
            (void)::send(client.get(), said_.data(), said_.size(), MSG_NOSIGNAL);
            // What is not read would be a reset.
            ::shutdown(client.get(), SHUT_WR);
            std::array<char, 256> heard{};
            while (::read(client.get(), heard.data(), heard.size()) > 0) continue;
        });
    }
    ~Talker() { thread_.join(); }
    Talker(const Talker&) = delete;
    Talker& operator=(const Talker&) = delete;
    std::string path() const { return folder_.path("bus"); }

private:
    testing::TemporaryDirectory folder_;
    std::string said_;
    Descriptor listening_;
    std::thread thread_;
};

Connection opened(const std::string& path) {
    sd_bus* connection = nullptr;
    EXPECT_GE(openBusStepwise(path, &connection), 0);
    return Connection(connection);
}

int outcomeOf(const std::string& path) {
    sd_bus* connection = nullptr;
    const int outcome = openBusStepwise(path, &connection);
    const Connection owner(connection);
    return outcome;
}

/// Sends a descriptor to itself over the bus, and reads what is behind it.
void expectThatDescriptorsTravel(sd_bus* connection) {
    const char* name = nullptr;
    ASSERT_GE(sd_bus_get_unique_name(connection, &name), 0);
    const Descriptor file(::memfd_create("text", MFD_CLOEXEC));
    ASSERT_EQ(::pwrite(file.get(), "seven!!", 7, 0), 7);
    sd_bus_message* message = nullptr;
    ASSERT_GE(sd_bus_message_new_method_call(connection, &message, name, "/", "org.example.Test", "Take"), 0);
    ASSERT_GE(sd_bus_message_append(message, "h", file.get()), 0);
    ASSERT_GE(sd_bus_send(connection, message, nullptr), 0);
    sd_bus_message_unref(message);
    for (int i = 0; i < 1000; ++i) {
        sd_bus_message* got = nullptr;
        const int processed = sd_bus_process(connection, &got);
        ASSERT_GE(processed, 0);
        if (got != nullptr && sd_bus_message_is_method_call(got, "org.example.Test", "Take") > 0) {
            int number = -1;
            ASSERT_GE(sd_bus_message_read(got, "h", &number), 0);
            std::array<char, 8> text{};
            EXPECT_EQ(::pread(number, text.data(), text.size(), 0), 7);
            EXPECT_STREQ(text.data(), "seven!!");
            sd_bus_message_unref(got);
            return;
        }
        sd_bus_message_unref(got);
        if (processed == 0) sd_bus_wait(connection, 1'000'000);
    }
    FAIL() << "it does not come";
}

TEST(StepwiseHandshakeTest, ConnectsToABus) {
    const testing::PrivateBus bus;
    const Connection first = opened(pathOf(bus)), second = opened(pathOf(bus));
    const char *one = nullptr, *other = nullptr;
    ASSERT_GE(sd_bus_get_unique_name(first.get(), &one), 0);
    ASSERT_GE(sd_bus_get_unique_name(second.get(), &other), 0);
    EXPECT_STRNE(one, other);
    expectThatDescriptorsTravel(first.get());
    expectThatDescriptorsTravel(second.get());
}

TEST(StepwiseHandshakeTest, ConnectsThroughTheProxyOfFlatpak) {
    const testing::PrivateBus bus;
    const Proxy proxy(bus.address());
    if (!proxy.isThere()) GTEST_SKIP() << "xdg-dbus-proxy is not installed";
    const Connection connection = opened(proxy.path());
    expectThatDescriptorsTravel(connection.get());
}

TEST(StepwiseHandshakeTest, LeavesNoDescriptorBehind) {
    const testing::PrivateBus bus;
    const auto lowest = [] { return Descriptor(::open("/dev/null", O_RDONLY | O_CLOEXEC)).get(); };
    (void)opened(pathOf(bus));
    const int before = lowest();
    for (int i = 0; i < 3; ++i) {
        (void)opened(pathOf(bus));
        const Talker talker("REJECTED EXTERNAL\r\n");
        EXPECT_EQ(outcomeOf(talker.path()), -EPERM);
    }
    EXPECT_EQ(lowest(), before);
}

TEST(StepwiseHandshakeTest, RefusesWhatIsNoBus) {
    const testing::TemporaryDirectory folder;
    EXPECT_EQ(outcomeOf(folder.path("nothing")), -ENOENT);
    EXPECT_EQ(outcomeOf(std::string(108, 'x')), -ENAMETOOLONG);
    const std::string data = "DATA\r\n", agreed = data + "OK 0123456789abcdef0123456789abcdef\r\n";
    struct Row {
        std::string said;
        int outcome;
    };
    for (const Row& row : {Row{"", -ECONNRESET}, Row{"DATA", -ECONNRESET}, Row{"REJECTED EXTERNAL\r\n", -EPERM},
                           Row{"HTTP/1.1 400 Bad Request\r\n", -EPROTO}, Row{std::string(100'000, 'x'), -EPROTO},
                           Row{data + "REJECTED EXTERNAL\r\n", -EPERM}, Row{data + data, -EPROTO},
                           Row{agreed, -ECONNRESET}, Row{agreed + "ERROR\r\n", -EPROTO},
                           // What sd-bus itself would not take for an answer.
                           Row{data + "OK x\r\nAGREE_UNIX_FD\r\n", -EPERM}}) {
        SCOPED_TRACE(row.said.substr(0, 100));
        const Talker talker(row.said);
        EXPECT_EQ(outcomeOf(talker.path()), row.outcome);
    }
}

}  // namespace
}  // namespace tarnwell::bus
