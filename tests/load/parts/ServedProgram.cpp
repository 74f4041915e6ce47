#include "tests/load/parts/ServedProgram.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "bus/wire/Names.h"
#include "tests/load/parts/RawConnection.h"

namespace tarnwell::load {

Footprint footprintOf(pid_t process) {
    Footprint held;
    const std::string folder = "/proc/" + std::to_string(process);
    std::error_code gone;
    for (const auto& entry : std::filesystem::directory_iterator(folder + "/fdinfo", gone)) {
        ++held.descriptors;
        std::ifstream info(entry.path());
        for (std::string line; std::getline(info, line);) {
            if (line.starts_with("inotify wd") || line.starts_with("fanotify ino")) ++held.kernelWatches;
        }
    }
    std::ifstream status(folder + "/status");
    for (std::string line; std::getline(status, line);) {
        std::istringstream words(line);
        std::string key;
        words >> key;
        if (key == "VmRSS:") words >> held.residentKiB;
        if (key == "Threads:") words >> held.threads;
    }
    return held;
}

bool allowDescriptors(std::size_t count) {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return false;
    if (limit.rlim_cur >= count) return true;
    limit.rlim_cur = std::min<rlim_t>(count, limit.rlim_max);
    return ::setrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur >= count;
}

bool within(std::chrono::seconds longest, const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + longest * kTimeFactor;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end) return condition();
        ::usleep(10'000);
    }
    return true;
}

ServedProgram::ServedProgram(Way way) {
    auto made = tour::makeSampleDevice(directory_.path("device"));
    EXPECT_TRUE(made) << describe(made.error());
    if (!made) return;
    device_ = *made;
    auto environment = device_.environment();
    environment["DBUS_SESSION_BUS_ADDRESS"] = bus_.address();
    if (way == Way::offered) {
        std::string unset, set;
        for (const auto& [name, value] : environment) {
            if (value) {
                set += " " + name + "=" + *value;
            } else {
                unset += " -u " + name;
            }
        }
        bus_.offer(bus::kServiceName, "/usr/bin/env" + unset + set + " " TARNWELL_PROGRAM " serve");
        return;
    }
    const std::string complaints = directory_.path("complaints");
    process_ = ::fork();
    if (process_ == 0) {
        // A test that crashes leaves no service.
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        const int file = ::open(complaints.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        if (file >= 0) ::dup2(file, STDERR_FILENO);
        // As a session starts its services.
        rlimit limit{};
        ::getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = std::min<rlim_t>(1024, limit.rlim_max);
        ::setrlimit(RLIMIT_NOFILE, &limit);
        for (const auto& [name, value] : environment) {
            if (value) {
                ::setenv(name.c_str(), value->c_str(), 1);
            } else {
                ::unsetenv(name.c_str());
            }
        }
        ::execl(TARNWELL_PROGRAM, TARNWELL_PROGRAM, "serve", static_cast<char*>(nullptr));
        ::_exit(127);
    }
    EXPECT_TRUE(within(std::chrono::seconds(20), [&] { return process() == process_; })) << this->complaints();
    // From the first search on the index is open.
    const auto found = connect()->search({.query = "Letter"}, {});
    EXPECT_TRUE(found) << describe(found.error());
}

ServedProgram::~ServedProgram() {
    if (process_ <= 0) return;
    ::kill(process_, SIGTERM);
    int status = 0;
    ::waitpid(process_, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status << "\n" << complaints();
}

std::unique_ptr<bus::BusSession> ServedProgram::connect() const {
    auto client = bus::BusSession::connect(bus::BusSession::Start::ifNeeded, bus_.address());
    EXPECT_TRUE(client) << describe(client.error()) << "\n" << complaints();
    return client ? std::move(*client) : nullptr;
}

pid_t ServedProgram::process() const { return RawConnection(bus_.address()).processOf(bus::kServiceName); }

bool ServedProgram::isRunning() const {
    siginfo_t ended{};
    return process_ > 0 && ::waitid(P_PID, static_cast<id_t>(process_), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           ended.si_pid == 0;
}

std::string ServedProgram::descriptors() const {
    std::string lines;
    std::error_code gone;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/" + std::to_string(process_) + "/fd", gone)) {
        lines += entry.path().filename().string() + " " + std::filesystem::read_symlink(entry, gone).string() + "\n";
    }
    return lines;
}

std::string ServedProgram::complaints() const {
    std::ifstream file(directory_.path("complaints"));
    const std::string all(std::istreambuf_iterator<char>(file), {});
    return all.substr(all.size() - std::min<std::size_t>(all.size(), 3000));
}

}  // namespace tarnwell::load
