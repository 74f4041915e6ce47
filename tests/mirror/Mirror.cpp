#include "tests/mirror/Mirror.h"

namespace tarnwell::mirror {

std::string describe(const Report& report) {
    return report.updated ? "+ " + report.identifier + " " + describe(*report.updated) : "- " + report.identifier;
}

void Mirror::clear() {
    items_.clear();
    children_.clear();
}

void Mirror::update(const std::string& identifier, const Kept& kept) {
    if (const auto known = items_.find(identifier); known != items_.end()) {
        children_[known->second.parent].erase(identifier);
    }
    items_.insert_or_assign(identifier, kept);
    children_[kept.parent].insert(identifier);
}

void Mirror::remove(const std::string& identifier) {
    std::vector<std::string> pending{identifier};
    while (!pending.empty()) {
        const std::string next = std::move(pending.back());
        pending.pop_back();
        if (const auto under = children_.find(next); under != children_.end()) {
            pending.insert(pending.end(), under->second.begin(), under->second.end());
            children_.erase(under);
        }
        const auto known = items_.find(next);
        if (known == items_.end()) continue;
        if (const auto siblings = children_.find(known->second.parent); siblings != children_.end()) {
            siblings->second.erase(next);
        }
        items_.erase(known);
    }
}

void Mirror::apply(const Report& report) {
    if (report.updated) {
        update(report.identifier, *report.updated);
    } else {
        remove(report.identifier);
    }
}

}  // namespace tarnwell::mirror
