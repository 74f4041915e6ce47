#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <thread>

#include "bench/SampleFiles.h"
#include "bench/Suite.h"
#include "bus/client/BusSession.h"
#include "bus/server/Server.h"
#include "host/LocalSession.h"
#include "host/ProgramContext.h"
#include "testing/PrivateBus.h"
#include "testing/TemporaryDirectory.h"
#include "testing/Variables.h"

/// What a client of the service pays beside one that loads the provider itself.
namespace tarnwell::bench {

namespace {

constexpr std::size_t kFilesInEach = 500;

class Silence : public log::Log {
public:
    Silence() { setThreshold(log::Level::off); }

private:
    void emit(log::Level, std::string_view) override {}
};

/// A person's home with files in folders, and nothing installed.
class Home {
public:
    Outcome<void> make(std::size_t files) {
        testing::makeDirectories(directory_.path("run"));
        testing::makeDirectories(documents());
        for (std::size_t i = 0; i < files; i += kFilesInEach) {
            if (auto made = makeFiles(folder(i), kFilesInEach, Attributes::onEveryTenth, i); !made)
                return std::unexpected(made.error());
        }
        return {};
    }
    std::string documents() const { return directory_.path("home/Documents"); }
    std::string folder(std::size_t firstFile) const { return documents() + "/f" + std::to_string(firstFile); }

