#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/base/Ids.h"
#include "platform/store/Database.h"
#include "platform/url/ResourceCache.h"

namespace tarnwell::store {

class Numbers;

/// What an object is on disk: file system (by its stored number), inode and birth. Two objects that ever lived have
/// different identities, also where inode numbers are handed out again; only where no birth times are kept two of one
/// kind may have the same one after the other.
struct ObjectIdentity {
    std::uint32_t fileSystem = 0;
    std::uint64_t inode = 0;
    std::int64_t birth = 0;
    friend bool operator==(const ObjectIdentity&, const ObjectIdentity&) = default;
};

/// Where an object of the index stands.
enum class ObjectState : std::uint8_t {
    live = 0,     ///< was at its place when that was last compared
    missing = 1,  ///< was not at its place in the comparison under way; it may turn up elsewhere
    gone = 2,     ///< departed: recorded as such, kept until a full comparison has not found it anywhere
};

/// One object below the roots as far as a listing needs to know it.
struct EntryRow {
    FileID fileID{};
    ObjectIdentity identity;
    std::optional<DocumentID> documentID;
    std::uint64_t parent = 0;    ///< file ID of the folder; 0 for a root
    std::uint64_t position = 0;  ///< grows in the order in which entries came into their folder
    std::string name;
    FileKind kind = FileKind::other;
    bool package = false;
    bool visible = false;  ///< clients may be told of it
    ObjectState state = ObjectState::live;
    /// Folders: the change time at which the entries were read and known to be settled; 0 when they are to be read
    /// again.
    std::int64_t listed = 0;
    std::uint32_t entries = 0;  ///< folders: how many entries were read then, hidden ones too
    std::int64_t changed = 0;   ///< change time on disk (ctime), nanoseconds since 1970
    bool bare = false;          ///< at that change time it had no extended attributes and no access list, nor can it
                                ///< get one without another change time

    void setChanged(std::int64_t time) {
        bare = bare && time == changed;
        changed = time;
    }
    bool isDirectory() const { return kind == FileKind::directory; }
    /// Documents carry document IDs: regular files and packages.
    bool isDocument() const { return kind == FileKind::regular || (isDirectory() && package); }
};

/// All that is known of an object as it was last compared.
struct ObjectRow : EntryRow {
    std::uint64_t size = 0;
    std::int64_t modified = 0;
    std::uint64_t event = 0;   ///< of its last recorded change; 0 for none
    std::uint32_t change = 0;  ///< what that change was, as event flags
};

/// What the way from an object to its root needs to know of each folder on it.
struct FolderNode {
    ObjectIdentity identity;
    std::optional<DocumentID> documentID;
    std::uint64_t parent = 0;  ///< 0 for a root
    std::string name;
    bool package = false;
    bool live = false;
};

/// A further name of a regular file that has several.
struct LinkRow {
    FileID fileID{};
    std::uint64_t parent = 0;
    std::string name;
    std::uint64_t position = 0;
};

/// The object table. Under the store's mutex (a Session) only; changes only in a writing session.
///
/// I1: no two rows have the same identity, file ID or document ID.
/// I2: a file ID is the object's inode number if this store never gave that number to another object, else a fresh one.
/// I3: a live row's parent is a live folder row, or 0 for a root.
/// I4: no two rows have the same position. It is the table's key, so that the rows of a folder that was read in one go
///     lie side by side, and a listing goes through them in the order in which they are stored.
class Index {
public:
    static constexpr std::size_t kMostChildren = std::numeric_limits<std::int64_t>::max();

    Index(Database& database, Numbers& numbers);

    /// The stored number of a file system by its identity text; added when `add`.
    std::uint32_t fileSystemNumber(const std::string& identity);

    std::optional<ObjectRow> byFileID(FileID fileID);
    std::optional<ObjectRow> byIdentity(const ObjectIdentity& identity);
    std::optional<ObjectRow> byDocumentID(DocumentID documentID);
    /// A folder on the way to a root, kept in memory; null if there is none. Valid until the next call that changes
    /// rows.
    const FolderNode* folderNode(std::uint64_t fileID);
    /// Forgets what is kept in memory: a session was undone.
    void forgetFolders() { folderNodes_.clear(); }

    /// Live children of a folder, in the order in which they came, after a position, at most `limit`.
    std::vector<EntryRow> children(FileID folder, std::uint64_t afterPosition, std::size_t limit);
    /// Live and missing children with every field, in the order in which they came, for comparing a folder.
    std::vector<ObjectRow> allChildren(FileID folder, std::uint64_t afterPosition = 0,
                                       std::size_t limit = kMostChildren);
    /// The live or missing child of that name; of both the live one.
    std::optional<ObjectRow> childNamed(FileID folder, std::string_view name);
    /// All of that name, live and missing; several roots may have had one name after the other.
    std::vector<ObjectRow> childrenNamed(FileID folder, std::string_view name);
    /// Live children that are folders, in the order in which they came.
    std::vector<EntryRow> folders(FileID folder);
    /// Passes over `count` visible-by-name live children after a position; returns how many there were and the position
    /// of the last one.
    struct Skipped {
        std::uint64_t count = 0;
        std::uint64_t position = 0;
    };
    Skipped skipChildren(FileID folder, std::uint64_t afterPosition, std::uint64_t count, bool skipHidden);

    /// Rows in a state, any folder.
    std::vector<ObjectRow> inState(ObjectState state, std::size_t limit);

    /// Adds a row: chooses its file ID (I2) and its position. The document ID is set by the caller.
    void insert(ObjectRow& row);
    /// Writes every field of the row but the file ID.
    void update(const ObjectRow& row);
    /// Notes that a row with that change time still is bare.
    void setBare(std::uint64_t position, std::int64_t changed);
    void setListed(FileID folder, std::int64_t listed, std::uint32_t entries);
    void setState(FileID fileID, ObjectState state);
    /// Removes rows in state gone; their file IDs are never given again. Returns how many.
    std::uint64_t purgeGone();

    std::vector<LinkRow> linksIn(std::uint64_t folder);
    std::vector<LinkRow> linksOf(FileID fileID);
    void addLink(const LinkRow& link);
    void removeLink(const LinkRow& link);

    std::uint64_t rowCount();

private:
    static void readEntry(const Statement& statement, EntryRow& row);
    static ObjectRow rowFrom(const Statement& statement);
    void bindRow(Statement& statement, const ObjectRow& row, int first);
    bool wasIssued(std::uint64_t fileID);

    static constexpr std::size_t kMostFolderNodes = 100'000;

    Database& database_;
    Numbers& numbers_;
    std::unordered_map<std::uint64_t, FolderNode> folderNodes_;
    Statement byFileID_, byIdentity_, byDocument_, children_, allChildren_, childNamed_, folders_, positions_, insert_,
        update_, updateInPlace_, updateName_, setListed_, setBare_, setState_, issued_, linksIn_, linksOf_;
};

}  // namespace tarnwell::store
