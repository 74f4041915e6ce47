#include "bench/DesktopListing.h"
#include "bench/Listing.h"
#include "bench/SampleFiles.h"
#include "bench/Suite.h"
#include "bench/SystemCallLoop.h"

namespace tarnwell::bench {

namespace {

constexpr const char* kFlat = "flat";

void compareWithGIO(Suite& suite, benchmark::State& state, const std::string& asked, const std::string& key,
                    std::size_t files, const Cost& pages, const Cost& gio) {
    suite.report().add("GIO's enumerator over the flat folder, microseconds each",
                       {{"asked for", asked},
                        {"count", std::to_string(files)},
                        {"ours, pages of 200", fixed(microsecondsEach(pages.clock, files), 2)},
                        {"GIO", fixed(microsecondsEach(gio.clock, files), 2)},
                        {"GIO/ours", fixed(gio.clock / pages.clock, 2)},
                        {"in processor time", fixed(gio.processor / pages.processor, 2)}});
    state.counters[key + "_us_each"] = microsecondsEach(gio.clock, files);
    state.counters[key + "_ratio"] = gio.clock / pages.clock;
}

Outcome<double> listFlatFolder(Suite& suite, benchmark::State& state) {
    const std::size_t files = suite.sizes().flatFiles;
    SampleDevice device;
    const auto attributes = makeFiles(device.path(kFlat), files, Attributes::onEveryTenth);
    if (!attributes) return std::unexpected(attributes.error());
    waitUntilTrusted();
    const Tally expected{files, *attributes, 0};
    const std::string path = device.path(kFlat);

    // The first listing makes the identifiers; it happens once, so there is no median of it.
    if (auto warm = lookAtEntries(path, Depth::folder); !warm) return std::unexpected(warm.error());
    const Stopwatch stopwatch;
    const auto first = listInPages(device, kFlat);
    const Cost firstCost = stopwatch.elapsed();
    if (!first) return std::unexpected("first listing: " + first.error());
    if (*first != expected) return std::unexpected("the first listing saw " + describe(*first));

    const auto costs = takeTurns(suite.sizes().rounds, expected,
                                 {{"pages", [&] { return listInPages(device, kFlat); }},
                                  {"one scan", [&] { return scanToItems(device, kFlat, Recursion::direct); }},
                                  {"system calls", [&] { return lookAtEntries(path, Depth::folder); }},
                                  {"GIO", [&] { return listWithGIO(path, Question::values); }},
                                  {"GIO", [&] { return listWithGIO(path, Question::valuesAndCapabilities); }}});
    if (!costs) return std::unexpected(costs.error());
    const Cost &pages = (*costs)[0], &scan = (*costs)[1], &loop = (*costs)[2];

    suite.compare(state, "flat folder, pages of 200", "pages", files, pages, "system calls", loop);
    suite.compare(state, "flat folder, one scan", "scan", files, scan, "system calls", loop);
    suite.compare(state, "flat folder, first listing", "first", files, firstCost, "system calls", loop);
    compareWithGIO(suite, state, "the item's values", "gio", files, pages, (*costs)[3]);
    compareWithGIO(suite, state, "values and capabilities", "gio_capabilities", files, pages, (*costs)[4]);

    const std::uint64_t sniffed = undeclaredNames(files);
    suite.report().add(
        "Contents looked at because the name declares no type, in each listing",
        {{"what", "flat folder"}, {"files", std::to_string(files)}, {"looked at", std::to_string(sniffed)}});
    state.counters["contents_sniffed"] = static_cast<double>(sniffed);
    return pages.clock;
}

}  // namespace

void addListings(Suite& suite) {
    suite.add("listing/flat", [&suite](benchmark::State& state) { return listFlatFolder(suite, state); });
}

}  // namespace tarnwell::bench
