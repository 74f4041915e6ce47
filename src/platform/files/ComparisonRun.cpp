#include "platform/files/ComparisonRun.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <unordered_map>

#include "platform/files/BackupName.h"
#include "platform/files/ChangeTime.h"
#include "platform/files/FileKinds.h"

namespace tarnwell::files {

namespace {

using store::EntryRow;
using store::ObjectRow;
using store::ObjectState;

/// How long a run keeps the store before others may look in.
constexpr auto kSessionSpan = std::chrono::milliseconds(25);

bool isGoneWhileWorking(const Error& error) {
    return error.domain == ErrorDomain::posix &&
           (error.code == ENOENT || error.code == ENOTDIR || error.code == ELOOP || error.code == ESTALE);
}

}  // namespace

std::string ComparisonRun::joined(const std::string& folder, std::string_view name) {
    std::string path;
    path.reserve(folder.size() + 1 + name.size());
    path += folder;
    if (!path.empty()) path += '/';
    path += name;
    return path;
}

// ---- the store, held for a while -------------------------------------------------------------------------------

store::Session& ComparisonRun::session() {
    if (!session_) {
        session_.emplace(comparer_.store_);
        sessionBegan_ = std::chrono::steady_clock::now();
    }
    return *session_;
}

Result<void> ComparisonRun::release() {
    if (!session_) return {};
    auto result = session_->commit();
    session_.reset();
    return result;
}

Result<void> ComparisonRun::breathe() {
    if (comparer_.givenUp_.load(std::memory_order_relaxed)) {
        if (auto released = release(); !released) return released;
        return failure(posixError(ECANCELED));
    }
    if (session_ && std::chrono::steady_clock::now() - sessionBegan_ > kSessionSpan) return release();
    return {};
}

// ---- which folders ---------------------------------------------------------------------------------------------

FolderContext ComparisonRun::contextBelow(const FolderContext& context, const EntryRow& row) const {
    FolderContext below;
    below.isRoot = false;
    below.contentsVisible = row.visible && !row.package;
    below.package = row.visible && row.package ? std::optional(row.fileID) : context.package;
    return below;
}

/// True when clients may be told of what lies in the folder, by what is known of it.
bool ComparisonRun::showsContents(const EntryRow& folder) {
    return folder.parent == 0 || (folder.visible && !folder.package);
}

/// The context of a known folder by the index alone.
FolderContext ComparisonRun::contextOf(const EntryRow& folder) {
    FolderContext context{folder.parent == 0, showsContents(folder), std::nullopt};
    if (context.isRoot) return context;
    // What is unseen may lie in a package, whose change it is to clients.
    std::optional<EntryRow> row = folder;
    while (row && !row->visible && row->parent != 0) row = session().index().byFileID(FileID{row->parent});
    if (row && row->visible && row->package) context.package = row->fileID;
    return context;
}

Result<std::optional<ComparisonRun::Job>> ComparisonRun::jobFor(const Place& folder) {
    auto root = rootRow(folder.root);
    if (!root) return failure(root.error());
    Job job{folder.root, "", root->fileID, FolderContext{true, true, std::nullopt}};
    if (folder.relative.empty()) return std::optional(std::move(job));
    if (auto released = release(); !released) return failure(released.error());
    auto status = filesystem::statusBeneath(folder.root->directory.get(), folder.relative);
    if (!status)
        return isGoneWhileWorking(status.error()) ? Result<std::optional<Job>>(std::optional<Job>())
                                                  : failure(status.error());
    if (auto known = comparer_.rowByPath(folder, *status); known && known->isDirectory()) {
        return std::optional(Job{folder.root, folder.relative, known->fileID, contextOf(*known)});
    }
    return jobByNames(folder, std::move(job));
}

/// Goes down from the root, comparing each folder on the way where it changed.
Result<std::optional<ComparisonRun::Job>> ComparisonRun::jobByNames(const Place& folder, Job job) {
    std::size_t next = 0;
    while (next < folder.relative.size()) {
        std::size_t slash = std::min(folder.relative.find('/', next), folder.relative.size());
        std::string name = folder.relative.substr(next, slash - next);
        next = slash + 1;
        auto processed = processFolder(job, Detail::names, nullptr);
        if (!processed) return failure(processed.error());
        std::optional<EntryRow> found;
        for (EntryRow& row : session().index().folders(job.folder)) {
            if (row.name == name) found = std::move(row);
        }
        if (auto checked = session().check(); !checked) return failure(checked.error());
        if (!found) return std::optional<Job>();
        job.relative = joined(job.relative, name);
        job.folder = found->fileID;
        job.context = contextBelow(job.context, *found);
    }
    return std::optional(std::move(job));
}

Result<void> ComparisonRun::compareRoots(Detail detail) {
    std::vector<Job> jobs;
    for (const auto& root : comparer_.roots_.all()) {
        auto row = rootRow(root);
        if (!row) {
            if (row.error().domain != ErrorDomain::posix) return failure(row.error());
            complete_ = false;
            continue;
        }
        jobs.push_back({root, "", row->fileID, FolderContext{true, true, std::nullopt}});
    }
    coversRoots_ = true;
    return drain(std::move(jobs), detail, true);
}

Result<void> ComparisonRun::compareBelow(const Place& folder, Detail detail) {
    auto job = jobFor(folder);
    if (!job) {
        if (job.error().domain != ErrorDomain::posix) return failure(job.error());
        complete_ = false;
        return {};
    }
    if (!*job) return {};
    std::vector<Job> jobs;
    jobs.push_back(std::move(**job));
    return drain(std::move(jobs), detail, true);
}

Result<void> ComparisonRun::compareOne(const Place& folder) {
    auto job = jobFor(folder);
    if (!job) return failure(job.error());
    if (!*job) return {};
    std::vector<Job> jobs;
    jobs.push_back(std::move(**job));
    return drain(std::move(jobs), Detail::names, false);
}

Result<void> ComparisonRun::compareKnownFolder(const Place& folder, const EntryRow& row, int handle) {
    std::vector<Job> jobs;
    jobs.push_back({folder.root, folder.relative, row.fileID, contextOf(row), FileID{row.parent}, handle});
    return drain(std::move(jobs), Detail::names, false);
}

Result<void> ComparisonRun::drain(std::vector<Job> jobs, Detail detail, bool below) {
    while (!jobs.empty()) {
        Job job = std::move(jobs.back());
        jobs.pop_back();
        auto processed = processFolder(std::move(job), detail, below ? &jobs : nullptr);
        if (!processed) return failure(processed.error());
        if (auto result = breathe(); !result) return result;
    }
    return {};
}

void ComparisonRun::pushFolders(const Job& job, std::vector<Job>* jobs) {
    if (jobs == nullptr) return;
    const auto folders = session().index().folders(job.folder);
    if (folders.empty()) return;
    if (auto handle = openHandle(job)) handles_.keep(job.folder, std::move(*handle));
    for (const EntryRow& row : folders) {
        jobs->push_back(
            {job.root, joined(job.relative, row.name), row.fileID, contextBelow(job.context, row), job.folder});
    }
}

// ---- one folder ------------------------------------------------------------------------------------------------

int ComparisonRun::Handles::find(FileID folder) const {
    for (auto kept = handles_.rbegin(); kept != handles_.rend(); ++kept) {
        if (kept->first == folder) return kept->second.get();
    }
    return -1;
}

void ComparisonRun::Handles::keep(FileID folder, Descriptor handle) {
    if (handles_.size() == kMost) handles_.pop_front();
    handles_.emplace_back(folder, std::move(handle));
}

int ComparisonRun::parentHandleOf(const Job& job) const {
    return job.parentHandle >= 0 ? job.parentHandle : handles_.find(job.parent);
}

Result<filesystem::Status> ComparisonRun::statusOf(const Job& job) const {
    const int parent = parentHandleOf(job);
    if (parent < 0) return filesystem::statusBeneath(job.root->directory.get(), job.relative);
    return filesystem::statusAt(parent, job.relative.c_str() + (job.relative.rfind('/') + 1));
}

Result<Descriptor> ComparisonRun::openHandle(const Job& job) const {
    const int parent = parentHandleOf(job);
    if (parent < 0) return filesystem::openBeneath(job.root->directory.get(), job.relative, O_PATH | O_DIRECTORY);
    return filesystem::openBeneath(parent, job.relative.substr(job.relative.rfind('/') + 1), O_PATH | O_DIRECTORY);
}

Result<bool> ComparisonRun::processFolder(Job job, Detail detail, std::vector<Job>* jobs) {
    // Left out for whatever reason, a folder may hold what is looked for elsewhere.
    const auto leaveOut = [&] {
        complete_ = false;
        return false;
    };
    // It moved since it was found: where it is now nobody has looked at it yet.
    const auto leaveForLater = [&] {
        if (comparer_.watch_ != nullptr) comparer_.unread_.insert(job.folder);
        return leaveOut();
    };
    auto status = statusOf(job);
    if (!status) return leaveForLater();
    auto row = session().index().byFileID(job.folder);
    if (auto checked = session().check(); !checked) return failure(checked.error());
    if (!row) return leaveOut();
    if (row->identity.inode != status->inode || row->identity.birth != status->birth) return leaveForLater();
    // It went out of sight, or came into it, while it waited, and is where it was again.
    if (row->state == ObjectState::gone) return leaveForLater();
    if (showsContents(*row) != job.context.contentsVisible) job.context = contextOf(*row);
    // The folder itself was removed while it is held open: that says nothing of what it held elsewhere.
    if (status->links == 0) return leaveOut();
    if (comparer_.watch_ != nullptr && !comparer_.watch_->isWatched(job.folder)) {
        auto handle = openHandle(job);
        status = handle ? filesystem::statusOf(handle->get()) : Result<filesystem::Status>(failure(handle.error()));
        if (!status || row->identity.inode != status->inode || row->identity.birth != status->birth) {
            return leaveForLater();
        }
        comparer_.watch_->watch(handle->get(), job.folder);
        // What is trusted of it must be newer than the watch.
        status = filesystem::statusOf(handle->get());
        if (!status) return leaveOut();
    }

    bool listedIsTrue = row->listed != 0 && row->listed == status->changed;
    if (listedIsTrue && detail == Detail::names) {
        pushFolders(job, jobs);
        return true;
    }
    if (listedIsTrue) {
        if (auto handle = openHandle(job)) {
            auto compared = compareKnown(job, handle->get());
            if (!compared) return failure(compared.error());
            if (*compared) {
                comparer_.unread_.erase(job.folder);
                pushFolders(job, jobs);
                if (auto checked = session().check(); !checked) return failure(checked.error());
                return true;
            }
        }
    }
    auto descriptor = filesystem::openBeneath(job.root->directory.get(), job.relative, O_RDONLY | O_DIRECTORY);
    if (!descriptor) return isGoneWhileWorking(descriptor.error()) ? leaveForLater() : leaveOut();
    auto opened = filesystem::statusOf(descriptor->get());
    if (!opened || opened->inode != status->inode || opened->birth != status->birth) return leaveForLater();

    auto reading = readFolder(descriptor->get(), *opened);
    if (!reading && reading.error().domain != ErrorDomain::posix) return failure(reading.error());
    if (!reading) return leaveOut();
    row = session().index().byFileID(job.folder);
    if (!row) return leaveOut();
    Folder folder{job, *row, session().index().allChildren(job.folder), {}, false};
    folder.matched.assign(folder.known.size(), false);
    folder.descriptor = descriptor->get();
    folder.began = reading->began;
    difference(folder, *reading);
    comparer_.unread_.erase(job.folder);
    lookAtKept(descriptor->get());

    std::int64_t listed = reading->settled ? opened->changed : 0;
    auto entries = static_cast<std::uint32_t>(reading->entries.size());
    bool ownChange =
        folder.row.parent != 0 && (folder.row.modified != opened->modified || folder.row.changed != opened->changed);
    if (ownChange) {
        write();
        noteAttributes(folder.row, *opened);
        lookAtKeptOf(folder.row, descriptor->get());
    }
    if (folder.row.listed != listed || folder.row.entries != entries) {
        write();
        session().index().setListed(job.folder, listed, entries);
    }
    if (folder.changed) notePackageChange(job);
    noteUnwatched(job, jobs);
    pushFolders(job, jobs);
    if (auto checked = session().check(); !checked) return failure(checked.error());
    return true;
}

/// A folder that this run does not go on to, and nobody watches, is left to the next that looks at hints: what happened
/// in it before it was watched is hinted at by nothing.
void ComparisonRun::noteUnwatched(const Job& job, const std::vector<Job>* jobs) {
    if (jobs != nullptr || comparer_.watch_ == nullptr) return;
    for (const EntryRow& row : session().index().folders(job.folder)) {
        if (!isWatched(row.fileID)) comparer_.unread_.insert(row.fileID);
    }
}

Result<Comparer::FileSystemEntry> ComparisonRun::fileSystemFor(std::uint64_t device, int descriptor) {
    if (auto known = comparer_.knownFileSystem(device)) return *known;
    // Storing its number takes a session of its own.
    if (auto released = release(); !released) return failure(released.error());
    return comparer_.fileSystemOf(device, descriptor);
}

Result<ComparisonRun::Reading> ComparisonRun::readFolder(int descriptor, const filesystem::Status& before) {
    auto fileSystem = fileSystemFor(before.device, descriptor);
    if (!fileSystem) return failure(fileSystem.error());
    Reading reading;
    reading.began = stampingClock();
    filesystem::DirectoryReader reader(descriptor);
    filesystem::DirectoryEntry entry;
    while (true) {
        auto more = reader.next(entry);
        if (!more) return failure(more.error());
        if (!*more) break;
        auto status = filesystem::statusAt(descriptor, entry.name.data());
        if (!status) {
            if (isGoneWhileWorking(status.error())) continue;
            return failure(status.error());
        }
        std::uint32_t number = fileSystem->number;
        if (status->device != before.device && !comparer_.fileSystemInFolder(*status, before)) {
            // Another file system is mounted here: it must be opened to be told apart.
            auto mounted = filesystem::openBeneath(descriptor, std::string(entry.name), O_RDONLY);
            auto its = mounted ? fileSystemFor(status->device, mounted->get())
                               : Result<Comparer::FileSystemEntry>(failure(mounted.error()));
            if (!its) {
                if (its.error().domain != ErrorDomain::posix) return failure(its.error());
                complete_ = false;
                continue;
            }
            number = its->number;
        }
        store::ObjectIdentity identity{number, status->inode, status->birth};
        reading.entries.push_back({std::string(entry.name), *status, identity});
        comparer_.objectsSeen_.fetch_add(1, std::memory_order_relaxed);
    }
    auto after = filesystem::statusOf(descriptor);
    if (!after) return failure(after.error());
    reading.settled =
        fileSystem->keepsChangeTimes && after->changed == before.changed && isSettled(before.changed, reading.began);
    return reading;
}

const ComparisonRun::DiskEntry* ComparisonRun::Reading::find(const std::string& name) const {
    if (byName.empty()) {
        for (const DiskEntry& entry : entries) byName.emplace(entry.name, &entry);
    }
    auto it = byName.find(name);
    return it != byName.end() ? it->second : nullptr;
}

/// Looks at each known object of a folder whose names are known to be right; false when that turns out to be wrong. A
/// part of them at a time, so that a big folder needs no memory and others may look into the store in between.
Result<bool> ComparisonRun::compareKnown(const Job& job, int handle) {
    bool changed = false, right = true;
    for (std::uint64_t position = 0; right;) {
        auto known = session().index().allChildren(job.folder, position, kKnownAtOnce);
        if (auto checked = session().check(); !checked) return failure(checked.error());
        if (known.empty()) break;
        position = known.back().position;
        right = compareKnownBatch(handle, known, changed);
        lookAtKept(handle);
        if (auto result = breathe(); !result) return failure(result.error());
    }
    if (changed) notePackageChange(job);
    return right;
}

bool ComparisonRun::compareKnownBatch(int handle, std::vector<ObjectRow>& known, bool& changed) {
    for (ObjectRow& row : known) {
        if (row.state != ObjectState::live) return false;
        auto status = filesystem::statusAt(handle, row.name.c_str());
        if (!status || status->inode != row.identity.inode || status->birth != row.identity.birth) return false;
        comparer_.objectsSeen_.fetch_add(1, std::memory_order_relaxed);
        countNames(row, *status);
        if (row.changed == status->changed && row.modified == status->modified && row.size == status->size) continue;
        write();
        noteAttributes(row, *status);
        noteKept(row);
        changed = true;
    }
    return true;
}

/// To clients a package is one document: what changed inside changed it.
void ComparisonRun::notePackageChange(const Job& job) {
    if (!job.context.package) return;
    auto package = session().index().byFileID(*job.context.package);
    if (!package) return;
    write();
    session().journal().recordChange(*package, store::kChangeModified);
    session().index().update(*package);
}

void ComparisonRun::noteIfChanged(ObjectRow& row, const filesystem::Status& status) {
    if (row.changed == status.changed && row.modified == status.modified && row.size == status.size) return;
    write();
    noteAttributes(row, status);
}

void ComparisonRun::noteAttributes(ObjectRow& row, const filesystem::Status& status) {
    bool content = row.modified != status.modified || row.size != status.size;
    row.size = status.size;
    row.modified = status.modified;
    row.setChanged(status.changed);
    if (row.visible) session().journal().recordChange(row, content ? store::kChangeModified : store::kChangeAttributes);
    session().index().update(row);
}

}  // namespace tarnwell::files
