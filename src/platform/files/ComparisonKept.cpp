#include "platform/files/ComparisonRun.h"

namespace tarnwell::files {

using store::ObjectRow;

// Attributes that belong to a document: remembered while it is looked at, put back on what takes its name over.

/// Adds the row of a new entry, with what it carries. The look that this takes is one that the first listing need not
/// take, if the entry turns out to be bare.
void ComparisonRun::insertWithKept(const Folder& folder, ObjectRow& row, const filesystem::Status& status) {
    std::optional<KeptAttributes::Found> found;
    if (!comparer_.kept_.isEmpty() && row.isDocument()) {
        found = comparer_.kept_.readAt(folder.descriptor, row.name.c_str(), row.identity);
        row.bare = found && found->bare && comparer_.isVouchedFor(status, folder.began);
    }
    session().index().insert(row);
    if (found && !found->kept.empty()) session().kept().set(row.fileID, found->kept);
}

/// Notes a changed document of the folder at hand, to be looked at by `lookAtKept`.
void ComparisonRun::noteKept(const ObjectRow& row) {
    if (comparer_.kept_.isEmpty() || !row.isDocument()) return;
    keptLooks_.push_back({row.fileID, row.identity, row.name});
}

/// Remembers what the noted documents carry now. They are entries of the open folder, and their changes were written
/// in the session at hand, so that both are committed or neither.
void ComparisonRun::lookAtKept(int folder) {
    for (const KeptLook& look : keptLooks_) {
        const auto found = comparer_.kept_.readAt(folder, look.name.c_str(), look.identity);
        if (!found) continue;
        write();
        session().kept().set(look.object, found->kept);
    }
    keptLooks_.clear();
}

/// The same for an open folder that is a document itself.
void ComparisonRun::lookAtKeptOf(const ObjectRow& row, int descriptor) {
    if (comparer_.kept_.isEmpty() || !row.isDocument()) return;
    auto carried = comparer_.kept_.readOf(descriptor);
    if (!carried) return;
    write();
    session().kept().set(row.fileID, *carried);
}

/// The successor's change time moves with what it is given, so that the next comparison tells of it, and finds whatever
/// else happened to the file at that moment.
void ComparisonRun::putBackKept(const ObjectRow& displaced, const ObjectRow& successor) {
    if (comparer_.kept_.isEmpty()) return;
    const auto kept = session().kept().of(displaced.fileID);
    if (kept.empty()) return;
    const auto place = comparer_.placeOf(session(), successor);
    if (!place) return;
    auto carried = comparer_.kept_.putBack(*place, successor.identity, kept);
    if (carried) session().kept().set(successor.fileID, *carried);
}

}  // namespace tarnwell::files
