#pragma once

#include <cstddef>
#include <functional>
#include <unordered_map>
#include <utility>
#include <vector>

namespace tarnwell::applibraries {

/// A dictionary that is read in the order in which its keys were first set, so that what people see keeps one order.
/// Setting a key again replaces its value in its old position.
/// With a transparent hash and equality a key is also found by what compares equal to it.
template <typename Key, typename Value, typename Hash = std::hash<Key>, typename Equal = std::equal_to<Key>>
class OrderedDictionary {
public:
    using Entries = std::vector<std::pair<Key, Value>>;

    void set(const Key& key, Value value) {
        auto [position, isNew] = positions_.try_emplace(key, entries_.size());
        if (isNew) {
            entries_.emplace_back(key, std::move(value));
        } else {
            entries_[position->second].second = std::move(value);
        }
    }
    /// Null when there is no such key; valid until the next `set`.
    template <typename Like>
    const Value* find(const Like& key) const {
        auto position = positions_.find(key);
        return position == positions_.end() ? nullptr : &entries_[position->second].second;
    }
    bool contains(const Key& key) const { return positions_.contains(key); }
    std::size_t size() const { return entries_.size(); }
    bool empty() const { return entries_.empty(); }
    auto begin() const { return entries_.begin(); }
    auto end() const { return entries_.end(); }

private:
    Entries entries_;
    std::unordered_map<Key, std::size_t, Hash, Equal> positions_;
};

}  // namespace tarnwell::applibraries
