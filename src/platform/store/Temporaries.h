#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/base/Ids.h"
#include "platform/store/Database.h"

namespace tarnwell::store {

/// What has a temporary name, and so what becomes of it where a process was killed.
enum class TemporaryKind : std::uint8_t {
    copy = 0,     ///< a copy that was not given its name yet: removed
    removal = 1,  ///< something whose removal was asked for and has begun: removed
    aside = 2,    ///< something of the user's for a moment under another name: gets its own back
};

/// A hidden name in a folder below a root that something of ours has, or may have.
struct Temporary {
    std::uint64_t number = 0;  ///< of this record
    TemporaryKind kind = TemporaryKind::copy;
    std::string root;               ///< name of the root
    std::string folder;             ///< path below it
    std::uint64_t folderInode = 0;  ///< which folder that was
    std::int64_t folderBirth = 0;
    std::optional<FileID> folderID;  ///< as the index knows it, for one that has moved since
    std::string name;
    std::string original;  ///< the name that it had, where it had one
    friend bool operator==(const Temporary&, const Temporary&) = default;
};

/// The temporaries that a process of ours is about to make, makes, or left. Under the store's mutex (a Session) only;
/// changes only in a writing session.
class Temporaries {
public:
    explicit Temporaries(Database& database);

    /// Returns the number that the record was given.
    std::uint64_t add(const Temporary& temporary);
    void setKind(std::uint64_t number, TemporaryKind kind);
    void remove(std::uint64_t number);
    /// In the order of adding.
    std::vector<Temporary> all();

private:
    Statement add_, setKind_, remove_, all_;
};

}  // namespace tarnwell::store
