#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tests/mirror/Kept.h"

namespace tarnwell::mirror {

/// One report of a request for changes: an update, or a deletion, which has no item.
struct Report {
    std::string identifier;
    std::optional<Kept> updated = {};
};

/// One line for the account of a failure.
std::string describe(const Report& report);

/// All that a client knows: items by identifier.
class Mirror {
public:
    void clear();
    void update(const std::string& identifier, const Kept& kept);
    /// Takes out the item and all that hangs under it.
    void remove(const std::string& identifier);
    void apply(const Report& report);

    const std::map<std::string, Kept>& items() const { return items_; }

private:
    std::map<std::string, Kept> items_;
    std::map<std::string, std::set<std::string>> children_;
};

}  // namespace tarnwell::mirror
