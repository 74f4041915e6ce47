#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "tests/load/parts/RawConnection.h"

namespace tarnwell::load {

/// Makes calls as nobody should make them: of any type, with arguments that are nearly right, far too long, far too
/// many, nested, contradictory, or noise. What it may do to documents it does to `victims` only.
class HostileCalls {
public:
    struct Known {
        std::vector<std::string> victims;               ///< identifiers
        std::vector<std::string> paths;                 ///< of documents
        std::vector<std::vector<std::uint8_t>> tokens;  ///< pages and anchors
    };
    HostileCalls(std::uint64_t seed, Known known) : random_(seed), known_(std::move(known)) {}

    /// The caller's to send.
    sd_bus_message* next(const RawConnection& connection);
    bool chance(unsigned percent) { return below(100) < percent; }

private:
    using Random = std::mt19937_64;
    std::size_t below(std::size_t end) { return static_cast<std::size_t>(random_() % end); }
    template <typename T>
    const T& oneOf(const std::vector<T>& things) {
        return things[below(things.size())];
    }

    std::size_t length();
    std::string text();
    std::string path();
    std::vector<std::uint8_t> bytes();
    std::string randomType(int depth);
    void append(sd_bus_message* call, const std::string& type, int depth);
    void appendOptions(sd_bus_message* call);
    void appendArgument(sd_bus_message* call, const std::string& type, const std::string& member);
    void appendBytes(sd_bus_message* call, const std::vector<std::uint8_t>& value);
    std::size_t count();

    Random random_;
    const Known known_;
};

}  // namespace tarnwell::load
