#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/base/Ids.h"
#include "platform/store/Database.h"

namespace tarnwell::store {

/// A document that was replaced under its name, and the object that has the name now.
struct Takeover {
    FileID displaced{};
    DocumentID documentID{};  ///< what the displaced one had
    FileID successor{};
    std::uint64_t folder = 0;  ///< where the name is
    std::string name;
    std::uint64_t successorsOldFolder = 0;  ///< where the successor was known before; 0 for a new object
    std::string successorsOldPath;
    bool isRecent = false;  ///< the name was left a short time ago
    friend bool operator==(const Takeover&, const Takeover&) = default;
};

/// Takeovers that were found and are not settled: whether the old document is gone is known only when every folder was
/// looked at, and a comparison that is cut off before leaves that to the next one. Under the store's mutex (a Session)
/// only; changes only in a writing session.
class TakeoverTable {
public:
    explicit TakeoverTable(Database& database);

    void add(const Takeover& takeover);
    /// In the order in which they were found.
    std::vector<Takeover> all();
    void clear();

private:
    Statement add_, all_, clear_;
};

}  // namespace tarnwell::store
