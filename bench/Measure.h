#pragma once

#include <cstdint>
#include <expected>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace tarnwell::bench {

/// A value, or a sentence that says why the benchmark cannot go on.
template <typename T>
using Outcome = std::expected<T, std::string>;

/// What something took, in seconds: on the clock, and of processors by all threads of this process, in user and kernel
/// mode. The second is what counts on a machine that others use as well.
struct Cost {
    double clock = 0;
    double processor = 0;
};
Cost operator+(const Cost& a, const Cost& b);

class Stopwatch {
public:
    Stopwatch() : began_(now()) {}
    Cost elapsed() const;

private:
    static Cost now();
    Cost began_;
};

/// Medians of both measures, each for itself. Not of nothing.
Cost median(std::vector<Cost> costs);

/// What a contender saw, so that none wins by doing less.
struct Tally {
    std::uint64_t entries = 0;
    std::uint64_t attributes = 0;  ///< values of extended attributes
    std::uint64_t contained = 0;   ///< entries of all folders seen, added up
    friend bool operator==(const Tally&, const Tally&) = default;
};
std::string describe(const Tally& tally);

/// One way to do the same work.
struct Contender {
    std::string name;
    std::function<Outcome<Tally>()> run;
};

/// Lets every contender run once to warm up and then `rounds` times in turn (A B C A B C …). Gives the median of each,
/// in the order given; fails with the first contender that fails or sees anything but `expected`.
Outcome<std::vector<Cost>> takeTurns(unsigned rounds, const Tally& expected, const std::vector<Contender>& contenders);

}  // namespace tarnwell::bench
