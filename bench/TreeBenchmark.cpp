#include "bench/Listing.h"
#include "bench/SampleFiles.h"
#include "bench/Suite.h"
#include "bench/SystemCallLoop.h"

namespace tarnwell::bench {

namespace {

Outcome<double> scanTree(Suite& suite, benchmark::State& state) {
    const auto made = suite.treeDevice();
    if (!made) return std::unexpected(made.error());
    SampleDevice& device = **made;
    const Sizes& sizes = suite.sizes();
    const std::uint64_t entries = sizes.treeFiles() + sizes.treeFolders();
    // All entries but the outer folders lie in a folder that is shown.
    const Tally expected{entries, 0, entries - sizes.outerFolders};
    const std::string path = device.path(Suite::kTree);

    const auto costs = takeTurns(sizes.rounds, expected,
                                 {{"scan", [&] { return scanToItems(device, Suite::kTree, Recursion::below); }},
                                  {"system calls", [&] { return lookAtEntries(path, Depth::below); }}});
    if (!costs) return std::unexpected(costs.error());
    suite.compare(state, "tree, one recursive scan", "scan", entries, (*costs)[0], "system calls", (*costs)[1]);

    const std::uint64_t sniffed = undeclaredNames(sizes.treeFiles());
    suite.report().add(
        "Contents looked at because the name declares no type, in each listing",
        {{"what", "tree"}, {"files", std::to_string(sizes.treeFiles())}, {"looked at", std::to_string(sniffed)}});
    state.counters["contents_sniffed"] = static_cast<double>(sniffed);
    return (*costs)[0].clock;
}

Outcome<double> listTreeFolderByFolder(Suite& suite, benchmark::State& state) {
    const auto made = suite.treeDevice();
    if (!made) return std::unexpected(made.error());
    SampleDevice& device = **made;
    const Sizes& sizes = suite.sizes();
    const std::uint64_t entries = sizes.treeFiles() + sizes.treeFolders();
    const Tally expected{entries, 0, entries - sizes.outerFolders};
    const std::string path = device.path(Suite::kTree);

    const auto costs = takeTurns(sizes.rounds > 3 ? 3 : sizes.rounds, expected,
                                 {{"an enumerator a folder", [&] { return listEachFolder(device, Suite::kTree); }},
                                  {"system calls", [&] { return lookAtEntries(path, Depth::below); }}});
    if (!costs) return std::unexpected(costs.error());
    suite.compare(state, "tree, an enumerator a folder", "each", entries, (*costs)[0], "system calls", (*costs)[1]);
    return (*costs)[0].clock;
}

}  // namespace

void addTree(Suite& suite) {
    suite.add("tree/scan", [&suite](benchmark::State& state) { return scanTree(suite, state); });
    suite.add("tree/folder_by_folder",
              [&suite](benchmark::State& state) { return listTreeFolderByFolder(suite, state); });
}

}  // namespace tarnwell::bench
