#include "host/NameOrders.h"

namespace tarnwell::host {

NameOrder NameOrders::of(const std::string& locale) {
    if (locale.size() > kLongestName) return NameOrder("C");
    const std::lock_guard lock(mutex_);
    if (const auto known = orders_.find(locale); known != orders_.end()) return known->second;
    if (orders_.size() == kMostLocales) return NameOrder("C");
    return orders_.emplace(locale, NameOrder(locale)).first->second;
}

}  // namespace tarnwell::host
