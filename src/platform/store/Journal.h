#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/base/Ids.h"
#include "platform/store/Database.h"
#include "platform/store/Index.h"

namespace tarnwell::store {

/// What a recorded change was; the same bits as the flags of the events that tell of it.
inline constexpr std::uint32_t kChangeCreated = 0x100, kChangeRemoved = 0x200, kChangeAttributes = 0x400,
                               kChangeRenamed = 0x800, kChangeModified = 0x1000;

/// An object that left a folder, or went.
struct Departure {
    std::uint64_t event = 0;
    FileID fileID{};
    std::optional<DocumentID> documentID;  ///< by which clients knew it, if it was a document
    std::uint64_t folder = 0;              ///< file ID of the folder that it left
    std::string path;                      ///< URL path where it was
};

/// A document ID that came to name another object, or none.
struct DocumentChange {
    std::uint64_t event = 0;
    DocumentID documentID{};
    std::uint64_t source = 0;       ///< file ID
    std::uint64_t destination = 0;  ///< file ID; 0 for none
};

/// What happened, in the order of event IDs. An object keeps only its last change (ObjectRow::event), so that a replay
/// tells of each object once. Under the store's mutex only.
///
/// J1: one departure for each identifier and folder, the last one.
/// J2: records never outlive what bounds them: at most kMaxDepartures departures and kMaxDocumentChanges document
///     changes; a position before the last one that was dropped cannot be replayed.
class Journal {
public:
    Journal(Database& database, Numbers& numbers);

    static constexpr std::uint64_t kMaxDepartures = 1'000'000;
    /// Each document that is saved as a new file leaves one.
    static constexpr std::uint64_t kMaxDocumentChanges = 1'000'000;

    /// Gives the row a new event and remembers what the change was. The caller writes the row.
    void recordChange(ObjectRow& row, std::uint32_t change);
    void recordDeparture(FileID fileID, std::optional<DocumentID> documentID, std::uint64_t folder,
                         const std::string& path);
    void recordDocumentChange(DocumentID documentID, std::uint64_t source, std::uint64_t destination);

    /// One record of a replay.
    struct Record {
        std::uint64_t event = 0;
        std::optional<FileID> changed;       ///< an object's change …
        std::optional<Departure> departure;  ///< … or a departure
    };
    /// Changes and departures after a position, in order, at most `limit`; departures only when asked so.
    std::vector<Record> recordsAfter(std::uint64_t event, std::size_t limit, bool departuresOnly);
    std::vector<DocumentChange> documentChangesAfter(std::uint64_t event, std::size_t limit);
    /// The object's departures after a position.
    std::vector<Departure> departuresOf(FileID fileID, std::uint64_t after);
    /// The last departure under which clients may know the object.
    std::optional<Departure> departureOf(FileID fileID);

    /// The oldest position that can be replayed, but for those lost in a power cut.
    std::uint64_t floor();
    std::uint64_t departureCount();
    /// True when everything after the position is still told.
    bool canReplayAfter(std::uint64_t event);
    /// Remembers that the events in (after, upTo] were lost in a power cut.
    void addLostRange(std::uint64_t after, std::uint64_t upTo);
    /// Drops the oldest records past the bounds.
    void trim(std::uint64_t mostDepartures = kMaxDepartures, std::uint64_t mostDocumentChanges = kMaxDocumentChanges);

private:
    void dropOldest(const char* table, std::uint64_t most);

    Database& database_;
    Numbers& numbers_;
    Statement removeDeparture_, addDeparture_, addDocumentChange_, departuresAfter_, departuresOf_, changesAfter_,
        lostAround_, floor_;
};

}  // namespace tarnwell::store
