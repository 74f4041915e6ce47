#include <unistd.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench/Follower.h"
#include "bench/SampleFiles.h"
#include "bench/Suite.h"
#include "testing/TemporaryDirectory.h"

namespace tarnwell::bench {

namespace {

constexpr std::size_t kChangedWhileOff = 10;

/// Medians in seconds.
struct Taken {
    double first = 0;             ///< from the first start until everything is followed
    double restart = 0;           ///< from a start to the answer of what changed since the position before it
    bool startsAnew = false;      ///< that answer did not say what changed
    std::vector<double> since;    ///< right after so many changes as the list says
    std::uint64_t kilobytes = 0;  ///< resident at the end
};

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

/// The files of the tree, far from each other when they are taken one after the other.
std::vector<std::string> filesOfTree(const Sizes& sizes, const std::string& tree) {
    std::vector<std::string> paths;
    for (std::size_t file = 0; file < sizes.filesInEach; ++file) {
        for (std::size_t j = 0; j < sizes.foldersInEach; ++j) {
            for (std::size_t i = 0; i < sizes.outerFolders; ++i) {
                const std::size_t number = (i * sizes.foldersInEach + j) * sizes.filesInEach + file;
                paths.push_back(tree + "/Folder " + std::to_string(i) + "/Folder " + std::to_string(j) + "/" +
                                sampleName(number));
            }
        }
    }
    return paths;
}

class Measurement {
public:
    Measurement(Follower& follower, const Sizes& sizes, std::vector<std::string> files)
        : follower_(follower), sizes_(sizes), files_(std::move(files)) {}

    Outcome<Taken> run(const std::vector<std::size_t>& counts) {
        Taken taken;
        const Stopwatch first;
        if (auto done = follower_.start(); !done) return std::unexpected(done.error());
        if (auto done = follower_.waitUntilLive(); !done) return std::unexpected(done.error());
        taken.first = first.elapsed().clock;
        auto begin = follower_.position();
        if (!begin) return std::unexpected(begin.error());
        position_ = *begin;
        std::vector<double> restarts;
        for (unsigned i = 0; i < sizes_.rounds; ++i) {
            if (auto stopped = follower_.stop(); !stopped) return std::unexpected(stopped.error());
            if (auto changed = change(kChangedWhileOff); !changed) return std::unexpected(changed.error());
            const Stopwatch watch;
            if (auto started = follower_.start(); !started) return std::unexpected(started.error());
            const auto told = ask(watch, kChangedWhileOff, restarts);
            if (!told) return std::unexpected(told.error());
            taken.startsAnew = told->isFresh;
        }
        taken.restart = median(restarts);
        if (auto done = follower_.waitUntilLive(); !done) return std::unexpected(done.error());
        for (const std::size_t count : counts) {
            std::vector<double> answers;
            for (unsigned i = 0; i < sizes_.rounds * 3; ++i) {
                if (auto changed = change(count); !changed) return std::unexpected(changed.error());
                if (auto told = ask(Stopwatch(), count, answers); !told) return std::unexpected(told.error());
            }
            taken.since.push_back(median(answers));
        }
        taken.kilobytes = follower_.residentKilobytes();
        if (auto stopped = follower_.stop(); !stopped) return std::unexpected(stopped.error());
        return taken;
    }

private:
    Outcome<void> change(std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            if (!changeFile(files_[next_++ % files_.size()])) return std::unexpected("a file cannot be changed");
        }
        return {};
    }
    Outcome<Follower::Told> ask(const Stopwatch& watch, std::size_t changed, std::vector<double>& seconds) {
        const auto answer = follower_.changesSince(position_);
        seconds.push_back(watch.elapsed().clock);
        if (!answer) return std::unexpected(answer.error());
        auto told = follower_.read(*answer);
        if (!told) return told;
        if (!told->isFresh && told->objects < changed) {
            return std::unexpected(std::string(follower_.name()) + " told " + std::to_string(told->objects) + " of " +
                                   std::to_string(changed) + " changes");
        }
        position_ = told->position;
        return told;
    }

    Follower& follower_;
    const Sizes& sizes_;
    const std::vector<std::string> files_;
    std::size_t next_ = 0;
    std::string position_;
};

/// The same tree for each, made anew, and the same changes; one after the other, so that none works while the other one
/// is measured.
Outcome<Taken> measure(Suite& suite, const std::vector<std::size_t>& counts,
                       const std::function<std::unique_ptr<Follower>(const std::string& home)>& make) {
    const testing::TemporaryDirectory home;
    for (const char* folder : {"Documents", "private"}) testing::makeDirectories(home.path(folder));
    const std::string tree = home.path("Documents/") + Suite::kTree;
    if (auto made = suite.makeTree(tree); !made) return std::unexpected(made.error());
    const auto follower = make(home.path());
    return Measurement(*follower, suite.sizes(), filesOfTree(suite.sizes(), tree)).run(counts);
}

bool isInstalled(const char* program) { return ::access((std::string("/usr/bin/") + program).c_str(), X_OK) == 0; }

Outcome<double> besideWatchman(Suite& suite, benchmark::State& state) {
    if (!isInstalled("watchman")) {
        progress("  watchman is not installed: nothing to compare with");
        return 0;
    }
    const std::vector<std::size_t> counts{1, std::min<std::size_t>(200, suite.sizes().treeFiles() / 2)};
    const auto ours =
        measure(suite, counts, [&](const std::string& home) { return ourFollower(suite.program(), home); });
    if (!ours) return std::unexpected(ours.error());
    const auto other = measure(suite, counts, watchmanFollower);
    if (!other) return std::unexpected(other.error());

    const auto row = [&](const std::string& what, const std::string& key, double mine, double its, int digits) {
        suite.report().add("Beside watchman, " + std::to_string(suite.sizes().treeFiles()) + " files in " +
                               std::to_string(suite.sizes().treeFolders()) + " folders: milliseconds, MB",
                           {{"what", what},
                            {"ours", fixed(mine, digits)},
                            {"watchman", fixed(its, digits)},
                            {"ours/watchman", fixed(mine / its, 2)}});
        state.counters[key + "_ours"] = mine;
        state.counters[key + "_watchman"] = its;
        state.counters[key + "_ratio"] = mine / its;
    };
    for (std::size_t i = 0; i < counts.size(); ++i) {
        row("changes right after " + std::to_string(counts[i]) + " writes", "since_" + std::to_string(counts[i]),
            ours->since[i] * 1e3, other->since[i] * 1e3, 2);
    }
    row(std::string("a restart until changes are told") + (other->startsAnew ? " (watchman: begins anew)" : ""),
        "restart", ours->restart * 1e3, other->restart * 1e3, 0);
    row("the first start", "first", ours->first * 1e3, other->first * 1e3, 0);
    row("resident memory, MB", "resident", static_cast<double>(ours->kilobytes) / 1024,
        static_cast<double>(other->kilobytes) / 1024, 1);
    return ours->since.front();
}

}  // namespace

void addWatchman(Suite& suite) {
    suite.add("changes/watchman", [&suite](benchmark::State& state) { return besideWatchman(suite, state); });
}

}  // namespace tarnwell::bench
