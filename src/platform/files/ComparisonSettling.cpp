#include "platform/files/ComparisonRun.h"

#include <algorithm>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/files/BackupName.h"

namespace tarnwell::files {

using store::ObjectRow;
using store::ObjectState;

// The end of a run: documents that were replaced under their names, and objects that were found nowhere.

Result<void> ComparisonRun::finish() {
    const bool isAllKnown =
        coversRoots_ || (isHinted_ && comparer_.watch_ != nullptr && comparer_.watch_->isComplete());
    if (comparer_.takeoversLeft_) {
        takeovers_ = session().takeovers().all();
        if (auto checked = session().check(); !checked) return checked;
    }
    if (!takeovers_.empty() && !isAllKnown) {
        // Whether a replaced document is gone or lives elsewhere is known only when every folder was looked at.
        bool wasMissing = false;
        for (const store::Takeover& takeover : takeovers_) {
            auto row = session().index().byFileID(takeover.displaced);
            wasMissing = wasMissing || (row && row->state == ObjectState::missing);
        }
        if (wasMissing) {
            if (auto result = compareRoots(Detail::names); !result) return result;
        }
    }
    settleTakeovers();
    if (coversRoots_ && complete_) {
        // What this run is about to give up stays known until the next one: moved while the roots were looked at one
        // after the other, it stands in one that had been looked at before. Where names change all the time, several
        // looks may miss what changes places between them.
        if (comparer_.mayPurge() && !session().index().inState(ObjectState::gone, 1).empty()) {
            write();
            session().index().purgeGone();
            session().journal().trim();
            comparer_.notePurged();
        }
    }
    if (auto result = settleMissing(); !result) return result;
    if (auto released = release(); !released) return released;
    takeovers_.clear();
    comparer_.takeoversLeft_ = false;
    return {};
}

/// What is not settled for good when the run ends is left to the next one.
ComparisonRun::~ComparisonRun() {
    if (!takeovers_.empty()) comparer_.takeoversLeft_ = true;
}

std::optional<ComparisonRun::Heritage> ComparisonRun::heritageOf(const ObjectRow* displaced) {
    if (displaced == nullptr || !displaced->isDocument()) return std::nullopt;
    if (displaced->documentID) return Heritage{displaced->fileID, *displaced->documentID};
    // A version of a document that came and went before its comparison ended.
    const auto last = [&](const std::vector<store::Takeover>& takeovers) -> std::optional<Heritage> {
        for (auto takeover = takeovers.rbegin(); takeover != takeovers.rend(); ++takeover) {
            if (takeover->successor == displaced->fileID) return Heritage{takeover->displaced, takeover->documentID};
        }
        return std::nullopt;
    };
    if (auto found = last(takeovers_)) return found;
    return comparer_.takeoversLeft_ ? last(session().takeovers().all()) : std::nullopt;
}

void ComparisonRun::noteTakeover(store::Takeover takeover) {
    session().takeovers().add(takeover);
    takeovers_.push_back(std::move(takeover));
}

void ComparisonRun::settleTakeovers() {
    // Settling by index: a takeover's rows are read afresh, since one may touch the rows of another. A document that
    // takes a name over and lost its own gives its identity away before it gets another one.
    std::unordered_map<std::uint64_t, std::size_t> byDisplaced;
    for (std::size_t i = 0; i < takeovers_.size(); ++i) byDisplaced.emplace(raw(takeovers_[i].displaced), i);
    std::vector<bool> settled(takeovers_.size(), false);
    std::vector<std::size_t> chain;
    for (std::size_t i = 0; i < takeovers_.size(); ++i) {
        for (std::size_t next = i; !settled[next];) {
            settled[next] = true;
            chain.push_back(next);
            auto found = byDisplaced.find(raw(takeovers_[next].successor));
            if (found != byDisplaced.end()) next = found->second;
        }
        for (; !chain.empty(); chain.pop_back()) {
            write();
            settleTakeover(takeovers_[chain.back()]);
        }
    }
    if (!takeovers_.empty()) session().takeovers().clear();
}

void ComparisonRun::settleTakeover(const store::Takeover& takeover) {
    auto displaced = session().index().byFileID(takeover.displaced);
    auto successor = session().index().byFileID(takeover.successor);
    if (!successor || successor->state != ObjectState::live) return;
    // It went on while the comparison did, and may have another document's ID by now.
    const bool isThere = successor->parent == takeover.folder && successor->name == takeover.name;
    // In a ring of documents that changed places one has its predecessor's by now.
    // What clients see keeps its ID rather than give it to what they do not: the successor may be hidden by now.
    bool replaced = isThere && displaced && displaced->documentID == takeover.documentID && successor->isDocument() &&
                    (successor->visible || !displaced->visible) &&
                    (displaced->state == ObjectState::missing || takeover.isRecent ||
                     (displaced->state == ObjectState::live && displaced->parent == successor->parent &&
                      isBackupName(successor->name, displaced->name)));
    if (!replaced || promotable(*displaced)) {
        if (successor->visible && successor->isDocument() && !successor->documentID) {
            successor->documentID = session().numbers().nextDocument();
            session().journal().recordChange(*successor, store::kChangeCreated);
            session().index().update(*successor);
        }
        return;
    }
    if (successor->documentID) {
        // A rename over a document: the one that was renamed ends as a document of its own.
        if (takeover.successorsOldFolder != 0) {
            session().journal().recordDeparture(successor->fileID, successor->documentID, takeover.successorsOldFolder,
                                                takeover.successorsOldPath);
        }
        session().journal().recordDocumentChange(*successor->documentID, raw(successor->fileID), 0);
    }
    DocumentID document = *displaced->documentID;
    if (displaced->visible && displaced->parent != successor->parent) {
        // The displaced one is known elsewhere already: whoever looks at that folder only hears no more of the
        // document.
        session().journal().recordDeparture(displaced->fileID, document, displaced->parent, pathOf(*displaced));
    }
    displaced->documentID.reset();
    if (displaced->state == ObjectState::live) {
        // The old version under its backup name is a document of its own from now on.
        if (displaced->visible) {
            displaced->documentID = session().numbers().nextDocument();
            session().journal().recordChange(*displaced, store::kChangeCreated);
        }
        successor->position = std::min(successor->position, displaced->position);
        displaced->position = session().numbers().nextPosition();
    } else {
        displaced->state = ObjectState::gone;
        if (displaced->parent == successor->parent) {
            successor->position = displaced->position;
            displaced->position = session().numbers().nextPosition();
        }
    }
    session().index().update(*displaced);
    successor->documentID = document;
    session().journal().recordDocumentChange(document, raw(displaced->fileID), raw(successor->fileID));
    if (successor->visible) session().journal().recordChange(*successor, store::kChangeModified);
    session().index().update(*successor);
    putBackKept(*displaced, *successor);
}

/// True when a missing file still has another name.
bool ComparisonRun::promotable(const ObjectRow& row) {
    if (row.state != ObjectState::missing || row.isDirectory()) return false;
    for (const store::LinkRow& link : session().index().linksOf(row.fileID)) {
        if (statusAtLink(row, link)) return true;
    }
    return false;
}

/// The status of the file, if it stands under that further name of it.
std::optional<filesystem::Status> ComparisonRun::statusAtLink(const ObjectRow& row, const store::LinkRow& link) {
    ObjectRow there = row;
    there.parent = link.parent;
    there.name = link.name;
    there.state = ObjectState::live;
    auto status = statusAtPlaceOf(there);
    const bool isIt = status && status->inode == row.identity.inode && status->birth == row.identity.birth;
    return isIt ? status : std::nullopt;
}

/// Shows a file that is not where it was known to be under another name of it: one that clients see, if there is any.
bool ComparisonRun::promoteLink(ObjectRow& row) {
    if (row.isDirectory()) return false;
    struct Candidate {
        store::LinkRow link;
        filesystem::Status status;
        bool visible;
    };
    std::optional<Candidate> best;
    for (const store::LinkRow& link : session().index().linksOf(row.fileID)) {
        if (best && best->visible) break;
        const auto status = statusAtLink(row, link);
        if (!status) continue;
        const auto folder = session().index().byFileID(FileID{link.parent});
        if (!folder) continue;
        const bool visible = isVisibleEntry(contextOf(*folder), link.name, false);
        if (!best || visible) best = Candidate{link, *status, visible};
    }
    if (!best) return false;
    if (row.visible) {
        session().journal().recordDeparture(row.fileID, row.documentID, row.parent, pathOf(row));
    }
    row.parent = best->link.parent;
    row.name = best->link.name;
    row.position = best->link.position;
    row.state = ObjectState::live;
    row.visible = best->visible;
    if (row.visible) {
        if (row.isDocument() && !row.documentID) row.documentID = session().numbers().nextDocument();
        session().journal().recordChange(row, store::kChangeRenamed);
    }
    session().index().removeLink(best->link);
    session().index().update(row);
    countNames(row, best->status);
    return true;
}

Result<void> ComparisonRun::settleMissing() {
    if (!comparer_.unsettled_) return {};
    while (true) {
        auto missing = session().index().inState(ObjectState::missing, 256);
        if (missing.empty()) break;
        write();
        for (ObjectRow& row : missing) {
            // A folder that left earlier in this batch took what lay below it along.
            auto current = session().index().byFileID(row.fileID);
            if (!current || current->state != ObjectState::missing) continue;
            if (!promoteLink(*current)) leave(*current, pathOf(*current), Leaving::gone);
        }
        if (auto checked = session().check(); !checked) return checked;
        if (auto result = breathe(); !result) return result;
    }
    if (auto released = release(); !released) return released;
    comparer_.unsettled_ = false;
    return {};
}

/// The further names of files in a folder that is below the roots no more are names elsewhere.
void ComparisonRun::forgetFolder(FileID folder) {
    if (comparer_.watch_ != nullptr) comparer_.watch_->forget(folder);
    for (const store::LinkRow& link : session().index().linksIn(raw(folder))) {
        session().index().removeLink(link);
        noteOtherName(link);
    }
}

/// Records that an object, and all that is known below it, is there no more: deepest first.
void ComparisonRun::leave(ObjectRow row, const std::string& path, Leaving leaving) {
    struct Step {
        ObjectRow row;
        std::string path;
        bool contentsDone;
    };
    std::vector<Step> steps;
    steps.push_back({std::move(row), path, false});
    while (!steps.empty()) {
        Step step = std::move(steps.back());
        steps.pop_back();
        if (step.row.isDirectory() && !step.contentsDone) {
            auto children = session().index().allChildren(step.row.fileID);
            step.contentsDone = true;
            std::string folderPath = step.path;
            steps.push_back(std::move(step));
            for (ObjectRow& child : children) {
                // What turned up elsewhere is no child any more; what is missing too goes with its folder.
                std::string childPath = folderPath + "/" + child.name;
                steps.push_back({std::move(child), std::move(childPath), false});
            }
            continue;
        }
        // A file that has another name elsewhere lives on under that one.
        if (leaving == Leaving::gone && promoteLink(step.row)) continue;
        if (leaving == Leaving::gone && !step.row.isDirectory()) {
            // Not to be found under its other names by now, which may be since the folders above them moved.
            for (const store::LinkRow& link : session().index().linksOf(step.row.fileID)) distrust(FileID{link.parent});
        }
        if (step.row.visible) {
            session().journal().recordDeparture(step.row.fileID, step.row.documentID, step.row.parent, step.path);
            comparer_.noteLeft(session(), step.row);
        }
        if (leaving == Leaving::gone && step.row.isDirectory()) forgetFolder(step.row.fileID);
        // Hidden, a file is found where it stands when its folder is read again; if it is not, another name that it has
        // may be the one to show it under.
        if (leaving == Leaving::gone || session().index().linksOf(step.row.fileID).empty()) {
            session().index().setState(step.row.fileID, ObjectState::gone);
            comparer_.noteGone(step.row);
            continue;
        }
        step.row.visible = false;
        step.row.state = ObjectState::missing;
        session().index().update(step.row);
        comparer_.unsettled_ = true;
    }
}

}  // namespace tarnwell::files
