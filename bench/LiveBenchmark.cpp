#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "bench/SampleFiles.h"
#include "bench/Suite.h"
#include "platform/dispatch/SerialQueue.h"
#include "platform/watch/KernelWatcher.h"

namespace tarnwell::bench {

namespace {

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// ---- how late a change is told -------------------------------------------------------------------------------------

/// Waits for what a stream tells.
class Listener {
public:
    void hear(const std::vector<events::FileEvent>& told) {
        const std::lock_guard lock(mutex_);
        for (const events::FileEvent& event : told) {
            if ((event.flags & events::kEventHistoryDone) != 0) isLive_ = true;
            if (event.path) last_ = *event.path;
        }
        heard_.notify_all();
    }
    bool waitUntilLive() {
        std::unique_lock lock(mutex_);
        return heard_.wait_for(lock, kPatience, [&] { return isLive_; });
    }
    bool waitFor(const std::string& path) {
        std::unique_lock lock(mutex_);
        return heard_.wait_for(lock, kPatience, [&] { return last_ == path; });
    }

private:
    static constexpr std::chrono::seconds kPatience{30};
    std::mutex mutex_;
    std::condition_variable heard_;
    bool isLive_ = false;
    std::string last_;
};

Outcome<double> line(Suite& suite, benchmark::State& state) {
    constexpr std::chrono::milliseconds kLatency{500};
    SampleDevice device;
    if (auto made = makeFiles(device.path("live"), 100, Attributes::none); !made) return std::unexpected(made.error());
    device.settle();
    device.watch();
    auto& service = device.environment().events;
    const auto queue = dispatch::SerialQueue::create(device.environment().pool, "bench.live");
    Listener listener;
    events::StreamOptions options;
    options.over = events::StreamOverPaths{{device.url("live")}};
    options.since = service.recordedEventID();
    options.latency = kLatency;
    auto stream = service.createStream(std::move(options), [&](const auto& told) { listener.hear(told); });
    if (!stream) return std::unexpected(describe(stream.error()));
    (*stream)->setQueue(queue);
    const bool started = queue->sync([&] { return (*stream)->start(); });
    std::vector<double> late;
    std::string problem = !started || !listener.waitUntilLive() ? "the stream does not begin" : "";
    const std::size_t rounds = std::size_t{suite.sizes().rounds} * 4;
    for (std::size_t i = 0; problem.empty() && i < rounds; ++i) {
        const std::string path = device.path("live/" + sampleName(i % 100));
        const Stopwatch watch;
        if (!changeFile(path)) problem = "a file cannot be changed";
        if (problem.empty() && !listener.waitFor(path)) problem = "a change was not told";
        late.push_back(watch.elapsed().clock - std::chrono::duration<double>(kLatency).count());
    }
    queue->sync([&] { stream->reset(); });
    if (!problem.empty()) return std::unexpected(problem);
    suite.report().add("A change told by a stream, milliseconds after the latency that it asked for",
                       {{"rounds", std::to_string(rounds)},
                        {"median", fixed(median(late) * 1e3, 1)},
                        {"longest", fixed(*std::max_element(late.begin(), late.end()) * 1e3, 1)}});
    state.counters["median_ms"] = median(late) * 1e3;
    return median(late);
}

// ---- what it costs those who make changes --------------------------------------------------------------------------

/// A process that makes, writes, renames and removes files in the folder; the seconds that it took.
Outcome<double> work(const std::string& folder, std::size_t files) {
    const std::string first = folder + "/first", second = folder + "/second";
    const Stopwatch watch;
    const pid_t child = ::fork();
    if (child < 0) return std::unexpected("no process");
    if (child == 0) {
        bool good = true;
        for (std::size_t i = 0; i < files && good; ++i) {
            const int file = ::open(first.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
            good = file >= 0 && ::write(file, "x", 1) == 1 && ::close(file) == 0 &&
                   ::rename(first.c_str(), second.c_str()) == 0 && ::unlink(second.c_str()) == 0;
        }
        ::_exit(good ? 0 : 1);
    }
    int status = 0;
    if (::waitpid(child, &status, 0) != child || status != 0) return std::unexpected("the process failed");
    return watch.elapsed().clock;
}

/// Reads what the kernel tells of one folder, and does nothing with it.
class CountingReader {
public:
    explicit CountingReader(const std::string& folder) {
        const Descriptor open(::open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        auto watcher = watch::makeWatcher();
        watches_ = open.valid() && watcher && (*watcher)->watch(open.get(), FileID{1});
        if (!watches_) return;
        watcher_ = std::move(*watcher);
        thread_ = std::thread([this] { run(); });
    }
    ~CountingReader() {
        ends_.store(true);
        if (thread_.joinable()) thread_.join();
    }
    bool watches() const { return watches_; }

private:
    void run() {
        pollfd waited{watcher_->descriptor(), POLLIN, 0};
        while (!ends_) {
            if (::poll(&waited, 1, 10) > 0) (void)watcher_->drain();
        }
    }
    std::unique_ptr<watch::Watcher> watcher_;
    bool watches_ = false;
    std::atomic<bool> ends_{false};
    std::thread thread_;
};

Outcome<double> slowdown(Suite& suite, benchmark::State& state) {
    const std::size_t files = std::max<std::size_t>(200, suite.sizes().lookups / 5);
    SampleDevice counted, live;
    if (auto made = makeFolder(counted.path("busy")); !made) return std::unexpected(made.error());
    if (auto made = makeFolder(live.path("busy")); !made) return std::unexpected(made.error());
    live.settle();
    live.watch();
    std::vector<double> alone, reading, ours;
    for (unsigned i = 0; i < suite.sizes().rounds; ++i) {
        const auto nobody = work(counted.path("busy"), files);
        if (!nobody) return std::unexpected(nobody.error());
        alone.push_back(*nobody);
        {
            const CountingReader reader(counted.path("busy"));
            if (!reader.watches()) return std::unexpected("the folder cannot be watched");
            const auto read = work(counted.path("busy"), files);
            if (!read) return std::unexpected(read.error());
            reading.push_back(*read);
        }
        const auto watched = work(live.path("busy"), files);
        if (!watched) return std::unexpected(watched.error());
        ours.push_back(*watched);
    }
    const auto micros = [&](const std::vector<double>& seconds) {
        return fixed(median(seconds) * 1e6 / static_cast<double>(files), 2);
    };
    suite.report().add("A process that makes, writes, renames and removes files, microseconds a file",
                       {{"files", std::to_string(files)},
                        {"nobody looks", micros(alone)},
                        {"a reader counts", micros(reading)},
                        {"ours", micros(ours)},
                        {"ours/reader", fixed(median(ours) / median(reading), 2)}});
    state.counters["ours_to_reader"] = median(ours) / median(reading);
    return median(ours);
}

// ---- where an object is --------------------------------------------------------------------------------------------

Outcome<double> pathOfObject(Suite& suite, benchmark::State& state) {
    SampleDevice device;
    constexpr std::size_t kFiles = 1000;
    if (auto made = makeFiles(device.path("live"), kFiles, Attributes::none); !made) {
        return std::unexpected(made.error());
    }
    device.settle();
    device.watch();
    auto& files = device.environment().items.files;
    const auto root = files.openEventOnly(device.url(""));
    const auto number = root ? files.deviceID(*root) : Result<DeviceID>(failure(root.error()));
    if (!number) return std::unexpected(describe(number.error()));
    std::vector<FileID> objects;
    for (std::size_t i = 0; i < kFiles; ++i) {
        const auto status = files.stat(device.url("live/" + sampleName(i)));
        if (!status) return std::unexpected(describe(status.error()));
        objects.push_back(status->fileID);
    }
    std::vector<double> rounds;
    for (unsigned i = 0; i < suite.sizes().rounds; ++i) {
        const Stopwatch watch;
        for (const FileID object : objects) {
            if (!files.pathOfFileID(object, *number)) return std::unexpected("an object is nowhere");
        }
        rounds.push_back(watch.elapsed().clock);
    }
    suite.report().add("Where the object of a file ID is, checked on disk, microseconds",
                       {{"objects", std::to_string(kFiles)},
                        {"median", fixed(median(rounds) * 1e6 / static_cast<double>(kFiles), 2)}});
    state.counters["microseconds"] = median(rounds) * 1e6 / static_cast<double>(kFiles);
    return median(rounds);
}

}  // namespace

void addLive(Suite& suite) {
    suite.add("live/line", [&suite](benchmark::State& state) { return line(suite, state); });
    suite.add("live/slowdown", [&suite](benchmark::State& state) { return slowdown(suite, state); });
    suite.add("live/path_of_object", [&suite](benchmark::State& state) { return pathOfObject(suite, state); });
}

}  // namespace tarnwell::bench
