#include "platform/files/IndexWalker.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "platform/files/ChangeTime.h"
#include "platform/files/Snapshots.h"

namespace tarnwell::files {

namespace {

/// Two batches are a page of 200 with the entry past it that a scan looks at.
constexpr std::size_t kBatch = 101;
/// Deeper folders are opened again by path when the walk comes back to them, so that descriptors stay bounded.
constexpr std::size_t kOpenLevels = 32;
/// Opening a folder at a path of more bytes costs more than a look at its status from the folder above.
constexpr std::size_t kLongPath = 512;

std::string joined(const std::string& folder, std::string_view name) {
    std::string path;
    path.reserve(folder.size() + 1 + name.size());
    path += folder;
    if (!path.empty()) path += '/';
    path += name;
    return path;
}

}  // namespace

Result<OpenedFolder> OpenedFolder::open(const Place& place) {
    auto descriptor = filesystem::openBeneath(place.root->directory.get(), place.relative, O_RDONLY | O_DIRECTORY);
    if (!descriptor) return failure(descriptor.error());
    auto status = filesystem::statusOf(descriptor->get());
    if (!status) return failure(status.error());
    return OpenedFolder{std::move(*descriptor), *status};
}

Result<void> OpenedFolder::checkSearchable() const {
    if (faccessat(descriptor.get(), ".", X_OK, AT_EACCESS) == 0) return {};
    const int code = errno;
    return failure(posixError(code));
}

void WalkPositions::remember(FileID folder, unsigned options, std::uint64_t count, std::uint64_t position) {
    std::lock_guard lock(mutex_);
    for (auto it = entries_.begin(); it != entries_.end(); ++it) {
        // The newest goes last, so that what was remembered before something left the folder is forgotten first.
        if (it->folder == folder && it->options == options && it->count == count) {
            entries_.erase(it);
            break;
        }
    }
    entries_.push_back({folder, options, count, position});
    if (entries_.size() > kRemembered) entries_.pop_front();
}

std::pair<std::uint64_t, std::uint64_t> WalkPositions::best(FileID folder, unsigned options, std::uint64_t count) {
    std::lock_guard lock(mutex_);
    std::pair<std::uint64_t, std::uint64_t> found{0, 0};
    for (const Entry& entry : entries_) {
        if (entry.folder == folder && entry.options == options && entry.count <= count && entry.count > found.first) {
            found = {entry.count, entry.position};
        }
    }
    return found;
}

IndexWalker::IndexWalker(Comparer& comparer, store::Store& store, mime::TypeDatabase& types, WalkPositions& positions,
                         Place folder, std::string folderPath, store::EntryRow row, std::optional<OpenedFolder> opened,
                         unsigned options, WalkErrorHandler errorHandler)
    : comparer_(comparer),
      store_(store),
      types_(types),
      positions_(positions),
      options_(options),
      errorHandler_(std::move(errorHandler)) {
    auto level = std::make_unique<Level>();
    level->place = std::move(folder);
    level->path = std::move(folderPath);
    level->folder = std::move(row);
    level->cache = cacheOf(level->folder);
    level->opened = std::move(opened);
    if (level->opened) learnMount(*level, nullptr);
    levels_.push_back(std::move(level));
}

IndexWalker::~IndexWalker() {
    keepBare();
    if (levels_.empty() || levels_.size() > 1 || pendingFolder_ || count_ == 0) return;
    // A scan looks one entry past its window, so the next page may begin at the last entry or after it.
    FileID folder = levels_[0]->folder.fileID;
    if (count_ > 1 && previousPosition_ != 0) positions_.remember(folder, options_, count_ - 1, previousPosition_);
    positions_.remember(folder, options_, count_, countedPosition_);
}

/// Ends the walk: what comes next cannot be known.
void IndexWalker::stop(const Error& error) {
    stopped_ = true;
    if (!failure_) failure_ = error;
}

bool IndexWalker::report(const std::string& path, const Error& error) {
    if (error.domain == ErrorDomain::store) {
        stop(error);
        return false;
    }
    const bool goOn = !errorHandler_ || errorHandler_(URL::file(path), asReadError(error));
    if (!goOn) stopped_ = true;
    return goOn;
}

bool IndexWalker::open(Level& level) {
    if (level.opened) return true;
    auto opened = OpenedFolder::open(level.place);
    if (!opened) {
        report(level.path, opened.error());
        level.atEnd = true;
        return false;
    }
    level.opened = std::move(*opened);
    learnMount(level, nullptr);
    return true;
}

/// Whether what lies in an open folder can be changed at all; known already where the folder above, if one is given, is
/// reached through the same mount.
void IndexWalker::learnMount(Level& level, const Level* above) {
    const std::uint64_t mount = level.opened->status.mount;
    if (above != nullptr && above->opened && mount != 0 && above->opened->status.mount == mount) {
        level.mount = above->mount;
    } else if (auto state = filesystem::mountStateOf(level.opened->descriptor.get())) {
        level.mount = *state;
    }
}

/// A handle of the folder at that depth, reached through the one above it if that has one; -1 for none.
int IndexWalker::handleOf(std::size_t depth) {
    Level& level = *levels_[depth];
    if (level.opened) return level.opened->descriptor.get();
    if (!level.handle.valid()) {
        const std::string& path = level.place.relative;
        int above = -1;
        if (depth > 0) {
            const Level& parent = *levels_[depth - 1];
            above = parent.opened ? parent.opened->descriptor.get() : parent.handle.get();
        }
        auto handle = above >= 0
                          ? filesystem::openBeneath(above, path.substr(path.rfind('/') + 1), O_PATH | O_DIRECTORY)
                          : filesystem::openBeneath(level.place.root->directory.get(), path, O_PATH | O_DIRECTORY);
        if (!handle) return -1;
        level.handle = std::move(*handle);
    }
    return level.handle.get();
}

/// What its entries' URLs tell of the folder that they lie in, without another look at it.
std::shared_ptr<ResourceCache> IndexWalker::cacheOf(const store::EntryRow& folder) {
    auto cache = std::make_shared<ResourceCache>();
    rememberNumbers(*cache, folder);
    cache->setIsFolder(!folder.package);
    return cache;
}

/// Notes what was found bare, so that the next listing need not ask for its attributes.
void IndexWalker::keepBare() {
    if (bare_.empty()) return;
    store::Session session(store_);
    session.write();
    for (const auto& [position, changed] : bare_) session.index().setBare(position, changed);
    // Without it the next listing asks again; a store that cannot be written is told of where that matters.
    (void)session.commit();
    bare_.clear();
}

bool IndexWalker::fill(Level& level) {
    keepBare();
    level.filled = stampingClock();
    store::Session session(store_);
    level.rows = session.index().children(level.folder.fileID, level.position, kBatch);
    level.nextRow = 0;
    if (auto checked = session.check(); !checked) {
        stop(checked.error());
        level.rows.clear();
    }
    return !level.rows.empty();
}

const store::EntryRow* IndexWalker::nextRow(Level& level) {
    while (!level.atEnd) {
        if (level.nextRow == level.rows.size() && !fill(level)) {
            level.atEnd = true;
            return nullptr;
        }
        const store::EntryRow& row = level.rows[level.nextRow++];
        level.position = row.position;
        if ((options_ & kSkipHiddenFiles) != 0 && row.name.starts_with('.')) continue;
        return &row;
    }
    return nullptr;
}

bool IndexWalker::descends(const store::EntryRow& row) const {
    if (!row.isDirectory() || (options_ & kSkipSubdirectoryDescendants) != 0) return false;
    // Nobody is told of what lies in an Inbox, so that no listing may depend on it.
    if (levels_.size() == 1 && levels_[0]->folder.parent == 0 && row.name == "Inbox") return false;
    return !row.package || (options_ & kSkipPackageDescendants) == 0;
}

void IndexWalker::enter(const Level& parent, const store::EntryRow& row) {
    pendingFolder_.emplace(Place{parent.place.root, joined(parent.place.relative, row.name)}, row);
    pendingPath_ = joined(parent.path, row.name);
}

std::optional<URL> IndexWalker::urlFor(Level& level, const store::EntryRow& row) {
    if (!open(level)) return std::nullopt;
    auto status = filesystem::statusAt(level.opened->descriptor.get(), row.name.c_str());
    if (!status) return std::nullopt;
    URL url = URL::fileOfNormalPath(joined(level.path, row.name));
    bool sameObject = status->inode == row.identity.inode && status->birth == row.identity.birth;
    store::EntryRow current;
    const store::EntryRow* known = &row;
    if (!sameObject) {
        // Replaced since its folder was compared: find out what it is now.
        auto found = comparer_.rowAt(Place{level.place.root, joined(level.place.relative, row.name)});
        if (!found) return std::nullopt;
        current = std::move(*found);
        known = &current;
    }
    auto snapshot = makeSnapshot(types_, level.opened->descriptor.get(), level.mount, row.name.c_str(), *status,
                                 barenessOf(*known, *status));
    if (!snapshot) return std::nullopt;
    if ((*snapshot)->bare && !known->bare && known->changed == status->changed &&
        comparer_.isVouchedFor(*status, level.filled)) {
        bare_.emplace_back(known->position, known->changed);
    }
    if (known->isDirectory() && known->listed != 0 && known->listed == status->changed) {
        (*snapshot)->entryCount = known->entries;
    }
    rememberNumbers(url.cache(), *known);
    url.cache().setParent(level.cache);
    url.cache().keep(std::move(*snapshot));
    return url;
}

std::optional<URL> IndexWalker::next() {
    while (auto row = step(Purpose::looking)) {
        if (auto url = urlFor(*levels_.back(), *row)) {
            counted(*row);
            return url;
        }
    }
    return std::nullopt;
}

/// An entry was delivered or skipped: a folder is entered next.
void IndexWalker::counted(const store::EntryRow& row) {
    const Level& level = *levels_.back();
    if (levels_.size() == 1) {
        ++count_;
        previousPosition_ = countedPosition_;
        countedPosition_ = row.position;
    }
    if (descends(row)) enter(level, row);
}

/// Goes into the folder delivered last, whose names are compared where they changed.
void IndexWalker::enterPending(Purpose purpose) {
    auto [place, row] = std::move(*pendingFolder_);
    pendingFolder_.reset();
    auto level = std::make_unique<Level>();
    level->place = std::move(place);
    level->path = pendingPath_;
    level->folder = std::move(row);
    level->cache = cacheOf(level->folder);
    // A folder that will be read anyway is opened first: its status may say that there is nothing to compare.
    std::optional<OpenedFolder> opened;
    if (purpose == Purpose::looking && level->place.relative.size() < kLongPath) {
        if (auto its = OpenedFolder::open(level->place)) opened = std::move(*its);
    }
    const bool isOfTheRow = opened && comparer_.isObject(level->folder, opened->status);
    if (!opened || !comparer_.isAsListed(level->folder, opened->status)) {
        auto compared = comparer_.compareFolder(level->place, level->folder, handleOf(levels_.size() - 1));
        if (!compared && !report(level->path, compared.error())) return;
        auto searchable = isOfTheRow ? opened->checkSearchable() : Result<void>();
        if (!searchable && !report(level->path, searchable.error())) return;
    }
    if (auto compared = comparer_.compareLinks(level->folder.fileID); !compared) {
        if (!report(level->path, compared.error())) return;
    }
    if (isOfTheRow) {
        level->opened = std::move(opened);
        learnMount(*level, levels_.back().get());
    }
    if (levels_.size() >= kOpenLevels) {
        Level& above = *levels_[levels_.size() - kOpenLevels];
        above.opened.reset();
        above.handle = Descriptor();
    }
    levels_.push_back(std::move(level));
}

/// Goes to the next row, not looked at on disk; null at the end. It lives until the next step.
const store::EntryRow* IndexWalker::step(Purpose purpose) {
    while (!stopped_) {
        if (pendingFolder_) {
            enterPending(purpose);
            if (stopped_) return nullptr;
        }
        Level& level = *levels_.back();
        const store::EntryRow* row = nextRow(level);
        if (row == nullptr) {
            if (levels_.size() == 1) return nullptr;
            levels_.pop_back();
            continue;
        }
        return row;
    }
    return nullptr;
}

std::uint64_t IndexWalker::skip(std::uint64_t count) {
    if ((options_ & kSkipSubdirectoryDescendants) == 0) {
        // Counting a tree means walking its folders, but no entry needs to be looked at.
        std::uint64_t skipped = 0;
        for (; skipped < count; ++skipped) {
            const store::EntryRow* row = step(Purpose::counting);
            if (row == nullptr) break;
            counted(*row);
        }
        return skipped;
    }
    Level& level = *levels_.front();
    // A scan ends by passing over one entry past its window: the next page begins where it stands now.
    if (count_ > 0) positions_.remember(level.folder.fileID, options_, count_, countedPosition_);
    auto [known, position] = positions_.best(level.folder.fileID, options_, count_ + count);
    std::uint64_t done = 0;
    if (known > count_) {
        done = known - count_;
        level.position = position;
        level.rows.clear();
        level.nextRow = 0;
    }
    if (done < count) {
        store::Session session(store_);
        auto skipped = session.index().skipChildren(level.folder.fileID, level.position, count - done,
                                                    (options_ & kSkipHiddenFiles) != 0);
        level.position = skipped.position;
        level.rows.clear();
        level.nextRow = 0;
        done += skipped.count;
        if (auto checked = session.check(); !checked) stop(checked.error());
    }
    count_ += done;
    previousPosition_ = 0;
    countedPosition_ = level.position;
    return done;
}

}  // namespace tarnwell::files
