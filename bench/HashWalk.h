#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>

#include "bench/Measure.h"
#include "hostframework/ProviderItem.h"

namespace tarnwell::bench {

/// What an identifier's look-up costs at the least: parents and names in memory, hashed by identifier, walked up to
/// build the path, and one statx of it.
class HashWalk {
public:
    /// `rootIdentifier` is the identifier of the folder that `root` (borrowed) has open.
    HashWalk(int root, std::string rootIdentifier) : root_(root), rootIdentifier_(std::move(rootIdentifier)) {}

    void add(const hostframework::ProviderItem& item);
    /// False when the identifier is not known or nothing stands at its path.
    bool find(const std::string& identifier) const;

private:
    struct Node {
        std::uint64_t parent = 0;  ///< file ID of the folder; 0 below the root
        std::string name;
    };
    int root_;
    std::string rootIdentifier_;
    std::unordered_map<std::uint64_t, Node> documents_, others_;
};

}  // namespace tarnwell::bench
