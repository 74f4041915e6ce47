#include <fcntl.h>
#include <malloc.h>
#include <spawn.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "bench/Listing.h"
#include "bench/SampleFiles.h"
#include "bench/Suite.h"
#include "fs/LocalFileEnumerator.h"
#include "host/ProgramContext.h"
#include "testing/CapturingLog.h"
#include "testing/TemporaryDirectory.h"

namespace tarnwell::bench {

namespace {

constexpr const char* kFolder = "memory";

/// What one process measured, in kilobytes.
struct Usage {
    std::uint64_t first = 0;    ///< most that the first listing of the process added
    std::uint64_t started = 0;  ///< resident after it, less what was before any service
    std::uint64_t index = 0;    ///< of that, held by the database
    std::uint64_t second = 0;   ///< most that a further listing added
    std::uint64_t live = 0;     ///< the same with live updates on, as the provider's enumerators have them
};

std::uint64_t residentKilobytes() {
    std::ifstream file("/proc/self/statm");
    std::uint64_t size = 0, resident = 0;
    file >> size >> resident;
    return resident * static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE)) / 1024;
}

/// What is resident once the allocator has given back what it can.
std::uint64_t settledKilobytes() {
    ::malloc_trim(0);
    return residentKilobytes();
}

/// The most that was resident since `beginPeak`.
void beginPeak() { std::ofstream("/proc/self/clear_refs") << "5"; }

std::uint64_t peakKilobytes() {
    std::ifstream file("/proc/self/status");
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("VmHWM:")) return std::strtoull(line.c_str() + 6, nullptr, 10);
    }
    return 0;
}

std::uint64_t above(std::uint64_t value, std::uint64_t base) { return value > base ? value - base : 0; }

enum class LiveUpdates { off, on };

/// Lists the folder once; gives the most that was added meanwhile.
Outcome<std::uint64_t> listOnce(host::ProgramContext& program, std::size_t entries, LiveUpdates liveUpdates) {
    const std::uint64_t before = settledKilobytes();
    beginPeak();
    const URL folder = program.providerManager().documentStorageURL().appending(kFolder);
    const auto identifier = program.provider().persistentIdentifierForItemAt(folder);
    if (!identifier) return std::unexpected(folder.path() + " has no identifier");
    const fs::FSEnvironment environment{program.environment(), program.events(), dispatch::ThreadPool::create()};
    std::shared_ptr<hostframework::ProviderEnumerator> enumerator;
    if (liveUpdates == LiveUpdates::off) {
        enumerator = fs::LocalFileEnumerator::create(environment, *identifier, {folder});
    } else {
        auto made = program.provider().enumeratorForContainerItemIdentifier(*identifier);
        if (!made) return std::unexpected(tarnwell::describe(made.error()));
        enumerator = std::move(*made);
    }
    const auto tally = listAllPages(*enumerator);
    if (liveUpdates == LiveUpdates::on) enumerator->invalidate();
    enumerator.reset();
    environment.pool->waitUntilQuiet();
    if (!tally) return std::unexpected(tally.error());
    if (*tally != Tally{entries, 0, 0}) return std::unexpected("the listing saw " + describe(*tally));
    return above(peakKilobytes(), before);
}

Outcome<Usage> measure(const std::string& home, std::size_t entries) {
    testing::CapturingLog log;
    log.setThreshold(log::Level::off);
    Usage usage;
    const std::uint64_t bare = settledKilobytes();
    const auto program = startProgram(home, log);
    if (!program) return std::unexpected(program.error());
    const auto first = listOnce(**program, entries, LiveUpdates::off);
    if (!first) return std::unexpected(first.error());
    usage.first = *first;
    usage.started = above(settledKilobytes(), bare);
    usage.index = static_cast<std::uint64_t>(sqlite3_memory_used()) / 1024;
    const auto second = listOnce(**program, entries, LiveUpdates::off);
    if (!second) return std::unexpected(second.error());
    usage.second = *second;
    const auto live = listOnce(**program, entries, LiveUpdates::on);
    if (!live) return std::unexpected(live.error());
    usage.live = *live;
    return usage;
}

