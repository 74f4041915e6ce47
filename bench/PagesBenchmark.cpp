#include <algorithm>

#include "bench/Listing.h"
#include "bench/SampleFiles.h"
#include "bench/Suite.h"
#include "bench/SystemCallLoop.h"

namespace tarnwell::bench {

namespace {

/// At most this many pages are taken from either end.
constexpr std::size_t kEndPages = 50;

/// A folder of the series and what its listings took.
struct Folder {
    std::string name;
    std::size_t entries = 0;
    std::vector<Cost> pages;  ///< of the listing under way
    std::vector<Cost> first, last;

    void finishListing() {
        const std::size_t count = std::min(kEndPages, (pages.size() + 1) / 2);
        const auto sum = [](auto begin, auto end) {
            Cost total;
            for (; begin != end; ++begin) total = total + *begin;
            return total;
        };
        const auto middle = static_cast<std::ptrdiff_t>(count);
        // The page at the very end may hold a few entries or none.
        first.push_back(sum(pages.begin(), pages.begin() + middle));
        last.push_back(sum(pages.end() - 1 - middle, pages.end() - 1));
        pages.clear();
    }
};

Outcome<double> listSeries(Suite& suite, benchmark::State& state) {
    SampleDevice device;
    std::vector<Folder> folders;
    for (const std::size_t entries : suite.sizes().pageSeries) {
        Folder& folder = folders.emplace_back(Folder{"pages " + std::to_string(entries), entries, {}, {}, {}});
        auto made = makeFiles(device.path(folder.name), entries, Attributes::none);
        if (!made) return std::unexpected(made.error());
    }
    waitUntilTrusted();
    device.settle();

    std::vector<Cost> totals;
    for (Folder& folder : folders) {
        const std::string path = device.path(folder.name);
        const auto list = [&]() -> Outcome<Tally> {
            auto tally = listInPages(device, folder.name, [&](const Cost& cost) { folder.pages.push_back(cost); });
            folder.finishListing();
            return tally;
        };
        const auto costs =
            takeTurns(suite.sizes().rounds, Tally{folder.entries, 0, 0},
                      {{"pages", list}, {"system calls", [&] { return lookAtEntries(path, Depth::folder); }}});
        if (!costs) return std::unexpected(costs.error());
        totals.push_back((*costs)[0]);
        const std::string key = "pages_of_" + std::to_string(folder.entries);
        suite.compare(state, folder.name, key, folder.entries, (*costs)[0], "system calls", (*costs)[1]);
        const Cost first = median(folder.first), last = median(folder.last);
        state.counters[key + "_last_to_first"] = last.clock / first.clock;
        const Folder& smallest = folders.front();
        const double growth = microsecondsEach((*costs)[0].clock, folder.entries) /
                              microsecondsEach(totals.front().clock, smallest.entries);
        state.counters[key + "_growth"] = growth;
        suite.report().add("All pages of a folder: 1.00 means that the cost grows with the entries alone",
                           {{"entries", std::to_string(folder.entries)},
                            {"all pages, ms", fixed((*costs)[0].clock * 1e3, 1)},
                            {"each entry, to that of " + std::to_string(smallest.entries), fixed(growth, 2)},
                            {"first pages, ms", fixed(first.clock * 1e3, 2)},
                            {"last pages, ms", fixed(last.clock * 1e3, 2)},
                            {"last/first", fixed(last.clock / first.clock, 2)}});
    }
    return totals.back().clock;
}

}  // namespace

void addPages(Suite& suite) {
    suite.add("pages/series", [&suite](benchmark::State& state) { return listSeries(suite, state); });
}

}  // namespace tarnwell::bench
