#include "cli/output/NameOrder.h"

#include <string.h>

#include <algorithm>

namespace tarnwell::cli {

NameOrder::NameOrder() {
    if (const locale_t locale = ::newlocale(LC_COLLATE_MASK, "", nullptr)) locale_.reset(locale, ::freelocale);
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

}  // namespace tarnwell::cli
