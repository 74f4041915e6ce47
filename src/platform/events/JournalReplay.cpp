#include "platform/events/JournalReplay.h"

namespace tarnwell::events {

namespace {

/// The last name of a path, with a slash before it.
std::string tailOf(const std::string& path) { return "/" + path.substr(path.rfind('/') + 1); }

/// Somewhat more than a reader takes at once.
constexpr std::size_t kBatch = 256;

std::string pathOf(const Place& place) {
    return place.relative.empty() ? place.root->name : place.root->name + "/" + place.relative;
}

}  // namespace

Result<bool> JournalReplay::canReplayAfter(EventID since) {
    if (raw(since) > raw(store_.lastEventID())) return false;
    store::Session session(store_);
    bool can = session.journal().canReplayAfter(raw(since));
    if (auto checked = session.check(); !checked) return failure(checked.error());
    return can;
}

bool JournalReplay::isBelowFolders(std::string_view path) const {
    for (const Place& folder : scope_.folders) {
        if (relationship(pathOf(folder), path) == Relationship::contains) return true;
    }
    return false;
}

std::optional<std::string> JournalReplay::pathBelowFolders(store::Session& session, const store::ObjectRow& row) {
    if (row.state != store::ObjectState::live || !row.visible) return std::nullopt;
    auto place = comparer_.placeOf(session, row);
    if (!place) return std::nullopt;
    std::string path = pathOf(*place);
    return isBelowFolders(path) ? std::optional(std::move(path)) : std::nullopt;
}

Result<JournalReplay::Batch> JournalReplay::batchAfter(EventID since, EventID upTo) {
    Batch batch;
    batch.reached = upTo;
    goesOn_ = raw(since) > begunAt();
    // Not in the middle of a comparison: what it has not found yet looks as if it were nowhere, and its record, once
    // passed over, is not told again.
    const auto rest = comparer_.atRest();
    store::Session session(store_);
    if (std::holds_alternative<StreamOverDevice>(options_.over)) {
        auto changes = session.journal().documentChangesAfter(raw(since), kBatch);
        for (const store::DocumentChange& change : changes) {
            if (change.event > raw(upTo)) break;
            if (auto event = eventForDocument(session, change)) batch.events.push_back(std::move(*event));
        }
        batch.more = changes.size() == kBatch && changes.back().event < raw(upTo);
        if (batch.more) batch.reached = EventID{changes.back().event};
    } else {
        auto records =
            session.journal().recordsAfter(raw(since), kBatch, options_.interest == Interest::departuresOnly);
        for (const store::Journal::Record& record : records) {
            if (record.event > raw(upTo)) break;
            if (auto event = eventFor(session, record)) batch.events.push_back(std::move(*event));
        }
        batch.more = records.size() == kBatch && records.back().event < raw(upTo);
        if (batch.more) batch.reached = EventID{records.back().event};
    }
    if (auto checked = session.check(); !checked) return failure(checked.error());
    return batch;
}

std::optional<FileEvent> JournalReplay::eventFor(store::Session& session, const store::Journal::Record& record) {
    if (record.departure) return eventForDeparture(session, *record.departure);
    auto row = session.index().byFileID(*record.changed);
    return row ? eventForObject(session, *row, EventID{record.event}) : std::nullopt;
}

std::optional<FileEvent> JournalReplay::eventForObject(store::Session& session, const store::ObjectRow& row,
                                                       EventID event) {
    auto path = pathBelowFolders(session, row);
    if (!path) return std::nullopt;
    std::uint32_t flags = row.change;
    if (row.isDirectory() && !row.package) {
        std::set<FileID> asked;
        const bool brought = broughtContents(session, row.fileID) || wasDropped(session, row.fileID, row.event, asked);
        if (brought) flags |= kEventItemBroughtContents;
    }
    return FileEvent{event, flags, std::move(path), row.fileID, row.documentID};
}

/// True when the reader may have been told, since the folder left another one, that this one or one above it is gone:
/// he drops what hung under it, and the folder came out of it only now to him. What he was told in earlier batches is
/// not known any more: what left then may be back, or have left once more. Then this may be true without need, never
/// false.
bool JournalReplay::wasDropped(store::Session& session, FileID folder, std::uint64_t before, std::set<FileID>& asked) {
    if (!asked.insert(folder).second) return false;
    for (const store::Departure& departure : session.journal().departuresOf(folder, begunAt())) {
        for (std::uint64_t above = departure.folder; above != 0;) {
            for (const store::Departure& end : session.journal().departuresOf(FileID{above}, begunAt())) {
                if (goesOn_ || (end.event < before && !isAlive(session, end))) return true;
            }
            if (wasDropped(session, FileID{above}, before, asked)) return true;
            const auto row = session.index().byFileID(FileID{above});
            above = row ? row->parent : 0;
        }
    }
    return false;
}

/// True when the reader may not know what the folder holds: since he began, it, or a folder that it was in, came from
/// outside the stream's folders. What only the contents of a folder know is where it was at each time, so this may be
/// true without need, never false.
bool JournalReplay::broughtContents(store::Session& session, FileID folder, int depth) {
    constexpr int kDeepest = 64;
    if (scope_.isEverything) return false;
    if (depth == kDeepest) return true;
    for (const store::Departure& departure : session.journal().departuresOf(folder, begunAt())) {
        if (!isBelowFolders(departure.path)) return true;
        // It left that one; was that one here all the time, and whatever that one is in now?
        auto left = session.index().byFileID(FileID{departure.folder});
        while (left && left->parent != 0) {
            if (broughtContents(session, left->fileID, depth + 1)) return true;
            left = session.index().byFileID(FileID{left->parent});
        }
        if (!left) return true;
    }
    return false;
}

/// True when what left is below the stream's folders still, or again. A document that another object carries now is
/// alive as that object.
bool JournalReplay::isAlive(store::Session& session, const store::Departure& departure) {
    const auto alive = departure.documentID ? session.index().byDocumentID(*departure.documentID)
                                            : session.index().byFileID(departure.fileID);
    return alive && alive->documentID == departure.documentID && pathBelowFolders(session, *alive);
}

/// A path below the stream's folders at which the departure is told; nothing if it did not leave a place below them.
/// Folders on the way may have other names by now, the stream's own among them, or be gone as well.
std::optional<std::string> JournalReplay::pathOfDeparture(store::Session& session, const store::Departure& departure) {
    if (isBelowFolders(departure.path)) return departure.path;
    constexpr int kDeepest = 4096;
    std::string tail = tailOf(departure.path);
    FileID folder{departure.folder};
    for (int depth = 0; depth < kDeepest; ++depth) {
        const auto row = session.index().byFileID(folder);
        const auto place =
            row && row->state == store::ObjectState::live ? comparer_.placeOf(session, *row) : std::nullopt;
        if (place) {
            std::string path = pathOf(*place) + tail;
            return isBelowFolders(path) ? std::optional(std::move(path)) : std::nullopt;
        }
        const auto left = session.journal().departureOf(folder);
        if (!left) return std::nullopt;
        tail = tailOf(left->path) + tail;
        folder = FileID{left->folder};
    }
    return std::nullopt;
}

std::optional<FileEvent> JournalReplay::eventForDeparture(store::Session& session, const store::Departure& departure) {
    // The record of what is alive tells where it is. Who is told of departures only is told of every one: it is the
    // folder that something left that counts for him.
    if (options_.interest == Interest::everything && isAlive(session, departure)) return std::nullopt;
    auto path = pathOfDeparture(session, departure);
    if (!path) return std::nullopt;
    return FileEvent{EventID{departure.event}, kEventItemRemoved, std::move(path), departure.fileID,
                     departure.documentID};
}

std::optional<FileEvent> JournalReplay::eventForDocument(store::Session& session, const store::DocumentChange& change) {
    // Told only when no path record that this reader gets tells of the document.
    auto row = session.index().byDocumentID(change.documentID);
    // What clients do not see they are not told of; that it went out of their sight is told by path.
    if (row && !row->visible) return std::nullopt;
    if (row && row->state == store::ObjectState::live && row->event > begunAt()) return std::nullopt;
    if (auto source = session.journal().departureOf(FileID{change.source});
        source && source->documentID == change.documentID && source->event > begunAt()) {
        return std::nullopt;
    }
    const auto& device = std::get<StreamOverDevice>(options_.over);
    std::string path = device.path + "/" + std::to_string(raw(device.device)) + "/changed/" +
                       std::to_string(raw(change.documentID)) + "/src=" + std::to_string(change.source) +
                       ",dst=" + std::to_string(change.destination);
    return FileEvent{EventID{change.event}, kEventItemModified, std::move(path), std::nullopt, change.documentID};
}

}  // namespace tarnwell::events
