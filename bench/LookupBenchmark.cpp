#include <fcntl.h>

#include <random>

#include "bench/HashWalk.h"
#include "bench/Listing.h"
#include "bench/Suite.h"
#include "hostframework/ItemIdentifier.h"
#include "provider/ItemLookup.h"

namespace tarnwell::bench {

namespace {

constexpr std::uint64_t kSeed = 20'260'301;

/// Calls `find` for each identifier; a tally of those found.
template <typename Find>
Outcome<Tally> findAll(const std::vector<std::string>& identifiers, const Find& find) {
    Tally tally;
    for (const std::string& identifier : identifiers) {
        if (find(identifier)) ++tally.entries;
    }
    return tally;
}

Outcome<double> lookUp(Suite& suite, benchmark::State& state) {
    const auto made = suite.treeDevice();
    if (!made) return std::unexpected(made.error());
    SampleDevice& device = **made;

    const Descriptor root(::open(device.path("").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    HashWalk walk(root.get(), hostframework::kRootContainer);
    std::vector<std::string> all;
    const auto tree = device.environment().items.files.stat(device.url(Suite::kTree));
    if (!root.valid() || !tree) return std::unexpected("the root or the tree cannot be opened");
    provider::ItemLookup lookup(device.providerContext());
    const auto top = lookup.itemForURL(device.url(Suite::kTree));
    if (!top) return std::unexpected("no item for the tree");
    walk.add(**top);
    const auto scanned =
        scanToItems(device, Suite::kTree, Recursion::below, [&](const hostframework::ProviderItem& item) {
            walk.add(item);
            all.push_back(item.itemIdentifier());
        });
    if (!scanned) return std::unexpected(scanned.error());

    std::mt19937_64 random(kSeed);
    std::vector<std::string> chosen;
    for (std::size_t i = 0; i < suite.sizes().lookups; ++i) chosen.push_back(all[random() % all.size()]);
    const Tally expected{chosen.size(), 0, 0};
    const auto costs = takeTurns(
        suite.sizes().rounds, expected,
        {{"lookup",
          [&] { return findAll(chosen, [&](const auto& id) { return lookup.itemForIdentifier(id).has_value(); }); }},
         {"hash walk", [&] { return findAll(chosen, [&](const auto& id) { return walk.find(id); }); }}});
    if (!costs) return std::unexpected(costs.error());
    suite.compare(state, "identifier to item, among " + std::to_string(all.size()), "lookup", chosen.size(),
                  (*costs)[0], "hash walk, path, statx", (*costs)[1]);
    return (*costs)[0].clock;
}

}  // namespace

void addLookups(Suite& suite) {
    suite.add("lookup/identifier_to_item", [&suite](benchmark::State& state) { return lookUp(suite, state); });
}

}  // namespace tarnwell::bench
