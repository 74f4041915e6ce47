#include "service/UserManager.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <systemd/sd-bus.h>

#include <array>
#include <cstdlib>
#include <mutex>
#include <thread>

#include "platform/base/Descriptor.h"
#include "tests/service/ServedDevice.h"

namespace tarnwell::service {
namespace {

/// Answers as systemd's user manager does, with the variables that it is given.
class PlayedManager {
public:
    explicit PlayedManager(const std::string& busAddress) : end_(::eventfd(0, EFD_CLOEXEC)) {
        static const std::array<sd_bus_vtable, 3> kTable{
            {SD_BUS_VTABLE_START(0), SD_BUS_PROPERTY("Environment", "as", get, 0, 0), SD_BUS_VTABLE_END}};
        const bool works = sd_bus_new(&bus_) >= 0 && sd_bus_set_address(bus_, busAddress.c_str()) >= 0 &&
                           sd_bus_set_bus_client(bus_, 1) >= 0 && sd_bus_start(bus_) >= 0 &&
                           sd_bus_add_object_vtable(bus_, nullptr, "/org/freedesktop/systemd1",
                                                    "org.freedesktop.systemd1.Manager", kTable.data(), this) >= 0 &&
                           sd_bus_request_name(bus_, "org.freedesktop.systemd1", 0) >= 0;
        EXPECT_TRUE(works);
        thread_ = std::thread([this] { run(); });
    }
    ~PlayedManager() {
        const std::uint64_t one = 1;
        (void)!::write(end_.get(), &one, sizeof one);
        thread_.join();
        sd_bus_flush_close_unref(bus_);
    }
    void set(std::vector<std::string> variables) {
        const std::lock_guard lock(mutex_);
        variables_ = std::move(variables);
    }

private:
    static int get(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void* self, sd_bus_error*) {
        auto& manager = *static_cast<PlayedManager*>(self);
        const std::lock_guard lock(manager.mutex_);
        std::vector<char*> texts;
        for (std::string& text : manager.variables_) texts.push_back(text.data());
        texts.push_back(nullptr);
        return sd_bus_message_append_strv(reply, texts.data());
    }
    void run() {
        for (;;) {
            while (sd_bus_process(bus_, nullptr) > 0) {
            }
            std::array<pollfd, 2> waited{{{sd_bus_get_fd(bus_), POLLIN, 0}, {end_.get(), POLLIN, 0}}};
            if (::poll(waited.data(), waited.size(), -1) > 0 && waited[1].revents != 0) return;
        }
    }

    const Descriptor end_;
    sd_bus* bus_ = nullptr;
    std::mutex mutex_;
    std::vector<std::string> variables_;
    std::thread thread_;
};

TEST(UserManager, TellsTheVariablesOfTheSession) {
    const testing::PrivateBus bus;
    EXPECT_FALSE(environmentOfUserManager(bus.address())) << "nobody answers";
    EXPECT_FALSE(environmentOfUserManager("unix:path=/nowhere"));
    PlayedManager manager(bus.address());
    EXPECT_EQ(environmentOfUserManager(bus.address()), (std::map<std::string, std::string>()));
    manager.set({"LANG=de_DE.UTF-8", "EMPTY=", "no assignment", "EQUAL=a=b"});
    EXPECT_EQ(environmentOfUserManager(bus.address()),
              (std::map<std::string, std::string>{{"LANG", "de_DE.UTF-8"}, {"EMPTY", ""}, {"EQUAL", "a=b"}}));
}

TEST(UserManager, IsTheOneThatStartedThisProcess) {
    ::unsetenv("SYSTEMD_EXEC_PID");
    EXPECT_FALSE(isStartedBySystemd());
    ::setenv("SYSTEMD_EXEC_PID", std::to_string(::getpid()).c_str(), 1);
    EXPECT_TRUE(isStartedBySystemd());
    ::setenv("SYSTEMD_EXEC_PID", std::to_string(::getppid()).c_str(), 1);
    EXPECT_FALSE(isStartedBySystemd()) << "its children inherit the variable";
    ::unsetenv("SYSTEMD_EXEC_PID");
}

class LanguageOfTheServiceTest : public ServedDevice {
protected:
    void startFollowing(bool follows) {
        client_.reset();
        service_.reset();
        const auto given = settings();
        ASSERT_TRUE(given);
        auto service = Service::start(
            {.settings = *given, .programVersion = "9", .busAddress = bus_.address(), .followsUserManager = follows},
            log_);
        ASSERT_TRUE(service) << describe(service.error());
        service_ = std::move(*service);
    }
    static std::string nameOfNotes(bus::BusSession& client) {
        const auto items = client.items({"#org.example.Notes"});
        return items.at(0) ? items.at(0)->filename : describe(items.at(0).error());
    }
};

TEST_F(LanguageOfTheServiceTest, IsThatOfTheLastLogin) {
    PlayedManager manager(bus_.address());
    startFollowing(true);
    const auto client = connect();
    const std::string english = nameOfNotes(*client);
    manager.set({"LANG=de_DE.UTF-8"});
    const auto another = connect();  // as a program of the next login
    ASSERT_TRUE(another);
    EXPECT_TRUE(soon([&] { return nameOfNotes(*client) != english; }));
    EXPECT_EQ(nameOfNotes(*another), nameOfNotes(*client));
    manager.set({"LANG=de_DE.UTF-8", "LANGUAGE=en_GB:en"});
    service_->reload();
    EXPECT_TRUE(soon([&] { return nameOfNotes(*client) == english; }));
}

TEST_F(LanguageOfTheServiceTest, IsItsOwnWhereItWasStartedByHand) {
    PlayedManager manager(bus_.address());
    manager.set({"LANG=de_DE.UTF-8"});
    startFollowing(false);
    const auto client = connect();
    const std::string name = nameOfNotes(*client);
    service_->reload();
    // Each waits for a look at the applications.
    for (int look = 0; look < 3; ++look) EXPECT_TRUE(client->refresh());
    EXPECT_EQ(nameOfNotes(*client), name);
}

}  // namespace
}  // namespace tarnwell::service
