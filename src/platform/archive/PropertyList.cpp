#include "platform/archive/PropertyList.h"

#include <algorithm>
#include <bit>

namespace tarnwell::archive {

namespace {

bool sameBits(double a, double b) { return std::bit_cast<std::uint64_t>(a) == std::bit_cast<std::uint64_t>(b); }

/// The pairs that count, sorted by key.
std::vector<const Dictionary::value_type*> countingPairs(const Dictionary& dictionary) {
    std::vector<const Dictionary::value_type*> pairs;
    pairs.reserve(dictionary.size());
    for (const auto& pair : dictionary) pairs.push_back(&pair);
    // Of equal keys the later one lies further on in the vector.
    std::ranges::sort(pairs, [](const auto* x, const auto* y) {
        const int order = x->first.compare(y->first);
        return order != 0 ? order < 0 : x < y;
    });
    std::vector<const Dictionary::value_type*> last;
    for (const auto* pair : pairs) {
        if (!last.empty() && last.back()->first == pair->first) {
            last.back() = pair;
        } else {
            last.push_back(pair);
        }
    }
    return last;
}

}  // namespace

const Value* Value::find(std::string_view key) const {
    const Dictionary* pairs = dictionary();
    if (!pairs) return nullptr;
    const auto found =
        std::find_if(pairs->rbegin(), pairs->rend(), [&](const auto& pair) { return pair.first == key; });
    return found == pairs->rend() ? nullptr : &found->second;
}

bool operator==(const Value& a, const Value& b) {
    if (a.storage.index() != b.storage.index()) return false;
    if (const Array* array = a.array()) return *array == *b.array();
    if (const Dictionary* dictionary = a.dictionary())
        return std::ranges::equal(countingPairs(*dictionary), countingPairs(*b.dictionary()),
                                  [](const auto* x, const auto* y) { return *x == *y; });
    if (const double* real = a.as<double>()) return sameBits(*real, *b.as<double>());
    if (const PlistDate* date = a.as<PlistDate>()) return sameBits(date->seconds, b.as<PlistDate>()->seconds);
    return a.storage == b.storage;
}

}  // namespace tarnwell::archive
