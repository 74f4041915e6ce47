#pragma once

#include <optional>
#include <string>

#include "platform/base/Ids.h"
#include "platform/store/Database.h"
#include "platform/store/Index.h"

namespace tarnwell::store {

/// Where something in a trash folder came from.
struct TrashOrigin {
    std::optional<FileID> folder;  ///< nothing where the index did not know it
    std::string name;
    std::string nameInTrash;
    friend bool operator==(const TrashOrigin&, const TrashOrigin&) = default;
};

/// Where the objects in the trash folders came from, by their identity. The last 100,000 are kept. Under the store's
/// mutex (a Session) only; changes only in a writing session.
class TrashOrigins {
public:
    static constexpr std::uint64_t kMostKept = 100'000;

    explicit TrashOrigins(Database& database);

    std::optional<TrashOrigin> of(const ObjectIdentity& object);
    void set(const ObjectIdentity& object, const TrashOrigin& origin);
    void forget(const ObjectIdentity& object);

private:
    Statement find_, set_, forget_, trim_;
};

}  // namespace tarnwell::store