    std::map<std::string, std::string> environment() const {
        return {{"HOME", directory_.path("home")},
                {"XDG_DATA_HOME", directory_.path("home/data")},
                {"XDG_STATE_HOME", directory_.path("home/state")},
                {"XDG_CACHE_HOME", directory_.path("home/cache")},
                {"XDG_CONFIG_HOME", directory_.path("home/config")},
                {"XDG_RUNTIME_DIR", directory_.path("run")},
                {"XDG_DATA_DIRS", "/usr/share"},
                {"FLATPAK_SYSTEM_DIR", directory_.path("home/none")},
                {"FLATPAK_CONFIG_DIR", directory_.path("home/none")},
                {"TARNWELL_STORAGE", documents()},
                {"DBUS_SESSION_BUS_ADDRESS", bus_.address()}};
    }
    Result<host::Settings> settings() const {
        return host::Settings::from(testing::variables(environment()), std::nullopt);
    }
    const std::string& address() const { return bus_.address(); }

private:
    testing::TemporaryDirectory directory_;
    testing::PrivateBus bus_;
};

/// The provider in this process and a server in front of it.
class Served {
public:
    Outcome<void> start(const Home& home) {
        const auto settings = home.settings();
        if (!settings) return std::unexpected(describe(settings.error()));
        auto context = host::ProgramContext::create(*settings, log_);
        if (!context) return std::unexpected(describe(context.error()));
        context_ = std::move(*context);
        context_->prepareForRequests();
        (void)context_->watchForChanges();
        bus::Server::Options options;
        options.busAddress = home.address();
        auto server = bus::Server::start(
            std::move(options),
            [this](const bus::Peer&) -> Result<std::shared_ptr<session::Session>> {
                return std::make_shared<host::LocalSession>(*context_);
            },
            log_);
        if (!server) return std::unexpected(describe(server.error()));
        server_ = std::move(*server);
        local_ = std::make_unique<host::LocalSession>(*context_);
        return {};
    }
    session::Session& local() { return *local_; }

private:
    Silence log_;
    std::unique_ptr<host::ProgramContext> context_;
    std::unique_ptr<host::LocalSession> local_;
    std::unique_ptr<bus::Server> server_;
};

Outcome<std::unique_ptr<bus::BusSession>> connect(const Home& home) {
    auto session = bus::BusSession::connect(bus::BusSession::Start::never, home.address());
    if (!session) return std::unexpected(describe(session.error()));
    return std::move(*session);
}

/// All pages of a container; how many items and pages there were.
Outcome<std::pair<std::size_t, std::size_t>> listAll(session::Session& session, const std::string& container) {
    std::size_t items = 0, pages = 0;
    std::optional<Bytes> next;
    do {
        auto page = session.enumerate(container, next);
        if (!page) return std::unexpected(describe(page.error()));
        items += page->items.size();
        ++pages;
        next = std::move(page->next);
    } while (next);
    return std::pair(items, pages);
}

Outcome<double> pages(Suite& suite, benchmark::State& state) {
    const std::size_t files = std::max<std::size_t>(suite.sizes().lookups, 2 * kFilesInEach);
    Home home;
    testing::makeDirectories(home.documents());
    if (auto made = makeFiles(home.folder(0), files, Attributes::onEveryTenth, 0); !made) {
        return std::unexpected(made.error());
    }
    waitUntilTrusted();
    Served served;
    if (auto started = served.start(home); !started) return std::unexpected(started.error());
    auto client = connect(home);
    if (!client) return std::unexpected(client.error());
    const auto folder = served.local().identifiersAtPaths({home.folder(0)}, session::PathUse::lookUp).at(0);
    if (!folder) return std::unexpected(describe(folder.error()));
    std::vector<Cost> direct, overBus;
    std::size_t pageCount = 0;
    for (unsigned round = 0; round <= suite.sizes().rounds; ++round) {
        const Stopwatch first;
        const auto here = listAll(served.local(), *folder);
        const Cost hereCost = first.elapsed();
        const Stopwatch second;
        const auto there = listAll(**client, *folder);
        const Cost thereCost = second.elapsed();
        if (!here || !there) return std::unexpected(here ? there.error() : here.error());
        if (*here != *there || here->first != files) return std::unexpected("the listings differ");
        pageCount = here->second;
        if (round == 0) continue;
        direct.push_back(hereCost);
        overBus.push_back(thereCost);
    }
    suite.compare(state, "a page of 200 items over the bus", "in_process", pageCount, median(overBus),
                  "in this process", median(direct));

    // Nothing changed: what a client pays for asking.
    const auto anchor = (*client)->currentAnchor("RootContainer");
    if (!anchor || !*anchor) return std::unexpected("there is no anchor");
    std::vector<double> nothing;
    for (int i = 0; i < 200; ++i) {
        const Stopwatch watch;
        const auto batch = (*client)->changes("RootContainer", **anchor);
        if (!batch || !batch->changes.empty()) return std::unexpected("something changed");
        nothing.push_back(watch.elapsed().clock);
    }
    std::ranges::sort(nothing);
    suite.report().add("Changes of nothing, over the bus", {{"median, milliseconds", fixed(nothing[100] * 1e3, 3)},
                                                            {"99th percentile", fixed(nothing[198] * 1e3, 3)}});
    state.counters["nothing_ms"] = nothing[100] * 1e3;
    return median(overBus).clock;
}

/// Takes part in everything that changed until it has been told of so many.
Outcome<void> followUntil(session::Session& session, Bytes anchor, std::size_t count) {
    std::size_t told = 0;
    while (told < count) {
        auto batch = session.changes("WorkingSetContainer", anchor);
        if (!batch) return std::unexpected(describe(batch.error()));
        told += batch->changes.size();
        anchor = std::move(batch->anchor);
    }
    return {};
}

Outcome<double> followers(Suite& suite, benchmark::State& state) {
    const std::size_t changes = std::max<std::size_t>(suite.sizes().lookups / kFilesInEach, 2) * kFilesInEach;
    Home home;
    if (auto made = home.make(kFilesInEach); !made) return std::unexpected(made.error());
    Served served;
    if (auto started = served.start(home); !started) return std::unexpected(started.error());
    std::vector<std::unique_ptr<bus::BusSession>> clients;
    for (int i = 0; i < 10; ++i) {
        auto client = connect(home);
        if (!client) return std::unexpected(client.error());
        clients.push_back(std::move(*client));
    }
    const auto anchor = clients[0]->currentAnchor("WorkingSetContainer");
    if (!anchor || !*anchor) return std::unexpected("there is no anchor");
    for (std::size_t i = 0; i < changes; i += kFilesInEach) {
        if (auto made = makeFiles(home.folder(1000000 + i), kFilesInEach, Attributes::none, i); !made) {
            return std::unexpected(made.error());
        }
    }
    // Once for the look at what is new, which comes before the first answer.
    if (auto done = followUntil(*clients[0], **anchor, changes); !done) return std::unexpected(done.error());
    const Stopwatch alone;
    if (auto done = followUntil(*clients[0], **anchor, changes); !done) return std::unexpected(done.error());
    const Cost one = alone.elapsed();
    const Stopwatch together;
    std::vector<Outcome<void>> outcomes(clients.size());
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < clients.size(); ++i) {
        threads.emplace_back([&, i] { outcomes[i] = followUntil(*clients[i], **anchor, changes); });
    }
    for (auto& thread : threads) thread.join();
    const Cost ten = together.elapsed();
    for (const auto& outcome : outcomes) {
        if (!outcome) return std::unexpected(outcome.error());
    }
    suite.compare(state, "ten clients follow " + std::to_string(changes) + " changes", "one_client", changes, ten,
                  "one client", one);
    return ten.clock;
}

std::uint64_t residentBytes(pid_t process) {
    std::ifstream status("/proc/" + std::to_string(process) + "/statm");
    std::uint64_t size = 0, resident = 0;
    status >> size >> resident;
    return resident * static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
}

/// The program itself: from its start to the first answer on a store that knows everything, and its memory then.
Outcome<double> start(Suite& suite, benchmark::State& state) {
    const std::string program = std::filesystem::path(suite.program()).parent_path().string() + "/tarnwell";
    if (::access(program.c_str(), X_OK) != 0) return std::unexpected("the program is not built: " + program);
    Home home;
    if (auto made = home.make(suite.sizes().lookups); !made) return std::unexpected(made.error());
    waitUntilTrusted();
    std::vector<std::string> variables;
    for (const auto& [name, value] : home.environment()) variables.push_back(name + "=" + value);
    std::vector<char*> environment;
    for (auto& variable : variables) environment.push_back(variable.data());
    environment.push_back(nullptr);
    std::vector<double> starts;
    std::uint64_t memory = 0;
    for (unsigned round = 0; round <= suite.sizes().rounds; ++round) {
        std::string name = program, verb = "serve";
        std::vector<char*> arguments{name.data(), verb.data(), nullptr};
        pid_t process = 0;
        const Stopwatch watch;
        if (::posix_spawn(&process, program.c_str(), nullptr, nullptr, arguments.data(), environment.data()) != 0) {
            return std::unexpected("the program cannot be started");
        }
        bool isAnswered = false;
        while (!isAnswered && watch.elapsed().clock < 60) {
            auto client = bus::BusSession::connect(bus::BusSession::Start::never, home.address());
            isAnswered = client && (*client)->items({"RootContainer"}).at(0).has_value();
            if (!isAnswered) ::usleep(1000);
        }
        const double took = watch.elapsed().clock;
        // In the first round the search index is made, too.
        ::usleep(round == 0 ? 2'000'000 : 500'000);
        if (auto client = bus::BusSession::connect(bus::BusSession::Start::never, home.address());
            client && round == 0) {
            (void)(*client)->search({.query = "nothing of the kind"}, {});
        }
        memory = residentBytes(process);
        ::kill(process, SIGTERM);
        int status = 0;
        ::waitpid(process, &status, 0);
        if (!isAnswered || status != 0) return std::unexpected("the service did not answer, or ended badly");
        if (round > 0) starts.push_back(took);
    }
    std::ranges::sort(starts);
    const double middle = starts.at(starts.size() / 2);
    suite.report().add("The service with " + std::to_string(suite.sizes().lookups) + " files",
                       {{"start to first answer, milliseconds", fixed(middle * 1e3, 0)},
                        {"resident memory, MB", fixed(static_cast<double>(memory) / 1e6, 1)}});
    state.counters["start_ms"] = middle * 1e3;
    state.counters["resident_mb"] = static_cast<double>(memory) / 1e6;
    return middle;
}

}  // namespace

void addBus(Suite& suite) {
    suite.add("bus/pages", [&suite](benchmark::State& state) { return pages(suite, state); });
    suite.add("bus/followers", [&suite](benchmark::State& state) { return followers(suite, state); });
    suite.add("bus/start", [&suite](benchmark::State& state) { return start(suite, state); });
}

}  // namespace tarnwell::bench
