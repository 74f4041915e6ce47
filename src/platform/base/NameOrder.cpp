#include "platform/base/NameOrder.h"

#include <string.h>

#include <algorithm>
#include <cstdlib>

namespace tarnwell {

std::string NameOrder::localeOfSession() {
    for (const char* name : {"LC_ALL", "LC_COLLATE", "LANG"}) {
        if (const char* value = std::getenv(name); value != nullptr && *value != '\0') return value;
    }
    return "C";
}

NameOrder::NameOrder(const std::string& locale) {
    const std::string& name = locale.empty() ? "C" : locale;
    if (const locale_t made = ::newlocale(LC_COLLATE_MASK, name.c_str(), nullptr)) locale_.reset(made, ::freelocale);
}

bool NameOrder::operator()(std::string_view first, std::string_view second) const {
    while (!first.empty() && !second.empty()) {
        const std::string left(first.substr(0, first.find('/')));
        const std::string right(second.substr(0, second.find('/')));
        if (const int order = compare(left, right); order != 0) return order < 0;
        first.remove_prefix(std::min(first.size(), left.size() + 1));
        second.remove_prefix(std::min(second.size(), right.size() + 1));
    }
    return first.empty() && !second.empty();
}

int NameOrder::compare(const std::string& a, const std::string& b) const {
    if (locale_) {
        if (const int order = ::strcoll_l(a.c_str(), b.c_str(), locale_.get()); order != 0) return order;
    }
    return a.compare(b);
}

}  // namespace tarnwell
