#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/base/Ids.h"
#include "platform/store/Database.h"

namespace tarnwell::store {

/// Where somebody who takes the changes since a position in batches is to go on after a batch.
struct Continuation {
    EventID path{};      ///< every record up to here was told
    EventID document{};  ///< every document-ID record up to here was told
    /// The folder whose contents were being told, by its file ID, how many of its entries were, and the position at
    /// which that began.
    std::optional<FileID> folder = {};
    std::uint64_t folderOffset = 0;
    EventID folderSince{};
    friend bool operator==(const Continuation&, const Continuation&) = default;
    /// True when less had been told here than there.
    bool isBefore(const Continuation& other) const;
};

/// What names a batch: who asks, since when, and how many changes were told by then.
struct BatchKey {
    std::string reader;
    EventID since{};
    std::uint64_t offset = 0;
};

/// The batches that were handed out, so that whoever brings one's end back goes on right behind it, also after a
/// restart. Under the store's mutex (a Session) only; changes only in a writing session.
///
/// K1: of several continuations of one key the earliest stands. Two who read since the same position at different times
///     have batches that end at different places, and the one who asks again after a crash reads twice himself; going
///     on from the earlier end repeats, and never leaves out.
/// K2: the last kMostKept are kept.
class Continuations {
public:
    static constexpr std::uint64_t kMostKept = 10'000;

    explicit Continuations(Database& database);

    void remember(const BatchKey& key, const Continuation& continuation);
    std::optional<Continuation> find(const BatchKey& key);

private:
    Statement add_, find_, trim_;
};

}  // namespace tarnwell::store
