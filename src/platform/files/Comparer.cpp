#include "platform/files/Comparer.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "platform/files/ChangeTime.h"
#include "platform/files/ComparisonRun.h"

namespace tarnwell::files {

bool isVisibleEntry(const FolderContext& folder, std::string_view name, bool isDirectory) {
    if (!folder.contentsVisible) return false;
    if (name.starts_with('.')) return folder.isRoot && name == ".Trash";
    return !(folder.isRoot && isDirectory && name == "Inbox");
}

Comparer::Comparer(Roots& roots, store::Store& store, mime::TypeDatabase& types, KeptAttributes kept,
                   filesystem::OwnChanges* ownChanges)
    : roots_(roots), store_(store), types_(types), kept_(std::move(kept)), ownChanges_(ownChanges) {}

Result<void> Comparer::compare(const std::vector<Place>& folders, Detail detail) {
    std::lock_guard running(runMutex_);
    ComparisonRun run(*this);
    const std::uint64_t generation = roots_.generation();
    const auto roots = folders.empty() ? roots_.all() : std::vector<std::shared_ptr<const Root>>();
    if (folders.empty()) {
        if (auto result = run.compareRoots(detail); !result) return result;
    }
    for (const Place& folder : folders) {
        if (auto result = run.compareBelow(folder, detail); !result) return result;
    }
    auto finished = run.finish();
    if (finished && run.isComplete() && coverStorage(folders)) store_.noteCompared();
    if (finished && folders.empty()) noteCompared(roots, generation);
    return finished;
}

void Comparer::noteCompared(const std::vector<std::shared_ptr<const Root>>& roots, std::uint64_t generation) {
    rootsCompared_.clear();
    for (const auto& root : roots) rootsCompared_.insert(root->number);
    std::erase_if(rootsMet_, [&](std::uint64_t number) { return !rootsCompared_.contains(number); });
    rootsGeneration_ = generation;
}

Result<void> Comparer::compareNewRoots() {
    std::lock_guard running(runMutex_);
    const std::uint64_t generation = roots_.generation();
    if (generation == rootsGeneration_) return {};
    const auto roots = roots_.all();
    ComparisonRun run(*this);
    for (const auto& root : roots) {
        if (rootsCompared_.contains(root->number)) continue;
        if (auto result = run.compareBelow({root, ""}, Detail::everything); !result) return result;
    }
    auto finished = run.finish();
    if (finished) noteCompared(roots, generation);
    return finished;
}

bool Comparer::coverStorage(const std::vector<Place>& folders) const {
    return folders.empty() || std::ranges::any_of(folders, [&](const Place& folder) {
               return folder.root == roots_.storage() && folder.relative.empty();
           });
}

Result<void> Comparer::compareFolder(const Place& folder) {
    std::lock_guard running(runMutex_);
    ComparisonRun run(*this);
    if (auto result = run.compareOne(folder); !result) return result;
    return run.finish();
}

Result<void> Comparer::compareFolder(const Place& folder, const store::EntryRow& row, int handle) {
    std::lock_guard running(runMutex_);
    ComparisonRun run(*this);
    if (auto result = run.compareKnownFolder(folder, row, handle); !result) return result;
    return run.finish();
}

void Comparer::setWatch(FolderWatch* watch) {
    std::lock_guard running(runMutex_);
    watch_ = watch;
    namedElsewhere_.clear();
}

std::vector<Comparer::Name> Comparer::namedElsewhere() {
    std::lock_guard running(runMutex_);
    std::vector<Name> names;
    if (namedElsewhere_.empty()) return names;
    store::Session session(store_);
    std::erase_if(namedElsewhere_, [&](FileID file) {
        auto row = session.index().byFileID(file);
        if (!row || row->state == store::ObjectState::gone) return true;
        names.push_back({FileID{row->parent}, std::move(row->name)});
        return false;
    });
    return names;
}

Result<std::vector<HintedFolder>> Comparer::compareHinted(std::vector<HintedFolder> hinted) {
    std::lock_guard running(runMutex_);
    ComparisonRun run(*this);
    auto left = run.compareHinted(std::move(hinted));
    if (!left) return left;
    if (auto finished = run.finish(); !finished) return failure(finished.error());
    return left;
}

void Comparer::forgetUnread() {
    std::lock_guard running(runMutex_);
    unread_.clear();
}

bool Comparer::hasUnread() {
    std::lock_guard running(runMutex_);
    return !unread_.empty();
}

Result<void> Comparer::purgeGone() {
    std::lock_guard running(runMutex_);
    store::Session session(store_);
    if (session.index().inState(store::ObjectState::gone, 1).empty()) return session.check();
    session.write();
    session.index().purgeGone();
    session.journal().trim();
    notePurged();
    return session.commit();
}

bool Comparer::mayPurge() const {
    constexpr std::size_t kMostKept = 10'000;
    return !lastGone_ || goneCount_ > kMostKept || std::chrono::steady_clock::now() - *lastGone_ > kSavingTime;
}

void Comparer::noteGone(const store::ObjectRow& row) {
    lastGone_ = std::chrono::steady_clock::now();
    // Without a birth time nothing tells it from the next object that gets its inode number.
    const bool isLasting = filesystem::isBirthTime(row.identity.birth);
    goneCount_ = isLasting ? goneCount_ + (goneCount_ == SIZE_MAX ? 0 : 1) : SIZE_MAX;
}

void Comparer::notePurged() {
    lastGone_.reset();
    goneCount_ = 0;
}

void Comparer::noteLeft(store::Session& session, const store::ObjectRow& row) {
    if (watch_ == nullptr || !row.documentID) return;
    if (ownChanges_ != nullptr) {
        const auto folder = session.index().byFileID(FileID{row.parent});
        if (folder &&
            ownChanges_->found(ownName(*folder, row.name, row.identity), filesystem::OwnChanges::Change::taken)) {
            return;
        }
    }
    constexpr std::size_t kMostKept = 10'000;
    if (left_.size() >= kMostKept) left_.clear();
    left_.insert_or_assign({row.parent, row.name}, Left{row.fileID, *row.documentID, std::chrono::steady_clock::now()});
}

std::optional<Comparer::Left> Comparer::recentlyLeft(const NameKey& name) {
    const auto found = left_.find(name);
    if (found == left_.end()) return std::nullopt;
    const Left left = found->second;
    left_.erase(found);
    return std::chrono::steady_clock::now() - left.when <= kSavingTime ? std::optional(left) : std::nullopt;
}

Result<store::ObjectRow> Comparer::comparedFolder(const Place& folder, const filesystem::Status& status) {
    auto row = rowByPath(folder, status);
    if (!row || !isAsListed(*row, status)) {
        if (auto compared = compareFolder(folder); !compared) return failure(compared.error());
        row = rowAt(folder);
    }
    if (!row) return row;
    if (auto compared = compareLinks(row->fileID); !compared) return failure(compared.error());
    return row;
}

Result<void> Comparer::compareLinks(FileID folder) {
    std::vector<std::pair<store::ObjectRow, Place>> shown;
    bool stand = true;
    {
        store::Session session(store_);
        for (const store::LinkRow& link : session.index().linksIn(raw(folder))) {
            auto row = session.index().byFileID(link.fileID);
            if (!row) continue;
            stand = stand && row->state == store::ObjectState::live;
            // In a root that is unavailable it stays what it is.
            if (auto place = placeOf(session, *row)) shown.emplace_back(std::move(*row), std::move(*place));
        }
        if (auto checked = session.check(); !checked) return checked;
    }
    for (const auto& [row, place] : shown) stand = stand && standsAt(row, place);
    return stand ? Result<void>() : compare({}, Detail::names);
}

std::optional<Comparer::FileSystemEntry> Comparer::knownFileSystem(std::uint64_t device) {
    std::lock_guard lock(fileSystemsMutex_);
    auto it = fileSystems_.find(device);
    return it != fileSystems_.end() ? std::optional(it->second) : std::nullopt;
}

Result<Comparer::FileSystemEntry> Comparer::fileSystemOf(std::uint64_t device, int descriptor) {
    if (auto known = knownFileSystem(device)) return *known;
    auto identity = filesystem::fileSystemIdentityOf(descriptor);
    if (!identity) return failure(identity.error());
    FileSystemEntry entry;
    entry.keepsChangeTimes = identity->keepsChangeTimes;
    entry.isNamed = !identity->identity.empty();
    {
        store::Session session(store_);
        session.write();
        entry.number = session.index().fileSystemNumber(identity->identity.empty() ? "unnamed" : identity->identity);
        if (auto committed = session.commit(); !committed) return failure(committed.error());
    }
    std::lock_guard lock(fileSystemsMutex_);
    return fileSystems_.emplace(device, entry).first->second;
}

std::optional<Comparer::FileSystemEntry> Comparer::fileSystemInFolder(const filesystem::Status& entry,
                                                                      const filesystem::Status& folder) {
    if (const auto known = knownFileSystem(entry.device)) return known;
    // An overlay of several file systems gives its files device numbers of their own, one for each layer. A folder with
    // another number may be a subvolume, which numbers its inodes anew.
    if (S_ISDIR(entry.mode) || entry.mount == 0 || entry.mount != folder.mount) return std::nullopt;
    std::lock_guard lock(fileSystemsMutex_);
    const auto known = fileSystems_.find(folder.device);
    if (known == fileSystems_.end()) return std::nullopt;
    return fileSystems_.emplace(entry.device, FileSystemEntry(known->second)).first->second;
}

Result<store::ObjectIdentity> Comparer::identityOf(const filesystem::Status& status, int descriptor) {
    auto fileSystem = fileSystemOf(status.device, descriptor);
    if (!fileSystem) return failure(fileSystem.error());
    return store::ObjectIdentity{fileSystem->number, status.inode, status.birth};
}

Result<void> Comparer::carryOver(const filesystem::Status& source, int copy) {
    const auto from = knownFileSystem(source.device);
    if (!from) return {};
    const auto status = filesystem::statusOf(copy);
    if (!status) return failure(status.error());
    const auto identity = identityOf(*status, copy);
    if (!identity) return failure(identity.error());
    const auto resting = atRest();
    store::Session session(store_);
    auto row = session.index().byIdentity({from->number, source.inode, source.birth});
    if (!row || row->parent == 0 || row->state == store::ObjectState::gone) return session.check();
    session.write();
    if (auto met = session.index().byIdentity(*identity)) {
        // Somebody looked at it before: as what it was then it is gone.
        const auto place = placeOf(session, *met);
        if (met->visible && place) {
            session.journal().recordDeparture(met->fileID, met->documentID, met->parent,
                                              place->root->name + "/" + place->relative);
        }
        met->state = store::ObjectState::gone;
        met->identity = {0, raw(met->fileID), 0};  // of no file system
        session.index().update(*met);
    }
    row->identity = *identity;
    row->listed = 0;
    session.index().update(*row);
    if (watch_ != nullptr && row->isDirectory()) {
        watch_->forget(row->fileID);
        unread_.insert(row->fileID);
    }
    return session.commit();
}

/// The root of that name if it is that folder. A folder that was the root at an earlier start may be anywhere by now:
/// what was known below it is unavailable until it is the root again or turns up below one.
std::optional<Place> Comparer::rootPlaceOf(const std::string& name, const store::ObjectIdentity& identity) const {
    auto place = roots_.locate(name);
    if (!place || !place->relative.empty()) return std::nullopt;
    const bool isSame = place->root->inode == identity.inode && place->root->birth == identity.birth;
    return isSame ? std::move(place) : std::nullopt;
}

std::optional<Place> Comparer::placeOf(store::Session& session, const store::EntryRow& row) const {
    if (row.parent == 0) return rootPlaceOf(row.name, row.identity);
    if (row.state != store::ObjectState::live) return std::nullopt;
    // Written from its end, since the way leads upwards.
    std::string reversed(row.name.rbegin(), row.name.rend());
    const store::FolderNode* folder = session.index().folderNode(row.parent);
    while (folder != nullptr && folder->parent != 0) {
        if (!folder->live) return std::nullopt;
        reversed += '/';
        reversed.append(folder->name.rbegin(), folder->name.rend());
        folder = session.index().folderNode(folder->parent);
    }
    if (folder == nullptr) return std::nullopt;
    const auto root = rootPlaceOf(folder->name, folder->identity);
    if (!root) return std::nullopt;
    return Place{root->root, std::string(reversed.rbegin(), reversed.rend())};
}

bool Comparer::leadsTo(store::Session& session, const store::EntryRow& row, const Place& place) const {
    if (row.state != store::ObjectState::live) return false;
    auto known = placeOf(session, row);
    return known && known->root == place.root && known->relative == place.relative;
}

bool Comparer::standsAt(const store::EntryRow& row, const Place& place) {
    auto status = filesystem::statusBeneath(place.root->directory.get(), place.relative);
    return status && isObject(row, *status);
}

bool Comparer::isObject(const store::EntryRow& row, const filesystem::Status& status) {
    if (status.inode != row.identity.inode || status.birth != row.identity.birth) return false;
    auto fileSystem = knownFileSystem(status.device);
    // A device that was not met yet: inode and birth alike on two of them is what its number guards against later.
    return !fileSystem || fileSystem->number == row.identity.fileSystem;
}

Result<store::ObjectRow> Comparer::rowAt(const Place& place, const filesystem::Status& status) {
    auto row = rowByPath(place, status);
    return row || !row.error().is(ErrorDomain::posix, ESTALE) ? row : rowAt(place);
}

bool Comparer::isVouchedFor(const filesystem::Status& status, std::int64_t began) {
    auto fileSystem = knownFileSystem(status.device);
    return fileSystem && fileSystem->keepsChangeTimes && isSettled(status.changed, began);
}

Result<store::ObjectRow> Comparer::rowAt(const Place& place) {
    for (int attempt = 0; attempt < 3; ++attempt) {
        auto status = filesystem::statusBeneath(place.root->directory.get(), place.relative);
        if (!status) return failure(status.error());
        if (auto met = meetFileSystem(place, *status); !met) return failure(met.error());
        auto row = rowByPath(place, *status);
        if (row || !row.error().is(ErrorDomain::posix, ESTALE)) return row;
        // Not known as it is: compare the folders on the way, from the root down to the parent.
        std::string relative;
        std::size_t next = 0;
        do {
            if (auto compared = compareFolder(Place{place.root, relative}); !compared) return failure(compared.error());
            std::size_t slash = place.relative.find('/', next);
            if (slash == std::string::npos) break;
            relative = place.relative.substr(0, slash);
            next = slash + 1;
        } while (true);
        auto again = rowByPath(place, *status);
        if (again || !again.error().is(ErrorDomain::posix, ESTALE)) return again;
    }
    return failure(posixError(EAGAIN, "the object keeps changing, or the folder it lies in cannot be read"));
}

/// Finds out which file system a device number stands for, from the folder that the place is or lies in.
Result<void> Comparer::meetFileSystem(const Place& place, const filesystem::Status& status) {
    if (knownFileSystem(status.device)) return {};
    Place folder = place;
    if (!S_ISDIR(status.mode)) {
        std::size_t slash = place.relative.rfind('/');
        folder.relative = slash == std::string::npos ? std::string() : place.relative.substr(0, slash);
    }
    auto opened = filesystem::openBeneath(folder.root->directory.get(), folder.relative, O_RDONLY | O_DIRECTORY);
    if (!opened) return failure(opened.error());
    auto its = filesystem::statusOf(opened->get());
    if (!its) return failure(its.error());
    auto entry = fileSystemOf(its->device, opened->get());
    if (!entry) return failure(entry.error());
    if (!fileSystemInFolder(status, *its))
        return failure(posixError(EXDEV, "a file of another file system is mounted here"));
    return {};
}

Result<store::ObjectRow> Comparer::rowByPath(const Place& place, const filesystem::Status& status) {
    auto fileSystem = knownFileSystem(status.device);
    if (!fileSystem) return failure(posixError(ESTALE));
    store::Session session(store_);
    auto row = session.index().byIdentity({fileSystem->number, status.inode, status.birth});
    if (auto checked = session.check(); !checked) return failure(checked.error());
    if (!row) return failure(posixError(ESTALE));
    if (leadsTo(session, *row, place)) return *row;
    // A further name of a file with several is known by its link.
    std::size_t slash = place.relative.rfind('/');
    std::string name = slash == std::string::npos ? place.relative : place.relative.substr(slash + 1);
    for (const store::LinkRow& link : session.index().linksOf(row->fileID)) {
        if (link.name != name) continue;
        auto folder = session.index().byFileID(FileID{link.parent});
        Place parent{place.root, slash == std::string::npos ? std::string() : place.relative.substr(0, slash)};
        if (folder && leadsTo(session, *folder, parent)) return *row;
    }
    return failure(posixError(ESTALE));
}

}  // namespace tarnwell::files