/// Measures in a process of its own, so that nothing but these listings was ever in its memory.
Outcome<Usage> measureApart(const std::string& program, const std::string& home, std::size_t entries) {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) return std::unexpected("no pipe");
    const Descriptor reading(ends[0]);
    Descriptor writing(ends[1]);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, writing.get(), STDOUT_FILENO);
    std::string name = "tarnwell-bench", option = "--measure-memory", folder = home, count = std::to_string(entries);
    std::array<char*, 5> arguments{name.data(), option.data(), folder.data(), count.data(), nullptr};
    pid_t child = 0;
    const int code = ::posix_spawn(&child, program.c_str(), &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    writing = Descriptor();
    if (code != 0) return std::unexpected(program + " cannot be started: " + tarnwell::describe(posixError(code)));
    std::string output;
    std::array<char, 256> buffer;
    ssize_t got = 0;
    while ((got = ::read(reading.get(), buffer.data(), buffer.size())) > 0) {
        output.append(buffer.data(), static_cast<std::size_t>(got));
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    Usage usage;
    std::istringstream numbers(output);
    if (status != 0 || !(numbers >> usage.first >> usage.started >> usage.index >> usage.second >> usage.live)) {
        return std::unexpected("measuring " + std::to_string(entries) + " entries failed");
    }
    return usage;
}

Outcome<double> listForMemory(Suite& suite, benchmark::State& state) {
    const Stopwatch stopwatch;
    for (const std::size_t entries : suite.sizes().memorySeries) {
        progress("  a folder of " + std::to_string(entries));
        const testing::TemporaryDirectory home;
        testing::makeDirectories(home.path("Documents"));
        auto made = makeFiles(home.path("Documents/") + kFolder, entries, Attributes::none);
        if (!made) return std::unexpected(made.error());
        waitUntilTrusted();
        // The first process makes the identifiers; the second is a start of the program like any later one.
        const auto making = measureApart(suite.program(), home.path(), entries);
        if (!making) return std::unexpected(making.error());
        const auto later = measureApart(suite.program(), home.path(), entries);
        if (!later) return std::unexpected(later.error());
        const auto megabytes = [](std::uint64_t kilobytes) { return fixed(static_cast<double>(kilobytes) / 1024, 1); };
        suite.report().add("Resident memory, MB", {{"entries", std::to_string(entries)},
                                                   {"a listing adds", megabytes(later->second)},
                                                   {"with live updates", megabytes(later->live)},
                                                   {"the first of a process", megabytes(later->first)},
                                                   {"all services afterwards", megabytes(later->started)},
                                                   {"of that the index", megabytes(later->index)},
                                                   {"the first listing ever adds", megabytes(making->first)}});
        const std::string key = "memory_of_" + std::to_string(entries);
        state.counters[key + "_listing_kb"] = static_cast<double>(later->second);
        state.counters[key + "_live_listing_kb"] = static_cast<double>(later->live);
        state.counters[key + "_first_of_process_kb"] = static_cast<double>(later->first);
        state.counters[key + "_services_kb"] = static_cast<double>(later->started);
        state.counters[key + "_index_kb"] = static_cast<double>(later->index);
        state.counters[key + "_first_ever_kb"] = static_cast<double>(making->first);
    }
    return stopwatch.elapsed().clock;
}

}  // namespace

Outcome<std::unique_ptr<host::ProgramContext>> startProgram(const std::string& home, log::Log& log) {
    host::Settings settings;
    settings.storageRoot = home + "/Documents";
    settings.storageRootOrigin = "--storage";
    settings.applicationSupport = home + "/data";
    settings.stateDirectory = home + "/state";
    settings.cacheDirectory = home + "/cache";
    settings.registrySources.home = home;
    auto program = host::ProgramContext::create(settings, log);
    if (!program) return std::unexpected(tarnwell::describe(program.error()));
    (*program)->prepareForRequests();
    return std::move(*program);
}

int measureMemory(const std::string& home, std::size_t entries) {
    const auto usage = measure(home, entries);
    if (!usage) {
        progress(usage.error());
        return 1;
    }
    std::printf("%" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64 "\n", usage->first, usage->started,
                usage->index, usage->second, usage->live);
    return 0;
}

void addMemory(Suite& suite) {
    suite.add("memory/listing", [&suite](benchmark::State& state) { return listForMemory(suite, state); });
}

}  // namespace tarnwell::bench
