#include <fcntl.h>
#include <sys/stat.h>

#include "platform/files/ComparisonRun.h"
#include "platform/files/FormerFolder.h"

namespace tarnwell::files {

namespace {

using store::EntryRow;
using store::ObjectRow;
using store::ObjectState;

}  // namespace

Result<ObjectRow> ComparisonRun::rootRow(const std::shared_ptr<const Root>& root) {
    auto status = filesystem::statusOf(root->directory.get());
    if (!status) return failure(status.error());
    if (auto released = release(); !released) return failure(released.error());
    auto identity = comparer_.identityOf(*status, root->directory.get());
    if (!identity) return failure(identity.error());
    if (auto parted = partFromFormers(*root, *status, *identity); !parted) return failure(parted.error());
    auto row = session().index().byIdentity(*identity);
    if (row && row->parent == 0 && row->name == root->name && row->state == ObjectState::live) return *row;
    write();
    if (row) {
        // Known from before as a folder inside another root, or as this root under another name.
        row->parent = 0;
        row->name = root->name;
        row->state = ObjectState::live;
        row->visible = true;
        row->package = false;
        row->listed = 0;
        session().index().update(*row);
        return *row;
    }
    if (root->isVersion) {
        auto former = succeed(*root, *identity);
        if (!former) return failure(former.error());
        if (*former) return **former;
        write();
    }
    ObjectRow fresh;
    fresh.identity = *identity;
    fresh.name = root->name;
    fresh.kind = FileKind::directory;
    fresh.visible = true;
    fresh.modified = status->modified;
    fresh.changed = status->changed;
    session().index().insert(fresh);
    return fresh;
}

/// Another folder stands where a library's was. What that one held is gone if it was removed: nobody can remove a
/// folder that holds something, so what did lie in it is to be looked for elsewhere. Moved or covered by a mount, it is
/// unavailable, and all in it stays what it is.
Result<void> ComparisonRun::partFromFormers(const Root& root, const filesystem::Status& status,
                                            const store::ObjectIdentity& identity) {
    if (root.isVersion) return {};  // it is succeeded by the next one
    // Several, where nobody asked for what was in between.
    for (const auto& former : comparer_.roots_.formersOf(root.name)) {
        if (auto parted = partFromHeld(*former); !parted) return parted;
        comparer_.roots_.letGo(former);
    }
    if (comparer_.rootsMet_.contains(root.number)) return {};
    if (auto parted = partFromEarlier(root, status, identity); !parted) return parted;
    comparer_.rootsMet_.insert(root.number);
    return {};
}

/// Its open descriptor tells what became of the folder.
Result<void> ComparisonRun::partFromHeld(const Root& former) {
    const auto status = filesystem::statusOf(former.directory.get());
    if (!status) return failure(status.error());
    if (auto released = release(); !released) return released;
    const auto identity = comparer_.identityOf(*status, former.directory.get());
    if (!identity) return failure(identity.error());
    auto row = session().index().byIdentity(*identity);
    // By now it may be known as a folder below another root.
    if (!row || row->parent != 0 || row->name != former.name) return session().check();
    if (status->links == 0) {
        forgetFormer(std::move(*row));
    } else {
        unwatchBelow(row->fileID);
        comparer_.formersMoved_.insert(row->fileID);
    }
    return session().check();
}

/// A folder that had the name when an earlier program ran is held open by nobody. It counts as gone unless it is on
/// another file system, which may be mounted again, or may come back otherwise.
Result<void> ComparisonRun::partFromEarlier(const Root& root, const filesystem::Status& status,
                                            const store::ObjectIdentity& identity) {
    const auto fileSystem = comparer_.knownFileSystem(status.device);
    if (!fileSystem || !fileSystem->isNamed) return {};
    for (ObjectRow& row : session().index().childrenNamed(FileID{0}, root.name)) {
        if (row.identity == identity || row.identity.fileSystem != identity.fileSystem) continue;
        if (comparer_.formersMoved_.contains(row.fileID) || mayComeBack(root, status, row.identity)) continue;
        forgetFormer(std::move(row));
    }
    return session().check();
}

void ComparisonRun::forgetFormer(ObjectRow row) {
    unwatchBelow(row.fileID);
    write();
    row.state = ObjectState::missing;
    row.visible = false;  // its name goes on, so nobody is told that it left
    session().index().update(row);
    comparer_.unsettled_ = true;
}

/// Hints of what happens there could not be followed any more.
void ComparisonRun::unwatchBelow(FileID folder) {
    if (comparer_.watch_ == nullptr) return;
    std::vector<FileID> pending{folder};
    while (!pending.empty()) {
        const FileID next = pending.back();
        pending.pop_back();
        comparer_.watch_->forget(next);
        comparer_.unread_.erase(next);
        for (const EntryRow& row : session().index().folders(next)) pending.push_back(row.fileID);
    }
}

/// A new version of a folder was copied from the one before: what has the same name and content in it is what was
/// there, and so is the folder itself, which comes last: whoever is cut off begins again. The row of the folder, unless
/// none of its name is known.
Result<std::optional<ObjectRow>> ComparisonRun::succeed(const Root& root, const store::ObjectIdentity& identity) {
    const auto former = session().index().childNamed(FileID{0}, root.name);
    if (!former) return std::optional<ObjectRow>();
    std::vector<std::pair<FileID, std::string>> pending{{former->fileID, ""}};
    while (!pending.empty()) {
        const auto [folder, relative] = std::move(pending.back());
        pending.pop_back();
        if (auto done = succeedBelow(root, folder, relative, pending); !done) return failure(done.error());
    }
    auto row = session().index().byFileID(former->fileID);
    if (!row) return std::optional<ObjectRow>();
    write();
    row->identity = identity;
    row->listed = 0;
    session().index().update(*row);
    if (comparer_.watch_ != nullptr) comparer_.watch_->forget(row->fileID);
    return row;
}

Result<void> ComparisonRun::succeedBelow(const Root& root, FileID folder, const std::string& relative,
                                         std::vector<std::pair<FileID, std::string>>& pending) {
    const auto handle = filesystem::openBeneath(root.directory.get(), relative, O_PATH | O_DIRECTORY);
    if (!handle) return {};  // what was there is not in this version
    for (std::uint64_t position = 0;;) {
        auto children = session().index().allChildren(folder, position, kKnownAtOnce);
        if (auto checked = session().check(); !checked) return checked;
        if (children.empty()) return {};
        position = children.back().position;
        for (ObjectRow& child : children) {
            if (child.state != ObjectState::live) continue;
            const auto status = filesystem::statusAt(handle->get(), child.name.c_str());
            if (!status) continue;
            const bool isSame = child.isDirectory()
                                    ? S_ISDIR(status->mode)
                                    : S_ISREG(status->mode) && child.kind == FileKind::regular &&
                                          status->size == child.size && status->modified == child.modified;
            const auto fileSystem = comparer_.knownFileSystem(status->device);
            if (!isSame || !fileSystem) continue;
            if (child.isDirectory()) pending.emplace_back(child.fileID, joined(relative, child.name));
            const store::ObjectIdentity identity{fileSystem->number, status->inode, status->birth};
            if (session().index().byIdentity(identity)) continue;
            write();
            child.identity = identity;
            child.listed = 0;
            session().index().update(child);
            if (child.isDirectory() && comparer_.watch_ != nullptr) comparer_.watch_->forget(child.fileID);
        }
        if (auto result = breathe(); !result) return result;
    }
}

}  // namespace tarnwell::files
