#pragma once

#include <chrono>
#include <deque>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/base/Descriptor.h"
#include "platform/files/Comparer.h"

namespace tarnwell::files {

/// By what a name that this program gave or took is known.
inline filesystem::OwnChanges::Name ownName(const store::ObjectRow& folder, const std::string& name,
                                            const store::ObjectIdentity& object) {
    return {folder.identity.inode, name, object.inode, object.birth};
}

/// One comparison from its start to its end. Used by Comparer only, under its run mutex. Its parts: which folders are
/// read (ComparisonRun.cpp), what became of a root's former folder (ComparisonRoots.cpp), which object is which in one
/// of them (ComparisonDifference.cpp), what became of those that were missing (ComparisonSettling.cpp), what documents
/// carry (ComparisonKept.cpp), what a watch was told of (ComparisonHinted.cpp).
class ComparisonRun {
public:
    explicit ComparisonRun(Comparer& comparer) : comparer_(comparer) {}
    ~ComparisonRun();
    ComparisonRun(const ComparisonRun&) = delete;
    ComparisonRun& operator=(const ComparisonRun&) = delete;

    Result<void> compareRoots(Detail detail);
    Result<void> compareBelow(const Place& folder, Detail detail);
    Result<void> compareOne(const Place& folder);
    /// `handle` as for Comparer::compareFolder.
    Result<void> compareKnownFolder(const Place& folder, const store::EntryRow& row, int handle);
    Result<std::vector<HintedFolder>> compareHinted(std::vector<HintedFolder> hinted);
    /// Settles what was missing. Call once, after the folders.
    Result<void> finish();
    /// True when nothing was left out so far.
    bool isComplete() const { return complete_; }

private:
    struct Job {
        std::shared_ptr<const Root> root;
        std::string relative;
        FileID folder{};
        FolderContext context;
        FileID parent{};        ///< by which its handle is found, if one is kept
        int parentHandle = -1;  ///< one that the caller keeps
    };
    /// Handles (O_PATH descriptors) of the folders passed last, to ask for the status of what is known to lie in them
    /// without walking the whole path, which in a deep tree takes longer than everything else. Nothing is read through
    /// a handle: its folder may have been moved out of its root.
    class Handles {
    public:
        int find(FileID folder) const;  ///< -1 where none is kept
        void keep(FileID folder, Descriptor handle);

    private:
        static constexpr std::size_t kMost = 64;
        std::deque<std::pair<FileID, Descriptor>> handles_;
    };
    struct DiskEntry {
        std::string name;
        filesystem::Status status;
        store::ObjectIdentity identity;
    };
    struct Reading {
        const DiskEntry* find(const std::string& name) const;
        bool covers(const std::string& name) const { return names == nullptr || names->contains(name); }
        std::vector<DiskEntry> entries;
        mutable std::unordered_map<std::string_view, const DiskEntry*> byName;  ///< made when first asked
        bool settled = false;                                ///< the folder's change time vouches for the entries
        std::int64_t began = 0;                              ///< stampingClock
        const std::map<std::string, bool>* names = nullptr;  ///< where only these were looked at
    };
    /// A document whose kept attributes are to be read.
    struct KeptLook {
        FileID object{};
        store::ObjectIdentity identity;
        std::string name;
    };
    /// The state of comparing one folder.
    struct Folder {
        const Job& job;
        store::ObjectRow row;
        std::vector<store::ObjectRow> known;
        std::vector<bool> matched;
        bool changed = false;
        int descriptor = -1;     ///< open for reading
        std::int64_t began = 0;  ///< when its reading began
    };

