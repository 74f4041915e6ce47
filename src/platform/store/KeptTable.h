#pragma once

#include <span>
#include <string>
#include <vector>

#include "platform/base/Ids.h"
#include "platform/store/Database.h"

namespace tarnwell::store {

/// An extended attribute, without the "user." of its name, and its value.
struct KeptAttribute {
    std::string name;
    Bytes value;
    friend bool operator==(const KeptAttribute&, const KeptAttribute&) = default;
};

/// What objects were last seen to carry of the attributes that are kept for them. Under the store's mutex (a Session)
/// only; changes only in a writing session. An object's rows go with its row in the index.
class KeptTable {
public:
    explicit KeptTable(Database& database);

    /// In the order of the names.
    std::vector<KeptAttribute> of(FileID object);
    /// Replaces all that is kept for the object.
    void set(FileID object, std::span<const KeptAttribute> attributes);

private:
    Statement find_, remove_, add_;
};

}  // namespace tarnwell::store
