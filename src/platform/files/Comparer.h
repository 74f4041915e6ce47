#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/base/Result.h"
#include "platform/files/FolderWatch.h"
#include "platform/files/KeptAttributes.h"
#include "platform/filesystem/Beneath.h"
#include "platform/filesystem/OwnChanges.h"
#include "platform/filesystem/Roots.h"
#include "platform/mime/TypeDatabase.h"
#include "platform/store/Store.h"

namespace tarnwell::files {

/// How closely a comparison looks. `names` trusts a folder whose change time shows that its entries are the known ones,
/// and looks at no file in it; `everything` looks at each object.
enum class Detail { names, everything };

/// What the folder's place says about its contents.
struct FolderContext {
    bool isRoot = false;
    bool contentsVisible = true;    ///< clients may be told of what lies in it
    std::optional<FileID> package;  ///< the visible package in which it lies, or which it is
};

/// The context of what lies in a folder entry, and whether the entry itself is visible.
bool isVisibleEntry(const FolderContext& folder, std::string_view name, bool isDirectory);

/// Keeps the index equal to the disk: looks at folders, finds what differs from what is known, decides which object is
/// which, and records the differences.
///
/// C1: what a comparison cannot read (denied, gone meanwhile, an unavailable root) is left as it was known.
/// C2: an object is told by its identity; a document ID stays with the object wherever it turns up, except that where a
///     document was replaced under its name it stays with the name: a rename over it, an exchange of two documents, a
///     new file after the old one went or took a backup name. Not so where this program itself took the name from the
///     one or gave it to the other, which is no way to save: the document ID stays with the object.
/// C3: one comparison at a time; lookups of known objects go on meanwhile.
/// C4: attributes that are kept for a document are those of the object that has its document ID; where another object
///     takes that over, it is given those that it lacks, as last seen.
class Comparer {
public:
    Comparer(Roots& roots, store::Store& store, mime::TypeDatabase& types, KeptAttributes kept = KeptAttributes(),
             filesystem::OwnChanges* ownChanges = nullptr);

    /// Compares the folders and everything below them; all roots when the list is empty.
    Result<void> compare(const std::vector<Place>& folders, Detail detail);
    /// Compares the roots that were added since the last comparison of all of them.
    Result<void> compareNewRoots();
    /// Compares the names in one folder only, if they changed.
    Result<void> compareFolder(const Place& folder);
    /// The same for a folder whose row is at hand; nothing happens if another object stands at the place by now. With a
    /// handle (O_PATH) of the folder above it, a folder that did not change is known without walking its path.
    Result<void> compareFolder(const Place& folder, const store::EntryRow& row, int handle = -1);

    /// No comparison is under way while the lock is held: no object is missing that one is still looking for. Waits for
    /// one that is; to be taken before a session of the store.
    [[nodiscard]] std::unique_lock<std::mutex> atRest() { return std::unique_lock(runMutex_); }

    /// From now on comparisons bring every folder to the watch before they look at it; null for none. Waits for a
    /// comparison under way.
    void setWatch(FolderWatch* watch);
    /// Looks at what a watch was told of, and at everything in folders that are not watched yet. Returns the folders
    /// that were not where they are known to be: they moved, and the hint of that is still to come, or never will.
    /// What was replaced under its name up to kSavingTime ago keeps its document ID at the name.
    Result<std::vector<HintedFolder>> compareHinted(std::vector<HintedFolder> hinted);
    /// Where the files are that can be changed under a name that no watch covers: below no root, or not known yet. No
    /// hint tells of such a change.
    struct Name {
        FileID folder{};
        std::string name;
    };
    std::vector<Name> namedElsewhere();
    /// True when `compareHinted` has something to look at without any hint.
    bool hasUnread();
    /// Gives those up: whoever calls it compares everything next.
    void forgetUnread();
    /// Forgets for good the objects that are gone. To be called when no hint of the last kSavingTime is left to look
    /// at.
    Result<void> purgeGone();
    /// For a moment when nothing happens: does what the store puts off until then.
    void tidyStore() { store_.tidy(); }
    bool isStoreUntidy() const { return store_.isUntidy(); }
    /// How long a program may take between putting the old version of a document away and the new one in its place.
    static constexpr std::chrono::seconds kSavingTime{5};

    /// The row of a folder by the status that it was found with at its place. Its names were compared where they
    /// changed, and so was everything where a file that has a further name in it may have lost the one it is shown
    /// under.
    Result<store::ObjectRow> comparedFolder(const Place& folder, const filesystem::Status& status);
    /// Compares the names in all folders if one of the files that have a further name in this folder is not at its
    /// place any more: it may be this name that it is to be shown under now.
    Result<void> compareLinks(FileID folder);

