#include "platform/watch/HintCollector.h"

#include <functional>
#include <string>

namespace tarnwell::watch {

HintCollector::HintCollector() : known_(0, Hash{this}, Equal{this}) {}

std::size_t HintCollector::Hash::operator()(const Key& key) const {
    // The factor spreads small neighbouring numbers, so that one name in many directories gives many places.
    return std::hash<std::string_view>{}(key.name) ^ (raw(key.directory) * 0x9e3779b97f4a7c15U);
}

void HintCollector::add(FileID directory, std::string_view name, bool namesChanged) {
    // One file that is written to gives the same hint again and again.
    if (!drained_.hints.empty() && keyOf(drained_.hints.size() - 1) == Key{directory, name}) {
        drained_.hints.back().namesChanged |= namesChanged;
        return;
    }
    auto known = known_.find(Key{directory, name});
    if (known != known_.end()) {
        drained_.hints[*known].namesChanged |= namesChanged;
        return;
    }
    drained_.hints.push_back({directory, std::string(name), namesChanged});
    known_.insert(drained_.hints.size() - 1);
}

}  // namespace tarnwell::watch
