#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <future>
#include <vector>

#include "bench/SampleFiles.h"
#include "bench/Suite.h"
#include "fs/LocalFileEnumerator.h"
#include "items/TWPFileObjectIdentifier.h"
#include "platform/filesystem/Beneath.h"

namespace tarnwell::bench {

namespace {

/// Names and status of everything below a folder: what a crawl costs at the least.
Outcome<std::uint64_t> crawl(const std::string& path) {
    std::uint64_t entries = 0;
    std::vector<std::string> folders{path};
    while (!folders.empty()) {
        const std::string folder = std::move(folders.back());
        folders.pop_back();
        const Descriptor open(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!open.valid()) return std::unexpected("a folder cannot be opened");
        filesystem::DirectoryReader reader(open.get());
        filesystem::DirectoryEntry entry;
        for (;;) {
            const auto more = reader.next(entry);
            if (!more) return std::unexpected(describe(more.error()));
            if (!*more) break;
            const auto status = filesystem::statusAt(open.get(), entry.name.data());
            if (!status) return std::unexpected(describe(status.error()));
            ++entries;
            if (S_ISDIR(status->mode)) folders.push_back(folder + "/" + std::string(entry.name));
        }
    }
    return entries;
}

/// One request for changes, to its end.
class Request : public hostframework::ChangeObserver {
public:
    void didUpdateItems(const std::vector<hostframework::ProviderItemPtr>& items) override { reports_ += items.size(); }
    void didDeleteItemsWithIdentifiers(const std::vector<hostframework::ItemIdentifier>& ids) override {
        reports_ += ids.size();
    }
    void finishEnumeratingChangesUpToSyncAnchor(const hostframework::SyncAnchor& anchor, bool moreComing) override {
        anchor_ = anchor;
        more_ = moreComing;
        done_.set_value(true);
    }
    void finishEnumeratingWithError(const Error&) override { done_.set_value(false); }
    bool wait() { return done_.get_future().get(); }
    std::uint64_t reports() const { return reports_; }
    const hostframework::SyncAnchor& anchor() const { return anchor_; }
    bool more() const { return more_; }

private:
    std::uint64_t reports_ = 0;
    hostframework::SyncAnchor anchor_;
    bool more_ = false;
    std::promise<bool> done_;
};

std::shared_ptr<fs::LocalFileEnumerator> enumeratorOf(SampleDevice& device) {
    return fs::LocalFileEnumerator::create(device.environment(), hostframework::kRootContainer, {device.url("")});
}

Bytes anchorOf(fs::LocalFileEnumerator& enumerator) {
    Bytes anchor;
    enumerator.currentSyncAnchorWithCompletionHandler(
        [&](const std::optional<hostframework::SyncAnchor>& now) { anchor = now.value_or(Bytes()); });
    return anchor;
}

Outcome<double> firstIndex(Suite& suite, benchmark::State& state) {
    SampleDevice device;
    if (auto made = suite.makeTree(device); !made) return std::unexpected(made.error());
    const std::string path = device.path("");
    const std::uint64_t entries = suite.sizes().treeFiles() + suite.sizes().treeFolders() + 1;
    std::vector<Cost> crawls, unchanged;
    const auto takeCrawl = [&]() -> Outcome<void> {
        const Stopwatch watch;
        const auto seen = crawl(path);
        if (!seen) return std::unexpected(seen.error());
        if (*seen != entries) return std::unexpected("the crawl saw " + std::to_string(*seen));
        crawls.push_back(watch.elapsed());
        return {};
    };
    for (int i = 0; i < 3; ++i) {
        if (auto taken = takeCrawl(); !taken) return std::unexpected(taken.error());
    }
    Stopwatch watch;
    device.settle();
    const Cost first = watch.elapsed();
    suite.compare(state, "first index", "index", entries, first, "crawl", median(crawls));
    device.restart();
    crawls.clear();
    for (unsigned i = 0; i < suite.sizes().rounds; ++i) {
        if (auto taken = takeCrawl(); !taken) return std::unexpected(taken.error());
        const Stopwatch comparing;
        device.settle();
        unchanged.push_back(comparing.elapsed());
    }
    suite.compare(state, "comparison of an unchanged tree", "start", entries, median(unchanged), "crawl",
                  median(crawls));
    return first.clock;
}

/// Changes made while nothing ran, told after a restart.
Outcome<double> replay(Suite& suite, benchmark::State& state, std::size_t count) {
    SampleDevice device;
    if (auto made = makeFiles(device.path("changed"), count, Attributes::none); !made) {
        return std::unexpected(made.error());
    }
    waitUntilTrusted();
    device.settle();
    const Bytes anchor = anchorOf(*enumeratorOf(device));
    std::vector<std::string> paths;
    for (std::size_t i = 0; i < count; ++i) paths.push_back(device.path("changed/" + sampleName(i)));
    for (const std::string& path : paths) {
        if (!changeFile(path)) return std::unexpected("a file cannot be changed");
    }
    waitUntilTrusted();
    device.restart();
    device.settle();

    const Stopwatch loop;
    for (const std::string& path : paths) {
        struct stat status{};
        std::array<char, 1024> names;
        if (::lstat(path.c_str(), &status) != 0) return std::unexpected("a file cannot be looked at");
        (void)::llistxattr(path.c_str(), names.data(), names.size());
    }
    const Cost plain = loop.elapsed();

    const auto enumerator = enumeratorOf(device);
    std::vector<Cost> requests;
    std::uint64_t told = 0;
    Bytes position = anchor;
    const Stopwatch whole;
    for (bool more = true; more;) {
        const Stopwatch watch;
        const auto request = std::make_shared<Request>();
        enumerator->enumerateChangesForObserver(request, position);
        if (!request->wait()) return std::unexpected("the changes were not told");
        requests.push_back(watch.elapsed());
        told += request->reports();
        position = request->anchor();
        more = request->more();
    }
    const Cost all = whole.elapsed();
    if (told < count) return std::unexpected("only " + std::to_string(told) + " changes were told");
    suite.compare(state, "changes after a restart", "replay", count, all, "looking at the files", plain);
    if (requests.size() > 4) {
        const std::size_t part = std::min<std::size_t>(20, (requests.size() - 1) / 2);
        const auto begin = requests.begin();
        const auto last = requests.end() - 1;
        suite.compare(state, "the last requests of 200 of them", "last", 200,
                      median({last - static_cast<std::ptrdiff_t>(part), last}), "the first requests",
                      median({begin, begin + static_cast<std::ptrdiff_t>(part)}));
    }
    return all.clock;
}

/// What somebody waits for who asks right after a change, while the kernel tells of changes.
Outcome<double> live(Suite& suite, benchmark::State& state) {
    SampleDevice device;
    if (auto made = makeFiles(device.path("live"), 1000, Attributes::none); !made) return std::unexpected(made.error());
    device.settle();
    device.watch();
    const auto enumerator = enumeratorOf(device);
    Bytes position = anchorOf(*enumerator);
    const std::size_t rounds = std::max<std::size_t>(50, suite.sizes().lookups / 20);
    std::vector<double> requests;
    for (std::size_t i = 0; i < rounds; ++i) {
        if (!changeFile(device.path("live/" + sampleName(i % 1000)))) {
            return std::unexpected("a file cannot be changed");
        }
        const Stopwatch watch;
        const auto request = std::make_shared<Request>();
        enumerator->enumerateChangesForObserver(request, position);
        if (!request->wait()) return std::unexpected("the changes were not told");
        requests.push_back(watch.elapsed().clock);
        if (request->reports() == 0) return std::unexpected("a change was not told");
        position = request->anchor();
    }
    std::sort(requests.begin(), requests.end());
    const auto at = [&](double part) {
        return requests[static_cast<std::size_t>(static_cast<double>(rounds - 1) * part)];
    };
    suite.report().add("A request for changes right after a write, kernel hints, milliseconds",
                       {{"rounds", std::to_string(rounds)},
                        {"median", fixed(at(0.5) * 1e3, 3)},
                        {"99 of 100", fixed(at(0.99) * 1e3, 3)},
                        {"longest", fixed(requests.back() * 1e3, 3)}});
    state.counters["median_ms"] = at(0.5) * 1e3;
    return at(0.5);
}

}  // namespace

void addChanges(Suite& suite) {
    suite.add("changes/index", [&suite](benchmark::State& state) { return firstIndex(suite, state); });
    for (const std::size_t count : suite.sizes().pageSeries) {
        suite.add("changes/replay/" + std::to_string(count),
                  [&suite, count](benchmark::State& state) { return replay(suite, state, count); });
    }
    suite.add("changes/live", [&suite](benchmark::State& state) { return live(suite, state); });
}

}  // namespace tarnwell::bench
