#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <limits>

#include "platform/files/ChangeTime.h"
#include "platform/files/ComparisonRun.h"

namespace tarnwell::files {

using store::ObjectRow;
using store::ObjectState;

// Folders of which somebody was told that something in them changed, and what. Hints merge and lose order, so each is
// only where to look; the rest of a watched folder is as it was.

namespace {

/// So many names are looked at one by one; more only where they are few of the folder's entries.
constexpr std::size_t kFewNames = 64;

bool looksAtWhole(const HintedFolder& hinted, const ObjectRow& row) {
    return hinted.everything || (hinted.names.size() > kFewNames && hinted.names.size() * 4 > row.entries);
}

bool isSameObject(const ObjectRow& row, const Result<filesystem::Status>& status) {
    return status && status->inode == row.identity.inode && status->birth == row.identity.birth;
}

}  // namespace

Result<std::vector<HintedFolder>> ComparisonRun::compareHinted(std::vector<HintedFolder> hinted) {
    isHinted_ = true;
    for (const FileID folder : comparer_.unread_) hinted.push_back({folder, true, {}});
    // From the top: a folder is found where the folders above it are known to be.
    std::vector<std::pair<std::size_t, HintedFolder>> byDepth;
    for (HintedFolder& one : hinted) {
        const auto row = session().index().byFileID(one.folder);
        const auto place = row ? comparer_.placeOf(session(), *row) : std::nullopt;
        const auto depth = place ? static_cast<std::size_t>(std::ranges::count(place->relative, '/'))
                                 : std::numeric_limits<std::size_t>::max();
        byDepth.emplace_back(depth, std::move(one));
    }
    std::ranges::stable_sort(byDepth, {}, [](const auto& entry) { return entry.first; });
    hinted.clear();
    for (auto& [depth, one] : byDepth) hinted.push_back(std::move(one));

    for (bool progress = true; progress && !hinted.empty();) {
        progress = false;
        std::vector<HintedFolder> stale;
        for (HintedFolder& one : hinted) {
            auto outcome = compareHintedFolder(one);
            if (!outcome) return failure(outcome.error());
            if (*outcome == HintOutcome::stale) {
                stale.push_back(std::move(one));
            } else {
                progress = true;
            }
            if (auto result = breathe(); !result) return failure(result.error());
        }
        hinted = std::move(stale);
    }
    return hinted;
}

/// A name that nobody watches, below no root or not found yet, is one under which a file changes without a hint.
void ComparisonRun::countNames(const store::EntryRow& row, const filesystem::Status& status) {
    if (comparer_.watch_ == nullptr || row.isDirectory()) return;
    if (status.links > 1 && status.links > 1 + session().index().linksOf(row.fileID).size()) {
        comparer_.namedElsewhere_.insert(row.fileID);
    } else {
        comparer_.namedElsewhere_.erase(row.fileID);
    }
}

Result<ComparisonRun::HintOutcome> ComparisonRun::compareHintedFolder(const HintedFolder& hinted) {
    const auto row = session().index().byFileID(hinted.folder);
    if (auto checked = session().check(); !checked) return failure(checked.error());
    if (!row || row->state == ObjectState::gone || !row->isDirectory()) {
        comparer_.unread_.erase(hinted.folder);
        return HintOutcome::done;
    }
    if (row->state == ObjectState::missing) return HintOutcome::stale;
    const auto place = comparer_.placeOf(session(), *row);
    if (!place) return HintOutcome::stale;
    const Job job{place->root, place->relative, row->fileID, contextOf(*row)};
    const auto handle = openHandle(job);
    const auto status =
        handle ? filesystem::statusOf(handle->get()) : Result<filesystem::Status>(failure(handle.error()));
    if (!isSameObject(*row, status)) return HintOutcome::stale;
    if (status->links == 0) return HintOutcome::done;
    if (isToBeRead(*row)) {
        std::vector<Job> jobs{job};
        if (auto drained = drain(std::move(jobs), Detail::everything, true); !drained) return failure(drained.error());
        return HintOutcome::done;
    }
    if (looksAtWhole(hinted, *row)) return compareHintedWhole(job);
    return compareHintedNames(job, *row, hinted, handle->get(), *status);
}

/// True for a folder that no hint tells of: one that came, or whose contents were given up when it became hidden.
bool ComparisonRun::isToBeRead(const store::EntryRow& folder) const {
    return comparer_.unread_.contains(folder.fileID) || !isWatched(folder.fileID);
}

Result<ComparisonRun::HintOutcome> ComparisonRun::compareHintedWhole(const Job& job) {
    auto processed = processFolder(job, Detail::everything, nullptr);
    if (!processed) return failure(processed.error());
    std::vector<Job> jobs;
    for (const store::EntryRow& row : session().index().folders(job.folder)) {
        if (!isToBeRead(row)) continue;
        jobs.push_back({job.root, job.relative.empty() ? row.name : job.relative + "/" + row.name, row.fileID,
                        contextBelow(job.context, row)});
    }
    if (auto drained = drain(std::move(jobs), Detail::everything, true); !drained) return failure(drained.error());
    return HintOutcome::done;
}

Result<ComparisonRun::HintOutcome> ComparisonRun::compareHintedNames(const Job& job, const ObjectRow& row,
                                                                     const HintedFolder& hinted, int handle,
                                                                     const filesystem::Status& opened) {
    const auto fileSystem = comparer_.knownFileSystem(opened.device);
    if (!fileSystem) return compareHintedWhole(job);

    Reading reading;
    reading.names = &hinted.names;
    reading.began = stampingClock();
    Folder folder{job, row, {}, {}, false};
    folder.descriptor = handle;
    folder.began = reading.began;
    for (const auto& [name, isNamesChange] : hinted.names) {
        auto known = session().index().childNamed(job.folder, name);
        const auto status = filesystem::statusAt(handle, name.c_str());
        // A file that was opened before it had a name is told of under one that it never had.
        if (!status && !known && !isNamesChange) return compareHintedWhole(job);
        if (known) folder.known.push_back(std::move(*known));
        if (!status) {
            if (status.error().is(ErrorDomain::posix, ENOENT)) continue;
            return compareHintedWhole(job);
        }
        // Something is mounted there: that takes opening it.
        if (status->device != opened.device && !comparer_.fileSystemInFolder(*status, opened))
            return compareHintedWhole(job);
        reading.entries.push_back({name, *status, {fileSystem->number, status->inode, status->birth}});
        comparer_.objectsSeen_.fetch_add(1, std::memory_order_relaxed);
    }
    folder.matched.assign(folder.known.size(), false);
    difference(folder, reading);
    lookAtKept(handle);

    if (folder.row.parent != 0 && folder.row.changed != opened.changed) {
        noteIfChanged(folder.row, opened);
        // A package is a document with attributes of its own, which take a descriptor that is open for reading.
        if (folder.row.isDocument()) {
            if (auto package =
                    filesystem::openBeneath(job.root->directory.get(), job.relative, O_RDONLY | O_DIRECTORY)) {
                lookAtKeptOf(folder.row, package->get());
            }
        }
    }
    // Its change time may be newer than what was hinted at so far.
    if (folder.row.listed != 0 && folder.row.listed != opened.changed) {
        write();
        session().index().setListed(job.folder, 0, folder.row.entries);
    }
    if (folder.changed) notePackageChange(job);

    std::vector<Job> jobs;
    for (const DiskEntry& entry : reading.entries) {
        if (!S_ISDIR(entry.status.mode)) continue;
        const auto below = session().index().byIdentity(entry.identity);
        if (!below || below->state != ObjectState::live || below->parent != raw(job.folder)) continue;
        if (!isToBeRead(*below)) continue;
        jobs.push_back({job.root, job.relative.empty() ? below->name : job.relative + "/" + below->name, below->fileID,
                        contextBelow(job.context, *below)});
    }
    if (auto checked = session().check(); !checked) return failure(checked.error());
    if (auto drained = drain(std::move(jobs), Detail::everything, true); !drained) return failure(drained.error());
    return HintOutcome::done;
}

}  // namespace tarnwell::files
