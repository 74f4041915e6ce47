#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <nlohmann/json.hpp>

#include "bench/Follower.h"
#include "bench/ServerProcess.h"

namespace tarnwell::bench {
namespace {

using nlohmann::json;

constexpr int kPatienceMilliseconds = 600'000;

class WatchmanFollower : public Follower {
public:
    explicit WatchmanFollower(const std::string& home) : home_(home), state_(home + "/private") {}
    const char* name() const override { return "watchman"; }
    Outcome<void> start() override {
        auto process = ServerProcess::start(
            {"watchman", "--foreground", "--sockname=" + socketPath(), "--statefile=" + state_ + "/state",
             "--logfile=" + state_ + "/watchman.log", "--pidfile=" + state_ + "/pid"},
            home_, state_ + "/watchman.log");
        if (!process) return std::unexpected(process.error());
        process_ = std::move(*process);
        return connect();
    }
    Outcome<void> stop() override {
        (void)ask({"shutdown-server"});
        socket_ = Descriptor();
        if (!process_->waitForEnd()) return std::unexpected("watchman does not end");
        process_.reset();
        return {};
    }
    Outcome<void> waitUntilLive() override {
        if (auto watched = asked({"watch", root()}); !watched) return std::unexpected(watched.error());
        const auto there = position();
        return there ? Outcome<void>() : std::unexpected(there.error());
    }
    Outcome<std::string> position() override {
        const auto answer = asked({"clock", root(), {{"sync_timeout", kPatienceMilliseconds}}});
        if (!answer) return std::unexpected(answer.error());
        return answer->at("clock").get<std::string>();
    }
    Outcome<std::string> changesSince(const std::string& position) override {
        // What it says of everything after a restart is not asked for.
        return ask({"query",
                    root(),
                    {{"since", position},
                     {"fields", {"name", "size", "mtime_ms", "exists"}},
                     {"empty_on_fresh_instance", true},
                     {"sync_timeout", kPatienceMilliseconds}}});
    }
    std::uint64_t residentKilobytes() const override { return process_->residentKilobytes(); }
    Outcome<Told> read(const std::string& answer) const override {
        const json parsed = json::parse(answer, nullptr, false);
        if (!parsed.is_object() || !parsed.contains("files")) return std::unexpected("watchman said: " + answer);
        return Told{parsed["files"].size(), parsed.value("is_fresh_instance", false), parsed.value("clock", "")};
    }

private:
    std::string root() const { return home_ + "/Documents"; }
    std::string socketPath() const { return state_ + "/socket"; }

    Outcome<void> connect() {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        if (socketPath().size() >= sizeof address.sun_path)
            return std::unexpected("the path of its socket is too long");
        std::memcpy(address.sun_path, socketPath().c_str(), socketPath().size() + 1);
        for (int i = 0; i < 10'000; ++i) {
            Descriptor made(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
            if (::connect(made.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
                socket_ = std::move(made);
                return {};
            }
            ::usleep(1000);
        }
        return std::unexpected("watchman does not listen");
    }
    Outcome<std::string> ask(const json& command) {
        if (!sendAll(socket_.get(), command.dump() + "\n")) return std::unexpected("watchman ended");
        return readThrough(socket_.get(), "{");
    }
    Outcome<json> asked(const json& command) {
        const auto answer = ask(command);
        if (!answer) return std::unexpected(answer.error());
        json parsed = json::parse(*answer, nullptr, false);
        if (!parsed.is_object() || parsed.contains("error")) return std::unexpected("watchman said: " + *answer);
        return parsed;
    }

    const std::string home_, state_;
    std::unique_ptr<ServerProcess> process_;
    Descriptor socket_;
};

}  // namespace

std::unique_ptr<Follower> watchmanFollower(const std::string& home) { return std::make_unique<WatchmanFollower>(home); }

}  // namespace tarnwell::bench
