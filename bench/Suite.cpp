#include "bench/Suite.h"

#include <cstdio>

#include "bench/SampleFiles.h"

namespace tarnwell::bench {

void progress(const std::string& what) { std::fprintf(stderr, "%s\n", what.c_str()); }

void Suite::add(const std::string& name, Body body) {
    benchmark::RegisterBenchmark(name.c_str(),
                                 [this, name, body = std::move(body)](benchmark::State& state) {
                                     progress(name);
                                     for ([[maybe_unused]] auto iteration : state) {
                                         const auto seconds = body(state);
                                         if (!seconds) {
                                             report_.fail(name + ": " + seconds.error());
                                             state.SkipWithError(seconds.error().c_str());
                                             break;
                                         }
                                         state.SetIterationTime(*seconds);
                                     }
                                 })
        ->Iterations(1)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
}

void Suite::compare(benchmark::State& state, const std::string& what, const std::string& key, std::uint64_t count,
                    const Cost& ours, const std::string& otherName, const Cost& other) {
    report_.addComparison(what, count, ours, otherName, other);
    const auto set = [&](const std::string& name, double value) { state.counters[key + "_" + name] = value; };
    set("count", static_cast<double>(count));
    set("ours_us_each", microsecondsEach(ours.clock, count));
    set("other_us_each", microsecondsEach(other.clock, count));
    set("ratio", ours.clock / other.clock);
    set("processor_ratio", ours.processor / other.processor);
}

Outcome<void> Suite::makeTree(const std::string& folder) const {
    progress("  making " + std::to_string(sizes_.treeFiles()) + " files in " + std::to_string(sizes_.treeFolders()) +
             " folders");
    if (auto made = makeFolder(folder); !made) return made;
    std::size_t files = 0;
    for (std::size_t i = 0; i < sizes_.outerFolders; ++i) {
        const std::string outer = folder + "/Folder " + std::to_string(i);
        if (auto made = makeFolder(outer); !made) return made;
        for (std::size_t j = 0; j < sizes_.foldersInEach; ++j) {
            const std::string inner = outer + "/Folder " + std::to_string(j);
            auto made = makeFiles(inner, sizes_.filesInEach, Attributes::none, files);
            if (!made) return std::unexpected(made.error());
            files += sizes_.filesInEach;
        }
    }
    waitUntilTrusted();
    return {};
}

Outcome<SampleDevice*> Suite::treeDevice() {
    if (treeDevice_) return treeDevice_.get();
    auto device = std::make_unique<SampleDevice>();
    if (auto made = makeTree(*device); !made) return std::unexpected(made.error());
    progress("  making their identifiers");
    device->settle();
    treeDevice_ = std::move(device);
    return treeDevice_.get();
}

}  // namespace tarnwell::bench
