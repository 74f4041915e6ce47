#pragma once

#include <array>
#include <cstdint>

#include "platform/base/Ids.h"
#include "platform/store/Database.h"

namespace tarnwell::store {

/// Issues the store's numbers, each at most once (S1 of Store.h). Under the store's mutex only.
class Numbers {
public:
    explicit Numbers(Database& database) : database_(database) {}

    /// Reads the counters. After an unclean end the rest of each reserved range is skipped.
    void load();
    /// True when the last owner ended without `saveExact`.
    bool endedUncleanly() const { return unclean_; }
    /// The last event whose record was committed, and the last one that may have been issued before this start: what
    /// lies between them was lost, if anything was.
    std::uint64_t lastCommittedEventAtStart() const { return committedAtStart_; }
    std::uint64_t lastIssuedEventAtStart() const { return counters_[0].start - 1; }

    /// Makes sure, durably, that a session may take numbers. Called outside a transaction.
    void prepareForWriting();
    /// Called inside a transaction, right before it is committed.
    void beforeCommit();
    /// Called after a commit or a rollback.
    void afterTransaction();

    EventID nextEvent() { return EventID{take(kEvent)}; }
    DocumentID nextDocument();
    /// A file ID that no inode number is: from 2^62 on.
    FileID nextFreshFile() { return FileID{kFirstFreshFileID + take(kFreshFile)}; }
    std::uint64_t nextPosition() { return take(kPosition); }
    /// The last event issued.
    std::uint64_t lastEvent() const { return counters_[kEvent].next - 1; }

    /// Writes the counters so that a clean start goes on right after the last number used.
    void saveExact();

    static constexpr std::uint64_t kFirstFreshFileID = std::uint64_t{1} << 62;

private:
    enum Kind : std::size_t { kEvent = 0, kDocument = 1, kFreshFile = 2, kPosition = 3, kKinds = 4 };
    struct Counter {
        std::uint64_t next = 1;
        std::uint64_t reserved = 1;  ///< the first number that is not reserved
        std::uint64_t start = 1;     ///< the first number that this run may issue
    };
    static constexpr std::uint64_t kBlock = 65'536;
    std::uint64_t take(Kind kind);
    void writeReservations();

    Database& database_;
    std::array<Counter, kKinds> counters_;
    std::uint64_t committedAtStart_ = 0;
    std::uint64_t committed_ = 0;
    bool unclean_ = false;
    bool dirty_ = false;           ///< this run has reserved something
    bool reservedInside_ = false;  ///< a block was reserved inside the open transaction
};

}  // namespace tarnwell::store
