#include <algorithm>
#include <filesystem>

#include "bench/SampleFiles.h"
#include "bench/Suite.h"
#include "host/SearchCatchUp.h"
#include "platform/base/UUID.h"
#include "provider/LocalProvider.h"
#include "testing/TemporaryDirectory.h"

namespace tarnwell::bench {

namespace {

constexpr std::size_t kFilesInEach = 500;
constexpr std::size_t kChanges = 200;

class Silence : public log::Log {
public:
    Silence() { setThreshold(log::Level::off); }

private:
    void emit(log::Level, std::string_view) override {}
};

/// A device with files in folders, its provider, and an index of its own.
class SearchedDevice {
public:
    Outcome<void> make(std::size_t files) {
        for (std::size_t i = 0; i < files; i += kFilesInEach) {
            if (auto made = makeFiles(folder(i), kFilesInEach, Attributes::onEveryTenth, i); !made) {
                return std::unexpected(made.error());
            }
        }
        device_.settle();
        waitUntilTrusted();
        provider_ = provider::LocalProvider::create(device_.providerContext());
        return {};
    }
    ~SearchedDevice() {
        provider_.reset();
        device_.environment().pool->waitUntilQuiet();
    }
    /// Forgets the index.
    void begin() {
        catchUp_.reset();
        index_.reset();
        std::filesystem::remove_all(directory_.path("cache"));
        index_ = std::make_unique<host::SearchIndex>(directory_.path("cache"), store_, log_);
        catchUp_ = std::make_unique<host::SearchCatchUp>(*provider_, *index_);
    }
    Outcome<Cost> catchUp() {
        const Stopwatch watch;
        if (auto done = catchUp_->run(); !done) return std::unexpected(tarnwell::describe(done.error()));
        return watch.elapsed();
    }
    std::string folder(std::size_t firstFile) const { return device_.path("f" + std::to_string(firstFile)); }
    host::SearchIndex& index() { return *index_; }

private:
    SampleDevice device_;
    testing::TemporaryDirectory directory_;
    Silence log_;
    const UUID store_ = UUID::random();
    std::shared_ptr<provider::LocalProvider> provider_;
    std::unique_ptr<host::SearchIndex> index_;
    std::unique_ptr<host::SearchCatchUp> catchUp_;
};

Outcome<double> fill(Suite& suite, benchmark::State& state) {
    const std::size_t files = suite.sizes().lookups / kFilesInEach * kFilesInEach + kFilesInEach;
    SearchedDevice device;
    if (auto made = device.make(files); !made) return std::unexpected(made.error());
    std::vector<Cost> fills, catchUps, idle;
    for (unsigned round = 0; round <= suite.sizes().rounds; ++round) {
        device.begin();
        const auto filled = device.catchUp();
        if (!filled) return std::unexpected(filled.error());
        const auto status = device.index().status();
        if (!status || !*status || (*status)->items < files) return std::unexpected("the index is not complete");
        for (std::size_t i = 0; i < kChanges; ++i) {
            const std::size_t number = i * (files / kChanges);
            if (!changeFile(device.folder(number / kFilesInEach * kFilesInEach) + "/" + sampleName(number))) {
                return std::unexpected("a file cannot be changed");
            }
        }
        const auto caughtUp = device.catchUp();
        if (!caughtUp) return std::unexpected(caughtUp.error());
        const auto nothing = device.catchUp();
        if (!nothing) return std::unexpected(nothing.error());
        if (round == 0) continue;
        fills.push_back(*filled);
        catchUps.push_back(*caughtUp);
        idle.push_back(*nothing);
    }
    struct Asked {
        const char *key, *what;
        std::string text;
    };
    const std::vector<Asked> queries = {{"name", "a name", sampleName(files / 2)},
                                        {"beginning", "a beginning that all have", sampleName(0).substr(0, 2)},
                                        {"type", "a type", "type:file"}};
    const double rate = static_cast<double>(files) / median(fills).clock;
    suite.report().add(
        "The search index, " + std::to_string(files) + " files",
        {{"fill, files a second", fixed(rate, 0)},
         {"200 changes, milliseconds", fixed(median(catchUps).clock * 1e3, 1)},
         {"no change, milliseconds", fixed(median(idle).clock * 1e3, 1)},
         {"bytes a file",
          fixed(static_cast<double>((*device.index().status())->databaseBytes) / static_cast<double>(files), 0)}});
    for (const auto& [key, what, text] : queries) {
        search::Search search;
        search.query = *search::parseQuery(text);
        std::vector<Cost> costs;
        std::size_t found = 0;
        for (unsigned round = 0; round < suite.sizes().rounds; ++round) {
            const Stopwatch watch;
            const auto hits = device.index().find(search);
            if (!hits) return std::unexpected(tarnwell::describe(hits.error()));
            costs.push_back(watch.elapsed());
            found = hits->size();
        }
        suite.report().add(
            "A query among " + std::to_string(files) + " files",
            {{"query", what}, {"found", std::to_string(found)}, {"milliseconds", fixed(median(costs).clock * 1e3, 2)}});
        state.counters[std::string(key) + "_ms"] = median(costs).clock * 1e3;
    }
    state.counters["files_per_second"] = rate;
    state.counters["changes_ms"] = median(catchUps).clock * 1e3;
    return median(fills).clock;
}

}  // namespace

void addSearch(Suite& suite) {
    suite.add("search/fill", [&suite](benchmark::State& state) { return fill(suite, state); });
}

}  // namespace tarnwell::bench
