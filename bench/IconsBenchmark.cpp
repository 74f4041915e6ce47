#include <string_view>

#include "bench/Suite.h"
#include "platform/icons/ProcessIconRenderer.h"
#include "testing/CapturingLog.h"
#include "testing/TemporaryDirectory.h"

namespace tarnwell::bench {

namespace {

constexpr std::size_t kMaxIcons = 100;
constexpr unsigned kSide = 96;

Outcome<Tally> drawAll(icons::IconRenderer& renderer, const std::vector<icons::IconData>& all) {
    Tally tally;
    for (const icons::IconData& icon : all) {
        const auto image = renderer.createImage(icon);
        if (!image) return std::unexpected(describe(image.error()));
        ++tally.entries;
    }
    return tally;
}

/// Different icons that draw alike: what follows the end of a drawing makes no difference.
std::vector<icons::IconData> copiesOf(const icons::IconData& icon, std::size_t count) {
    std::vector<icons::IconData> all;
    for (std::size_t i = 0; i < count; ++i) {
        all.push_back(icon);
        const std::string mark = icon.format == icons::IconFormat::svg ? "<!--" + std::to_string(i) + "-->" : "";
        all.back().bytes.insert(all.back().bytes.end(), mark.begin(), mark.end());
    }
    return all;
}

Outcome<double> draw(Suite& suite, benchmark::State& state, const std::string& what, const icons::IconData& icon) {
    const testing::TemporaryDirectory folder;
    testing::CapturingLog log;
    const std::string program = icons::ProcessIconRenderer::programBesideThisOne();
    icons::ProcessIconRenderer drawing({.program = program, .cacheFolder = ""}, log);
    icons::ProcessIconRenderer cached({.program = program, .cacheFolder = folder.path("icons")}, log);
    const std::size_t count = std::min(kMaxIcons, suite.sizes().operations);
    const auto all = copiesOf(icon, count);
    // The round that warms up fills the cache.
    const auto costs = takeTurns(
        suite.sizes().rounds, Tally{count, 0, 0},
        {{"drawn", [&] { return drawAll(drawing, all); }}, {"from the cache", [&] { return drawAll(cached, all); }}});
    if (!costs) return std::unexpected(costs.error());
    suite.compare(state, "icon drawn, " + what, "drawn", count, (*costs)[0], "from the cache", (*costs)[1]);
    return (*costs)[0].clock;
}

}  // namespace

void addIcons(Suite& suite) {
    suite.add("icons/svg",
              [&suite](benchmark::State& state) { return draw(suite, state, "SVG", icons::genericIcon(kSide)); });
    suite.add("icons/png", [&suite](benchmark::State& state) -> Outcome<double> {
        testing::CapturingLog log;
        icons::ProcessIconRenderer renderer(
            {.program = icons::ProcessIconRenderer::programBesideThisOne(), .cacheFolder = ""}, log);
        auto source = renderer.createImage(icons::genericIcon(256));
        if (!source) return std::unexpected(describe(source.error()));
        return draw(suite, state, "PNG of 256 px", {std::move(source->png), icons::IconFormat::png, kSide, "bench"});
    });
}

}  // namespace tarnwell::bench
