#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tarnwell {

/// A 16-byte identity, shown in its canonical form of 36 characters (upper-case hexadecimal, four hyphens).
struct UUID {
    std::array<std::uint8_t, 16> bytes{};

    /// A random (version 4) UUID from the kernel's random source.
    static UUID random();
    /// Reads the canonical form, either case; nothing for any other text.
    static std::optional<UUID> parse(std::string_view text);
    std::string text() const;

    friend bool operator==(const UUID&, const UUID&) = default;
};

}  // namespace tarnwell
