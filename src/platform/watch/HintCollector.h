#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <unordered_set>
#include <utility>

#include "platform/watch/Watcher.h"

namespace tarnwell::watch {

/// Gathers what the sources tell during one drain; equal hints become one.
class HintCollector {
public:
    HintCollector();
    HintCollector(const HintCollector&) = delete;
    HintCollector& operator=(const HintCollector&) = delete;

    void add(FileID directory, std::string_view name, bool namesChanged);
    void addOverflow() { drained_.overflowed = true; }
    void addUnwatched(FileID directory) { drained_.unwatched.push_back(directory); }
    void addEvents(std::uint64_t count) { drained_.events += count; }
    /// What was gathered; the collector is used up.
    Drained take() { return std::move(drained_); }

private:
    struct Key {
        FileID directory;
        std::string_view name;
        friend bool operator==(const Key&, const Key&) = default;
    };
    /// Hints in the set are numbers of `drained_.hints`, so that a name is kept once.
    struct Hash {
        using is_transparent = void;
        const HintCollector* collector;
        std::size_t operator()(const Key& key) const;
        std::size_t operator()(std::size_t hint) const { return (*this)(collector->keyOf(hint)); }
    };
    struct Equal {
        using is_transparent = void;
        const HintCollector* collector;
        Key keyOf(const Key& key) const { return key; }
        Key keyOf(std::size_t hint) const { return collector->keyOf(hint); }
        bool operator()(const auto& left, const auto& right) const { return keyOf(left) == keyOf(right); }
    };
    Key keyOf(std::size_t hint) const { return {drained_.hints[hint].directory, drained_.hints[hint].name}; }

    Drained drained_;
    std::unordered_set<std::size_t, Hash, Equal> known_;
};

}  // namespace tarnwell::watch
