#include "bench/HashWalk.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <array>
#include <charconv>
#include <optional>
#include <string_view>

namespace tarnwell::bench {

namespace {

constexpr std::size_t kDeepest = 64;

struct Number {
    bool isDocument;
    std::uint64_t value;
};

std::optional<Number> numberOf(std::string_view identifier) {
    const bool isDocument = identifier.starts_with("did=");
    if (!isDocument && !identifier.starts_with("fid=")) return std::nullopt;
    Number number{isDocument, 0};
    const auto [end, problem] =
        std::from_chars(identifier.data() + 4, identifier.data() + identifier.size(), number.value);
    if (problem != std::errc{}) return std::nullopt;
    return number;
}

}  // namespace

void HashWalk::add(const hostframework::ProviderItem& item) {
    const auto number = numberOf(item.itemIdentifier());
    if (!number) return;
    Node node{0, item.filename()};
    if (item.parentItemIdentifier() != rootIdentifier_) {
        if (const auto parent = numberOf(item.parentItemIdentifier())) node.parent = parent->value;
    }
    (number->isDocument ? documents_ : others_).insert_or_assign(number->value, std::move(node));
}

bool HashWalk::find(const std::string& identifier) const {
    const auto number = numberOf(identifier);
    if (!number) return false;
    const auto& nodes = number->isDocument ? documents_ : others_;
    auto found = nodes.find(number->value);
    if (found == nodes.end()) return false;
    std::array<const Node*, kDeepest> trail;
    std::size_t depth = 0, length = 0;
    for (const Node* node = &found->second;; node = &found->second) {
        trail[depth++] = node;
        length += node->name.size() + 1;
        if (node->parent == 0) break;
        found = others_.find(node->parent);
        if (found == others_.end() || depth == kDeepest) return false;
    }
    std::string path;
    path.reserve(length);
    while (depth > 0) {
        if (!path.empty()) path += '/';
        path += trail[--depth]->name;
    }
    struct statx status;
    return ::statx(root_, path.c_str(), AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, STATX_BASIC_STATS | STATX_BTIME,
                   &status) == 0;
}

}  // namespace tarnwell::bench