    /// Rows of a folder that are read at once.
    static constexpr std::size_t kKnownAtOnce = 1000;
    static std::string joined(const std::string& folder, std::string_view name);
    Result<std::optional<Job>> jobFor(const Place& folder);
    Result<std::optional<Job>> jobByNames(const Place& folder, Job job);
    FolderContext contextOf(const store::EntryRow& folder);
    static bool showsContents(const store::EntryRow& folder);
    Result<store::ObjectRow> rootRow(const std::shared_ptr<const Root>& root);
    Result<void> partFromFormers(const Root& root, const filesystem::Status& status,
                                 const store::ObjectIdentity& identity);
    Result<void> partFromHeld(const Root& former);
    Result<void> partFromEarlier(const Root& root, const filesystem::Status& status,
                                 const store::ObjectIdentity& identity);
    void forgetFormer(store::ObjectRow row);
    void unwatchBelow(FileID folder);
    Result<std::optional<store::ObjectRow>> succeed(const Root& root, const store::ObjectIdentity& identity);
    Result<void> succeedBelow(const Root& root, FileID folder, const std::string& relative,
                              std::vector<std::pair<FileID, std::string>>& pending);
    Result<void> drain(std::vector<Job> jobs, Detail detail, bool below);
    Result<bool> processFolder(Job job, Detail detail, std::vector<Job>* jobs);
    enum class HintOutcome { done, stale };
    Result<HintOutcome> compareHintedFolder(const HintedFolder& hinted);
    /// `handle` is the folder's, and `opened` its status before anything in it is looked at.
    Result<HintOutcome> compareHintedNames(const Job& job, const store::ObjectRow& row, const HintedFolder& hinted,
                                           int handle, const filesystem::Status& opened);
    Result<HintOutcome> compareHintedWhole(const Job& job);
    void noteUnwatched(const Job& job, const std::vector<Job>* jobs);
    bool isToBeRead(const store::EntryRow& folder) const;
    void showUnder(const store::LinkRow& link, const FolderContext& context);
    void showElsewhere(const store::ObjectRow& row);
    void noteOtherName(const store::LinkRow& link);
    void countNames(const store::EntryRow& row, const filesystem::Status& status);
    bool isLive() const { return comparer_.watch_ != nullptr && comparer_.watch_->isLive(); }
    bool isWatched(FileID folder) const { return comparer_.watch_ != nullptr && comparer_.watch_->isWatched(folder); }
    int parentHandleOf(const Job& job) const;
    Result<filesystem::Status> statusOf(const Job& job) const;
    Result<Descriptor> openHandle(const Job& job) const;
    Result<Comparer::FileSystemEntry> fileSystemFor(std::uint64_t device, int descriptor);
    Result<Reading> readFolder(int descriptor, const filesystem::Status& before);
    Result<bool> compareKnown(const Job& job, int handle);
    bool compareKnownBatch(int handle, std::vector<store::ObjectRow>& known, bool& changed);
    void difference(Folder& folder, const Reading& reading);
    void placeUnknown(Folder& folder, const DiskEntry& entry, store::ObjectRow* displaced, const Reading& reading);
    bool exchange(Folder& folder, const DiskEntry& entry, store::ObjectRow& displaced, store::ObjectRow& moved);
    void notePackageChange(const Job& job);
    std::optional<store::ObjectRow> recentlyLeft(const Folder& folder, const DiskEntry& entry);
    static bool keepsNames(const Folder& folder);
    void noteIfChanged(store::ObjectRow& row, const filesystem::Status& status);
    void noteAttributes(store::ObjectRow& row, const filesystem::Status& status);
    void insertWithKept(const Folder& folder, store::ObjectRow& row, const filesystem::Status& status);
    void noteKept(const store::ObjectRow& row);
    void lookAtKept(int folder);
    void lookAtKeptOf(const store::ObjectRow& row, int descriptor);
    void putBackKept(const store::ObjectRow& displaced, const store::ObjectRow& successor);
    void moveHere(Folder& folder, store::ObjectRow& row, const DiskEntry& entry, bool keepDocumentOpen);
    void addNew(Folder& folder, const DiskEntry& entry, store::ObjectRow* displaced);
    /// What takes a document's name over takes this over: the document, or what that itself is about to take over.
    struct Heritage {
        FileID displaced{};
        DocumentID documentID{};
    };
    std::optional<Heritage> heritageAt(const Folder& folder, const DiskEntry& entry, const store::ObjectRow* displaced);
    std::optional<Heritage> heritageOf(const store::ObjectRow* displaced);
    void noteTakeover(store::Takeover takeover);
    void settleTakeovers();
    void settleTakeover(const store::Takeover& takeover);
    Result<void> settleMissing();
    bool promotable(const store::ObjectRow& row);
    std::optional<filesystem::Status> statusAtLink(const store::ObjectRow& row, const store::LinkRow& link);
    bool promoteLink(store::ObjectRow& row);
    /// Why objects leave: their place is gone, or it stands there still and is hidden.
    enum class Leaving { gone, hidden };
    void leave(store::ObjectRow row, const std::string& path, Leaving leaving);
    void forgetFolder(FileID folder);
    void distrust(FileID folder);
    void arrive(const store::ObjectRow& folder, const FolderContext& context);
    void pushFolders(const Job& job, std::vector<Job>* jobs);
    FolderContext contextBelow(const FolderContext& context, const store::EntryRow& row) const;
    std::string pathOf(const store::ObjectRow& row);
    std::optional<filesystem::Status> statusAtPlaceOf(const store::ObjectRow& row);

    store::Session& session();
    void write() { session().write(); }
    /// Lets others in if this run has held the store for a while. ECANCELED once comparing was given up.
    Result<void> breathe();
    Result<void> release();

    Comparer& comparer_;
    std::optional<store::Session> session_;
    std::chrono::steady_clock::time_point sessionBegan_;
    std::vector<store::Takeover> takeovers_;  ///< of this run; the store has them too
    std::vector<KeptLook> keptLooks_;         ///< in the folder at hand
    Handles handles_;
    bool complete_ = true;      ///< nothing was left out so far
    bool coversRoots_ = false;  ///< every root was compared with all below it
    bool isHinted_ = false;     ///< the folders are watched, and what is not hinted at is as it was
};

}  // namespace tarnwell::files
