#pragma once

#include <cstdint>

namespace tarnwell::testing {

/// True when the long form of the checks is asked for (TARNWELL_DEEP=1).
bool isLongRun();
/// The seed of a random test: TARNWELL_DEEP_SEED, else one from the clock. It is printed, so that a failure can be
/// replayed.
std::uint64_t chooseSeed(const char* test);

}  // namespace tarnwell::testing
