#include "platform/store/Journal.h"

#include "platform/store/Numbers.h"

namespace tarnwell::store {

Journal::Journal(Database& database, Numbers& numbers)
    : database_(database),
      numbers_(numbers),
      removeDeparture_(database, "DELETE FROM departure WHERE fileID = ? AND folder = ? AND docID IS ?"),
      addDeparture_(database, "INSERT INTO departure(event, fileID, docID, folder, path) VALUES(?, ?, ?, ?, ?)"),
      addDocumentChange_(database,
                         "INSERT OR REPLACE INTO docchange(docID, event, source, destination) VALUES(?, ?, ?, ?)"),
      departuresAfter_(
          database, "SELECT event, fileID, docID, folder, path FROM departure WHERE event > ? ORDER BY event LIMIT ?"),
      departuresOf_(database,
                    "SELECT event, fileID, docID, folder, path FROM departure WHERE fileID = ? AND event > ?"),
      changesAfter_(database, "SELECT event, fileID FROM object WHERE event > ? AND event > 0 ORDER BY event LIMIT ?"),
      lostAround_(database, "SELECT 1 FROM lost WHERE after < ?1 AND upTo > ?1"),
      floor_(database, "SELECT value FROM meta WHERE key = 'journalFloor'") {}

void Journal::recordChange(ObjectRow& row, std::uint32_t change) {
    row.event = raw(numbers_.nextEvent());
    row.change = change;
}

void Journal::recordDeparture(FileID fileID, std::optional<DocumentID> documentID, std::uint64_t folder,
                              const std::string& path) {
    StatementScope remove(removeDeparture_), add(addDeparture_);
    remove->bind(1, raw(fileID)).bind(2, folder);
    add->bind(1, raw(numbers_.nextEvent())).bind(2, raw(fileID)).bind(4, folder).bindBytes(5, path);
    if (documentID) {
        remove->bind(3, raw(*documentID));
        add->bind(3, raw(*documentID));
    } else {
        remove->bindNull(3);
        add->bindNull(3);
    }
    remove->run();
    add->run();
}

void Journal::recordDocumentChange(DocumentID documentID, std::uint64_t source, std::uint64_t destination) {
    StatementScope add(addDocumentChange_);
    add->bind(1, raw(documentID)).bind(2, raw(numbers_.nextEvent())).bind(3, source).bind(4, destination).run();
}

namespace {

Departure departureFrom(const Statement& s) {
    Departure departure;
    departure.event = s.unsignedAt(0);
    departure.fileID = FileID{s.unsignedAt(1)};
    if (!s.isNullAt(2)) departure.documentID = DocumentID{static_cast<std::uint32_t>(s.unsignedAt(2))};
    departure.folder = s.unsignedAt(3);
    departure.path = s.bytesAt(4);
    return departure;
}

}  // namespace

std::vector<Journal::Record> Journal::recordsAfter(std::uint64_t event, std::size_t limit, bool departuresOnly) {
    std::vector<Record> departures, changes, merged;
    StatementScope left(departuresAfter_);
    left->bind(1, event).bind(2, limit);
    while (left->step()) {
        Departure departure = departureFrom(departuresAfter_);
        departures.push_back({departure.event, std::nullopt, std::move(departure)});
    }
    if (departuresOnly) return departures;
    StatementScope changed(changesAfter_);
    changed->bind(1, event).bind(2, limit);
    while (changed->step()) {
        changes.push_back({changesAfter_.unsignedAt(0), FileID{changesAfter_.unsignedAt(1)}, std::nullopt});
    }

    merged.reserve(std::min(limit, departures.size() + changes.size()));
    std::size_t i = 0, j = 0;
    while (merged.size() < limit && (i < departures.size() || j < changes.size())) {
        bool takeDeparture = j == changes.size() || (i < departures.size() && departures[i].event < changes[j].event);
        merged.push_back(std::move(takeDeparture ? departures[i++] : changes[j++]));
    }
    return merged;
}

std::vector<DocumentChange> Journal::documentChangesAfter(std::uint64_t event, std::size_t limit) {
    std::vector<DocumentChange> changes;
    Statement s(database_,
                "SELECT event, docID, source, destination FROM docchange WHERE event > ? ORDER BY event LIMIT ?");
    s.bind(1, event).bind(2, limit);
    while (s.step()) {
        changes.push_back({s.unsignedAt(0), DocumentID{static_cast<std::uint32_t>(s.unsignedAt(1))}, s.unsignedAt(2),
                           s.unsignedAt(3)});
    }
    return changes;
}

std::vector<Departure> Journal::departuresOf(FileID fileID, std::uint64_t after) {
    std::vector<Departure> departures;
    StatementScope s(departuresOf_);
    s->bind(1, raw(fileID)).bind(2, after);
    while (s->step()) departures.push_back(departureFrom(departuresOf_));
    return departures;
}

std::optional<Departure> Journal::departureOf(FileID fileID) {
    Statement s(database_,
                "SELECT event, fileID, docID, folder, path FROM departure WHERE fileID = ? ORDER BY event DESC");
    s.bind(1, raw(fileID));
    return s.step() ? std::optional(departureFrom(s)) : std::nullopt;
}

std::uint64_t Journal::floor() {
    StatementScope floor(floor_);
    return floor->step() ? floor_.unsignedAt(0) : 0;
}

std::uint64_t Journal::departureCount() {
    Statement count(database_, "SELECT count(*) FROM departure");
    return count.step() ? count.unsignedAt(0) : 0;
}

bool Journal::canReplayAfter(std::uint64_t event) {
    // A lost range (after, upTo]: a position inside it was handed out by a run whose records are gone, except its end,
    // from which everything is recorded again.
    StatementScope lost(lostAround_);
    lost->bind(1, event);
    if (lost->step()) return false;
    return event >= floor();
}

void Journal::addLostRange(std::uint64_t after, std::uint64_t upTo) {
    Statement add(database_, "INSERT INTO lost(after, upTo) VALUES(?, ?)");
    add.bind(1, after).bind(2, upTo).run();
}

void Journal::trim(std::uint64_t mostDepartures, std::uint64_t mostDocumentChanges) {
    dropOldest("departure", mostDepartures);
    dropOldest("docchange", mostDocumentChanges);
}

void Journal::dropOldest(const char* table, std::uint64_t most) {
    const std::string name(table);
    Statement count(database_, "SELECT count(*) FROM " + name);
    if (!count.step() || count.unsignedAt(0) <= most) return;
    const std::uint64_t surplus = count.unsignedAt(0) - most;
    count.reset();
    Statement last(database_, "SELECT event FROM " + name + " ORDER BY event LIMIT 1 OFFSET ?");
    last.bind(1, surplus - 1);
    if (!last.step()) return;
    const std::uint64_t dropped = last.unsignedAt(0);
    last.reset();
    Statement drop(database_, "DELETE FROM " + name + " WHERE event <= ?");
    drop.bind(1, dropped).run();
    if (dropped <= floor()) return;
    Statement remember(database_, "INSERT OR REPLACE INTO meta(key, value) VALUES('journalFloor', ?)");
    remember.bind(1, dropped).run();
}

}  // namespace tarnwell::store
