#include "testing/LongRun.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace tarnwell::testing {

bool isLongRun() {
    const char* asked = std::getenv("TARNWELL_DEEP");
    return asked != nullptr && std::string_view(asked) == "1";
}

std::uint64_t chooseSeed(const char* test) {
    const char* given = std::getenv("TARNWELL_DEEP_SEED");
    const std::uint64_t seed =
        given != nullptr
            ? std::strtoull(given, nullptr, 10)
            : static_cast<std::uint64_t>(std::chrono::system_clock::now().time_since_epoch().count()) % 1'000'000'007;
    std::printf("%s: TARNWELL_DEEP_SEED=%llu replays this run\n", test, static_cast<unsigned long long>(seed));
    std::fflush(stdout);
    return seed;
}

}  // namespace tarnwell::testing
