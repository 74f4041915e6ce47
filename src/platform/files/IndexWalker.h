#pragma once

#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/base/Descriptor.h"
#include "platform/files/Comparer.h"
#include "platform/files/FileSystem.h"
#include "platform/filesystem/Access.h"
#include "platform/filesystem/Beneath.h"

namespace tarnwell::files {

/// Remembers where in a folder's order earlier walks stopped, so that the walk for the next page goes on there instead
/// of counting from the beginning. A place is good as long as nothing left the folder since, which the caller of a
/// later page finds out anyway. Any thread may call it.
class WalkPositions {
public:
    void remember(FileID folder, unsigned options, std::uint64_t count, std::uint64_t position);
    /// The greatest remembered count not above `count`, with its position; {0, 0} for none.
    std::pair<std::uint64_t, std::uint64_t> best(FileID folder, unsigned options, std::uint64_t count);

private:
    static constexpr std::size_t kRemembered = 256;
    struct Entry {
        FileID folder{};
        unsigned options = 0;
        std::uint64_t count = 0;
        std::uint64_t position = 0;
    };
    std::mutex mutex_;
    std::deque<Entry> entries_;
};

/// A folder open for reading, and its status right after it was opened.
struct OpenedFolder {
    static Result<OpenedFolder> open(const Place& place);
    /// EACCES for a folder whose names may be read, but not looked at.
    Result<void> checkSearchable() const;
    Descriptor descriptor;
    filesystem::Status status;
};

/// Walks folders in the order that the index keeps, looking at each entry on disk.
class IndexWalker : public DirectoryWalker {
public:
    /// `folderPath` is the URL path of the folder, whose names were compared just now; without `opened` it is opened at
    /// its place.
    IndexWalker(Comparer& comparer, store::Store& store, mime::TypeDatabase& types, WalkPositions& positions,
                Place folder, std::string folderPath, store::EntryRow row, std::optional<OpenedFolder> opened,
                unsigned options, WalkErrorHandler errorHandler);
    ~IndexWalker() override;

    std::optional<URL> next() override;
    std::uint64_t skip(std::uint64_t count) override;
    std::optional<Error> failure() const override { return failure_; }

private:
    struct Level {
        Place place;
        std::string path;
        store::EntryRow folder;
        std::shared_ptr<ResourceCache> cache;  ///< of the folder's URL, as its entries' URLs derive it
        std::optional<OpenedFolder> opened;
        Descriptor handle;  ///< O_PATH, for looks at the status of what lies in it while nothing is read
        filesystem::MountState mount = filesystem::MountState::writable;
        std::vector<store::EntryRow> rows;
        std::size_t nextRow = 0;
        std::uint64_t position = 0;  ///< of the last row taken
        std::int64_t filled = 0;     ///< when the rows were read, by the clock that file systems stamp with
        bool atEnd = false;
    };
    /// Whether the entries that are stepped over are also looked at on disk.
    enum class Purpose { looking, counting };
    const store::EntryRow* step(Purpose purpose);
    void enterPending(Purpose purpose);
    void counted(const store::EntryRow& row);
    bool open(Level& level);
    static void learnMount(Level& level, const Level* above);
    int handleOf(std::size_t depth);
    bool fill(Level& level);
    void keepBare();
    static std::shared_ptr<ResourceCache> cacheOf(const store::EntryRow& folder);
    const store::EntryRow* nextRow(Level& level);
    bool descends(const store::EntryRow& row) const;
    void enter(const Level& parent, const store::EntryRow& row);
    std::optional<URL> urlFor(Level& level, const store::EntryRow& row);
    bool report(const std::string& path, const Error& error);
    void stop(const Error& error);

    Comparer& comparer_;
    store::Store& store_;
    mime::TypeDatabase& types_;
    WalkPositions& positions_;
    unsigned options_;
    WalkErrorHandler errorHandler_;
    std::vector<std::unique_ptr<Level>> levels_;
    std::optional<std::pair<Place, store::EntryRow>> pendingFolder_;  ///< a folder delivered last, to be entered next
    std::string pendingPath_;
    std::uint64_t count_ = 0;             ///< entries delivered or skipped of the first folder
    std::uint64_t countedPosition_ = 0;   ///< of the last of them
    std::uint64_t previousPosition_ = 0;  ///< of the one before it; 0 when it is not known
    bool stopped_ = false;
    std::optional<Error> failure_;
    std::vector<std::pair<std::uint64_t, std::int64_t>> bare_;  ///< positions and change times of what was found bare
};

}  // namespace tarnwell::files
