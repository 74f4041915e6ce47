#include "bench/Measure.h"

#include <algorithm>
#include <ctime>

namespace tarnwell::bench {

namespace {

double secondsOf(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

double medianOf(std::vector<double> values) {
    std::ranges::sort(values);
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

}  // namespace

Cost operator+(const Cost& a, const Cost& b) { return {a.clock + b.clock, a.processor + b.processor}; }

Cost Stopwatch::now() { return {secondsOf(CLOCK_MONOTONIC), secondsOf(CLOCK_PROCESS_CPUTIME_ID)}; }

Cost Stopwatch::elapsed() const {
    const Cost end = now();
    return {end.clock - began_.clock, end.processor - began_.processor};
}

Cost median(std::vector<Cost> costs) {
    std::vector<double> clocks, processors;
    for (const Cost& cost : costs) {
        clocks.push_back(cost.clock);
        processors.push_back(cost.processor);
    }
    return {medianOf(std::move(clocks)), medianOf(std::move(processors))};
}

std::string describe(const Tally& tally) {
    return std::to_string(tally.entries) + " entries, " + std::to_string(tally.attributes) + " attributes, " +
           std::to_string(tally.contained) + " entries in folders";
}

Outcome<std::vector<Cost>> takeTurns(unsigned rounds, const Tally& expected, const std::vector<Contender>& contenders) {
    std::vector<std::vector<Cost>> costs(contenders.size());
    for (unsigned round = 0; round <= rounds; ++round) {
        for (std::size_t i = 0; i < contenders.size(); ++i) {
            const Stopwatch stopwatch;
            const auto tally = contenders[i].run();
            const Cost cost = stopwatch.elapsed();
            if (!tally) return std::unexpected(contenders[i].name + ": " + tally.error());
            if (*tally != expected) {
                return std::unexpected(contenders[i].name + " saw " + describe(*tally) + "; there are " +
                                       describe(expected));
            }
            if (round > 0) costs[i].push_back(cost);
        }
    }
    std::vector<Cost> medians;
    for (auto& of : costs) medians.push_back(median(std::move(of)));
    return medians;
}

}  // namespace tarnwell::bench