    /// The row of what stands at the place, looked at on disk; folders on the way are compared where they differ.
    /// ENOENT where nothing stands.
    Result<store::ObjectRow> rowAt(const Place& place);
    /// The same by the status that the object was found with at its place a moment ago.
    Result<store::ObjectRow> rowAt(const Place& place, const filesystem::Status& status);
    /// Where the object of a live row is, by the index alone; nothing where an ancestor is not live or its root is not
    /// among this program's.
    std::optional<Place> placeOf(store::Session& session, const store::EntryRow& row) const;
    /// True when the object of that row stands at its place on disk now.
    bool standsAt(const store::EntryRow& row, const Place& place);
    /// True when a status is of the row's object.
    bool isObject(const store::EntryRow& row, const filesystem::Status& status);
    /// True when the status is of the row's folder and shows that its names are the known ones.
    bool isAsListed(const store::EntryRow& row, const filesystem::Status& status) {
        return row.listed != 0 && row.listed == status.changed && isObject(row, status);
    }
    /// True when the object's change time vouches for what a look that began at `began` (stampingClock) finds of it.
    bool isVouchedFor(const filesystem::Status& status, std::int64_t began);
    /// True for the device number of a file system on which objects below the roots were met.
    bool isMetDevice(std::uint64_t device) { return knownFileSystem(device).has_value(); }

    Result<store::ObjectIdentity> identityOf(const filesystem::Status& status, int descriptor);

    /// The open copy (O_PATH will do) is the object from now on that its source was, which is about to go: it keeps the
    /// identifiers, and is found to have moved. Nothing happens for a source that is not known.
    Result<void> carryOver(const filesystem::Status& source, int copy);

    /// The comparison under way, and every later one, ends soon with ECANCELED: the program is about to end. What was
    /// found by then is kept, and the next program goes on from there. Any thread.
    void giveUp() { givenUp_.store(true, std::memory_order_relaxed); }

    /// Objects looked at so far by all comparisons, for progress displays.
    std::uint64_t objectsSeen() const { return objectsSeen_.load(std::memory_order_relaxed); }

private:
    friend class ComparisonRun;
    struct FileSystemEntry {
        std::uint32_t number = 0;
        bool keepsChangeTimes = false;
        bool isNamed = false;  ///< no other file system has the number
    };
    bool coverStorage(const std::vector<Place>& folders) const;
    void noteCompared(const std::vector<std::shared_ptr<const Root>>& roots, std::uint64_t generation);
    std::optional<FileSystemEntry> knownFileSystem(std::uint64_t device);
    Result<FileSystemEntry> fileSystemOf(std::uint64_t device, int descriptor);
    Result<void> meetFileSystem(const Place& place, const filesystem::Status& status);
    /// The file system of an entry of that folder, where that is known without opening it.
    std::optional<FileSystemEntry> fileSystemInFolder(const filesystem::Status& entry,
                                                      const filesystem::Status& folder);
    Result<store::ObjectRow> rowByPath(const Place& place, const filesystem::Status& status);
    std::optional<Place> rootPlaceOf(const std::string& name, const store::ObjectIdentity& identity) const;
    /// A document that left a name a short time ago.
    struct Left {
        FileID object{};
        DocumentID documentID{};
        std::chrono::steady_clock::time_point when;
    };
    using NameKey = std::pair<std::uint64_t, std::string>;  ///< folder, name
    void noteLeft(store::Session& session, const store::ObjectRow& row);
    std::optional<Left> recentlyLeft(const NameKey& name);
    /// What is gone stays known for kSavingTime: several looks in a row may miss what changes places between them.
    bool mayPurge() const;
    void noteGone(const store::ObjectRow& row);
    void notePurged();
    bool leadsTo(store::Session& session, const store::EntryRow& row, const Place& place) const;

    Roots& roots_;
    store::Store& store_;
    mime::TypeDatabase& types_;
    const KeptAttributes kept_;
    filesystem::OwnChanges* const ownChanges_;  ///< of this program; may be null
    std::mutex runMutex_;                       ///< held by the comparison under way
    /// Missing objects may wait to be settled: an earlier program may have been cut off. Under runMutex_.
    bool unsettled_ = true;
    bool takeoversLeft_ = true;     ///< the same for takeovers, also after a comparison that failed
    FolderWatch* watch_ = nullptr;  ///< under runMutex_
    /// Under runMutex_: the roots, by number, that a comparison of all of them looked at, and their generation then.
    std::set<std::uint64_t> rootsCompared_;
    std::uint64_t rootsGeneration_ = 0;
    /// Under runMutex_: the roots, by number, in whose places no former folder is to be looked for any more.
    std::set<std::uint64_t> rootsMet_;
    std::set<FileID> formersMoved_;  ///< under runMutex_: former folders of roots that are elsewhere now
    /// Under runMutex_: folders of whose contents no hint will tell, to be read with all below them: such as were given
    /// up when the folder became hidden or went, or were there before it was watched.
    std::set<FileID> unread_;
    std::set<FileID> namedElsewhere_;  ///< under runMutex_: files with more names than are known
    /// Under runMutex_: when the last object went, and how many did since they were last forgotten.
    std::optional<std::chrono::steady_clock::time_point> lastGone_;
    std::size_t goneCount_ = 0;
    std::map<NameKey, Left> left_;  ///< under runMutex_; not older than kSavingTime when it is asked
    std::mutex fileSystemsMutex_;
    std::unordered_map<std::uint64_t, FileSystemEntry> fileSystems_;  ///< by device number
    std::atomic<std::uint64_t> objectsSeen_{0};
    std::atomic<bool> givenUp_{false};
};

}  // namespace tarnwell::files
