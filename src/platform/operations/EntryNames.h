#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/base/Result.h"

namespace tarnwell::operations {

inline constexpr std::size_t kLongestName = 255;  ///< bytes

/// Whether something may be given that name: EINVAL for an empty one, ".", "..", one with a slash or a NUL;
/// ENAMETOOLONG past 255 bytes; each with a sentence. Names are bytes and need not be UTF-8.
Result<void> checkNewName(const std::string& name);

/// The names "name 2.ext", "name 3.ext" … for something whose name is taken. The extension stays, the part before it is
/// cut at a character where the whole would get too long; a name that ends in a number of this kind is counted on, so
/// that "name 2" gives "name 3".
class FreeNames {
public:
    static constexpr std::uint32_t kMostTries = 100'000;

    explicit FreeNames(std::string_view name);
    /// The next one to try; nothing after kMostTries.
    std::optional<std::string> next();

private:
    std::string stem_, extension_;
    std::uint64_t number_ = 2;
    std::uint32_t tries_ = 0;
};

}  // namespace tarnwell::operations
