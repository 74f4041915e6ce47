#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "session/Item.h"
#include "tests/mirror/Message.h"

namespace tarnwell::mirror {

/// What a client keeps of an item beside its identifier.
struct Kept {
    std::string parent;
    std::string name;
    std::optional<std::uint64_t> size = {};
    std::optional<std::int64_t> modified = {};  ///< nanoseconds since 1970
    std::optional<std::string> tags = {};       ///< encoded
    std::optional<std::uint64_t> rank = {};
    bool isFolder = false;
    friend bool operator==(const Kept&, const Kept&) = default;
};

/// One line for the account of a failure.
std::string describe(const Kept& kept);

/// Tags as Kept has them.
std::string encodedTags(const std::vector<std::string>& labels);

struct Identified {
    std::string identifier;
    Kept kept;
};
Identified keptOf(const session::Item& item);

void append(Message& message, const Identified& item);
/// Takes the item that begins at `at`, and moves on behind it.
Identified takeItem(const Message& message, std::size_t& at);

}  // namespace tarnwell::mirror
