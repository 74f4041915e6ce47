#include "platform/files/ComparisonRun.h"

#include <string>
#include <unordered_map>

#include "platform/files/FileKinds.h"

namespace tarnwell::files {

using store::ObjectRow;
using store::ObjectState;

// Which object is which: what stands in a folder now against what was known to stand there.

void ComparisonRun::difference(Folder& folder, const Reading& reading) {
    std::unordered_map<std::string_view, std::size_t> byName;
    byName.reserve(folder.known.size());
    for (std::size_t i = 0; i < folder.known.size(); ++i) {
        // A missing object may have left its name to a live one: the live one has it.
        auto [it, added] = byName.emplace(folder.known[i].name, i);
        if (!added && folder.known[i].state == ObjectState::live) it->second = i;
    }
    std::vector<store::LinkRow> links = session().index().linksIn(raw(folder.row.fileID));
    std::vector<bool> linkSeen(links.size(), false);

    std::vector<std::pair<const DiskEntry*, ObjectRow*>> unknown;
    for (const DiskEntry& entry : reading.entries) {
        auto it = byName.find(entry.name);
        ObjectRow* row = it != byName.end() ? &folder.known[it->second] : nullptr;
        if (row != nullptr && row->identity == entry.identity) {
            folder.matched[it->second] = true;
            bool attributes = row->changed != entry.status.changed || row->modified != entry.status.modified ||
                              row->size != entry.status.size;
            if (row->visible != isVisibleEntry(folder.job.context, entry.name, row->isDirectory())) {
                // It left with its folder, which became hidden, and came back with it; or the folder left and came back
                // while this one was looked at in it.
                write();
                moveHere(folder, *row, entry, false);
                folder.changed = true;
                continue;
            }
            countNames(*row, entry.status);
            if (row->state == ObjectState::missing) {
                write();
                row->state = ObjectState::live;
                session().index().setState(row->fileID, ObjectState::live);
            }
            if (attributes) {
                write();
                noteAttributes(*row, entry.status);
                noteKept(*row);
                folder.changed = true;
            }
            continue;
        }
        bool isKnownLink = false;
        for (std::size_t i = 0; i < links.size() && !isKnownLink; ++i) {
            if (links[i].name != entry.name) continue;
            auto target = session().index().byFileID(links[i].fileID);
            if (target && target->identity == entry.identity && target->state == ObjectState::live) {
                linkSeen[i] = true;
                isKnownLink = true;
                noteIfChanged(*target, entry.status);
                countNames(*target, entry.status);
                showUnder(links[i], folder.job.context);
            }
        }
        if (!isKnownLink) unknown.emplace_back(&entry, row);
    }
    for (std::size_t i = 0; i < links.size(); ++i) {
        if (linkSeen[i] || !reading.covers(links[i].name)) continue;
        write();
        session().index().removeLink(links[i]);
        noteOtherName(links[i]);
    }
    for (std::size_t i = 0; i < folder.known.size(); ++i) {
        if (folder.matched[i] || folder.known[i].state == ObjectState::missing) continue;
        write();
        folder.known[i].state = ObjectState::missing;
        session().index().setState(folder.known[i].fileID, ObjectState::missing);
        folder.changed = true;
        comparer_.unsettled_ = true;
    }
    for (auto& [entry, displaced] : unknown) {
        write();
        placeUnknown(folder, *entry, displaced, reading);
        folder.changed = true;
    }
}

/// A file that clients do not see where it is known to be is shown under this further name of it, if they see that.
void ComparisonRun::showUnder(const store::LinkRow& link, const FolderContext& context) {
    auto row = session().index().byFileID(link.fileID);
    if (!row || row->visible || row->state != ObjectState::live || !isVisibleEntry(context, link.name, false)) return;
    write();
    const store::LinkRow former{row->fileID, row->parent, row->name, 0};
    session().index().removeLink(link);
    row->parent = link.parent;
    row->name = link.name;
    row->position = session().numbers().nextPosition();
    row->visible = true;
    if (row->isDocument() && !row->documentID) row->documentID = session().numbers().nextDocument();
    session().journal().recordChange(*row, store::kChangeCreated);
    session().index().update(*row);
    session().index().addLink(former);
}

/// A file went out of the clients' sight where it was: another name that it has may be where they see it.
void ComparisonRun::showElsewhere(const ObjectRow& row) {
    for (const store::LinkRow& link : session().index().linksOf(row.fileID)) {
        const auto folder = session().index().byFileID(FileID{link.parent});
        if (!folder) continue;
        if (folder->state == ObjectState::live && statusAtLink(row, link)) {
            showUnder(link, contextOf(*folder));
        } else {
            distrust(folder->fileID);  // with a folder above it, it may have moved on
        }
    }
}

/// A hint under a name that a file no longer has may have been of the file, and the name may be one elsewhere now.
void ComparisonRun::noteOtherName(const store::LinkRow& link) {
    if (comparer_.watch_ == nullptr) return;
    auto row = session().index().byFileID(link.fileID);
    if (!row || row->state != ObjectState::live) return;
    const auto status = statusAtPlaceOf(*row);
    if (!status || !comparer_.isObject(*row, *status)) return;
    noteIfChanged(*row, *status);
    countNames(*row, *status);
}

std::optional<filesystem::Status> ComparisonRun::statusAtPlaceOf(const ObjectRow& row) {
    auto place = comparer_.placeOf(session(), row);
    if (!place) return std::nullopt;
    auto status = filesystem::statusBeneath(place->root->directory.get(), place->relative);
    return status ? std::optional(*status) : std::nullopt;
}

void ComparisonRun::placeUnknown(Folder& folder, const DiskEntry& entry, ObjectRow* displaced, const Reading& reading) {
    auto row = session().index().byIdentity(entry.identity);
    if (!row) {
        addNew(folder, entry, displaced);
        return;
    }
    if (row->parent == 0) return;
    bool here = row->parent == raw(folder.row.fileID) && row->name == entry.name;
    if (here && row->state != ObjectState::gone) {
        // Brought here already, as the other half of an exchange.
        row->state = ObjectState::live;
        noteAttributes(*row, entry.status);
        noteKept(*row);
        return;
    }
    auto left = displaced == nullptr ? recentlyLeft(folder, entry) : std::nullopt;
    if (left && left->fileID != row->fileID) displaced = &*left;
    auto heritage = heritageAt(folder, entry, displaced);
    if (heritage && heritage->displaced == row->fileID) heritage.reset();  // back at its own name
    // What stands now where the object was known to be?
    std::optional<std::pair<std::uint64_t, std::int64_t>> there;
    if (row->state != ObjectState::gone) {
        if (row->parent == raw(folder.row.fileID) && reading.covers(row->name)) {
            if (const DiskEntry* other = reading.find(row->name)) there = {other->status.inode, other->status.birth};
        } else {
            ObjectRow asLive = *row;
            asLive.state = ObjectState::live;
            if (auto status = statusAtPlaceOf(asLive)) there = {status->inode, status->birth};
        }
    }
    if (there && there->first == row->identity.inode && there->second == row->identity.birth) {
        // Two names at once: a further hard link. Folders seen twice (bind mounts) keep their first place.
        if (row->isDirectory()) return;
        store::LinkRow further{row->fileID, raw(folder.row.fileID), entry.name, 0};
        if (!row->visible && isVisibleEntry(folder.job.context, entry.name, false)) {
            // It is shown where clients may see it.
            further = {row->fileID, row->parent, row->name, 0};
            moveHere(folder, *row, entry, false);
        } else {
            // It may have been written to under this name, and no hint is of the other.
            noteIfChanged(*row, entry.status);
        }
        session().index().addLink(further);
        countNames(*row, entry.status);
        return;
    }
    if (there && heritage && heritage->displaced == displaced->fileID && !left && row->kind == displaced->kind &&
        row->documentID && there->first == displaced->identity.inode && there->second == displaced->identity.birth &&
        exchange(folder, entry, *displaced, *row)) {
        return;
    }
    store::Takeover takeover;
    if (heritage) {
        takeover.displaced = heritage->displaced;
        takeover.documentID = heritage->documentID;
        takeover.isRecent = isLive();
        takeover.successorsOldFolder = row->visible && row->state != ObjectState::gone ? row->parent : 0;
        takeover.successorsOldPath = pathOf(*row);
    }
    moveHere(folder, *row, entry, heritage.has_value());
    if (heritage) {
        takeover.successor = row->fileID;
        takeover.folder = raw(folder.row.fileID);
        takeover.name = entry.name;
        noteTakeover(std::move(takeover));
    }
}

/// Two documents changed names with each other: each name keeps its document ID. False when the other one cannot be
/// brought to its new place from here.
bool ComparisonRun::exchange(Folder& folder, const DiskEntry& entry, ObjectRow& displaced, ObjectRow& moved) {
    ObjectRow fresh = displaced;
    const std::uint64_t movedPosition = moved.position;
    std::swap(fresh.parent, moved.parent);
    std::swap(fresh.name, moved.name);
    moved.position = fresh.position;
    std::swap(fresh.visible, moved.visible);
    std::swap(fresh.package, moved.package);
    auto first = fresh.documentID, second = moved.documentID;
    // Document IDs and positions are unique: taken off before they are given to the other.
    fresh.documentID.reset();
    fresh.position = session().numbers().nextPosition();
    fresh.state = ObjectState::live;
    fresh.setChanged(0);  // looked at again with its own folder
    session().index().update(fresh);
    moved.documentID = first;
    moved.state = ObjectState::live;
    moved.size = entry.status.size;
    moved.modified = entry.status.modified;
    moved.setChanged(entry.status.changed);
    session().journal().recordDocumentChange(*first, raw(fresh.fileID), raw(moved.fileID));
    if (moved.visible) session().journal().recordChange(moved, store::kChangeModified);
    session().index().update(moved);
    noteKept(moved);
    fresh.documentID = second;
    fresh.position = movedPosition;
    session().journal().recordDocumentChange(*second, raw(moved.fileID), raw(fresh.fileID));
    if (fresh.visible) session().journal().recordChange(fresh, store::kChangeModified);
    session().index().update(fresh);
    displaced = fresh;
    for (std::size_t i = 0; i < folder.known.size(); ++i) {
        if (folder.known[i].fileID == fresh.fileID || folder.known[i].fileID == moved.fileID) folder.matched[i] = true;
    }
    return true;
}

/// In a trash a name says nothing: what was put there under one that was free is no new version of what had it before.
/// (Of the hidden folders only a root's own trash is visible.)
bool ComparisonRun::keepsNames(const Folder& folder) {
    return !(folder.row.visible && folder.row.name.starts_with('.'));
}

/// What the entry takes over by coming to a name that another had.
std::optional<ComparisonRun::Heritage> ComparisonRun::heritageAt(const Folder& folder, const DiskEntry& entry,
                                                                 const ObjectRow* displaced) {
    if (filesystem::OwnChanges* own = comparer_.ownChanges_) {
        if (own->found(ownName(folder.row, entry.name, entry.identity), filesystem::OwnChanges::Change::given))
            return {};
        if (displaced != nullptr && own->wasTaken(ownName(folder.row, entry.name, displaced->identity))) return {};
    }
    return keepsNames(folder) ? heritageOf(displaced) : std::nullopt;
}

/// The document that left this name a short time ago, in a comparison that went before.
std::optional<ObjectRow> ComparisonRun::recentlyLeft(const Folder& folder, const DiskEntry& entry) {
    if (!isLive() || !keepsNames(folder)) return std::nullopt;
    const auto left = comparer_.recentlyLeft({raw(folder.row.fileID), entry.name});
    if (!left) return std::nullopt;
    auto row = session().index().byFileID(left->object);
    return row && row->documentID == left->documentID ? row : std::nullopt;
}

void ComparisonRun::addNew(Folder& folder, const DiskEntry& entry, ObjectRow* displaced) {
    auto left = displaced == nullptr ? recentlyLeft(folder, entry) : std::nullopt;
    if (left) displaced = &*left;
    ObjectRow row;
    row.identity = entry.identity;
    row.parent = raw(folder.row.fileID);
    row.name = entry.name;
    row.kind = kindOf(entry.status.mode);
    row.package = row.isDirectory() && comparer_.types_.isPackageName(entry.name);
    row.visible = isVisibleEntry(folder.job.context, entry.name, row.isDirectory());
    row.size = entry.status.size;
    row.modified = entry.status.modified;
    row.setChanged(entry.status.changed);
    auto heritage = heritageAt(folder, entry, displaced);
    if (!row.isDocument()) heritage.reset();
    if (row.visible) {
        if (row.isDocument() && !heritage) row.documentID = session().numbers().nextDocument();
        session().journal().recordChange(row, store::kChangeCreated);
    }
    insertWithKept(folder, row, entry.status);
    countNames(row, entry.status);
    if (heritage) {
        noteTakeover({heritage->displaced, heritage->documentID, row.fileID, row.parent, row.name, 0, "", isLive()});
    }
}

/// Brings a known object to the folder: renamed in it, moved into it, or back after it was gone.
void ComparisonRun::moveHere(Folder& folder, ObjectRow& row, const DiskEntry& entry, bool keepDocumentOpen) {
    ObjectRow old = row;
    bool toldOf = old.visible && old.state != ObjectState::gone;
    std::string oldPath = toldOf ? pathOf(old) : std::string();
    bool sameFolder = old.parent == raw(folder.row.fileID);
    if (toldOf && (!sameFolder || old.name != entry.name)) comparer_.noteLeft(session(), old);

    row.parent = raw(folder.row.fileID);
    row.name = entry.name;
    row.kind = kindOf(entry.status.mode);
    row.package = row.isDirectory() && comparer_.types_.isPackageName(entry.name);
    row.visible = isVisibleEntry(folder.job.context, entry.name, row.isDirectory());
    row.state = ObjectState::live;
    row.size = entry.status.size;
    row.modified = entry.status.modified;
    row.setChanged(entry.status.changed);
    bool showedContents = row.isDirectory() && toldOf && !old.package;
    bool showsNow = row.isDirectory() && row.visible && !row.package;
    if (showedContents && !showsNow) {
        // Deepest first: what lies below leaves before the folder. It stands there still, unseen, and is found as what
        // it is when the folder is read again.
        for (const ObjectRow& child : session().index().allChildren(row.fileID)) {
            if (child.visible) leave(child, oldPath + "/" + child.name, Leaving::hidden);
        }
        row.listed = 0;
        if (comparer_.watch_ != nullptr) comparer_.unread_.insert(row.fileID);
    }
    // What becomes visible came in: before that no listing counted it.
    const bool cameIn = !sameFolder || old.state == ObjectState::gone || (row.visible && !old.visible);
    if (cameIn) row.position = session().numbers().nextPosition();
    // Missing and unseen, it went out of sight with its folder, in which nobody looked for it.
    const bool wasLookedFor = old.state == ObjectState::missing && old.visible;
    if (entry.status.links > 1 && !sameFolder && !wasLookedFor) distrust(FileID{old.parent});
    if (row.isDocument() != old.isDocument() && row.documentID) {
        // A folder that is no package any more is known by its file ID again.
        if (toldOf) session().journal().recordDeparture(row.fileID, row.documentID, old.parent, oldPath);
        session().journal().recordDocumentChange(*row.documentID, raw(row.fileID), 0);
        row.documentID.reset();
    } else if (toldOf && (!sameFolder || !row.visible || row.isDocument() != old.isDocument())) {
        session().journal().recordDeparture(row.fileID, row.documentID, old.parent, oldPath);
    }
    if (row.visible) {
        if (row.isDocument() && !row.documentID && !keepDocumentOpen) {
            row.documentID = session().numbers().nextDocument();
        }
        session().journal().recordChange(row, toldOf ? store::kChangeRenamed : store::kChangeCreated);
    }
    if (row.isDirectory() && old.state == ObjectState::gone) {
        row.listed = 0;
        if (comparer_.watch_ != nullptr) comparer_.unread_.insert(row.fileID);
    }
    session().index().update(row);
    noteKept(row);
    countNames(row, entry.status);
    if (showsNow && !showedContents && old.state != ObjectState::gone) {
        arrive(row, contextBelow(folder.job.context, row));
    }
    // Nothing hints at the other names.
    if (toldOf && !row.visible && !row.isDirectory()) showElsewhere(row);
}

/// A name that a file with several names is known to have in this folder was not looked at: with a folder above it, it
/// may have moved on and hold the name still, and by its change time nothing happened in it.
void ComparisonRun::distrust(FileID folder) {
    const auto row = session().index().byFileID(folder);
    if (!row) return;
    session().index().setListed(folder, 0, row->entries);
    if (comparer_.watch_ != nullptr) comparer_.unread_.insert(folder);
}

/// Makes what lies below a folder that became visible known to clients.
void ComparisonRun::arrive(const ObjectRow& folder, const FolderContext& context) {
    std::vector<std::pair<FileID, FolderContext>> pending{{folder.fileID, context}};
    while (!pending.empty()) {
        auto [id, below] = pending.back();
        pending.pop_back();
        for (ObjectRow& child : session().index().allChildren(id)) {
            child.visible = isVisibleEntry(below, child.name, child.isDirectory());
            if (child.visible) {
                if (child.isDocument() && !child.documentID) child.documentID = session().numbers().nextDocument();
                session().journal().recordChange(child, store::kChangeCreated);
            }
            session().index().update(child);
            if (child.isDirectory()) pending.emplace_back(child.fileID, contextBelow(below, child));
        }
        for (const store::LinkRow& link : session().index().linksIn(raw(id))) showUnder(link, below);
    }
}

std::string ComparisonRun::pathOf(const ObjectRow& row) {
    std::string path = row.name;
    std::uint64_t parent = row.parent;
    // The folders above may be missing by now; the path is where clients knew the object.
    for (int depth = 0; parent != 0 && depth < 1'000'000; ++depth) {
        auto folder = session().index().byFileID(FileID{parent});
        if (!folder) break;
        path = folder->name + "/" + path;
        parent = folder->parent;
    }
    return path;
}

}  // namespace tarnwell::files
