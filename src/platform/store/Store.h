#pragma once

#include <atomic>
#include <chrono>
#include <ctime>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/base/Result.h"
#include "platform/base/UUID.h"
#include "platform/log/Log.h"
#include "platform/store/Continuations.h"
#include "platform/store/Database.h"
#include "platform/store/Index.h"
#include "platform/store/Journal.h"
#include "platform/store/KeptTable.h"
#include "platform/store/Numbers.h"
#include "platform/store/OwnerLock.h"
#include "platform/store/TakeoverTable.h"
#include "platform/store/Temporaries.h"
#include "platform/store/TrashOrigins.h"

namespace tarnwell::store {

struct StoreOptions {
    std::string directory;  ///< made with mode 0700 if missing
    std::chrono::milliseconds patience{5000};
    log::Log* log = nullptr;
};

/// What happened when the store was opened, for status displays.
enum class StoreOrigin { created, reopened, recoveredAfterDamage };

/// The durable memory of one person's device: index, journal and their numbers, in one SQLite file that one process
/// owns. Every use goes through a `Session`, which holds the store's mutex.
///
/// S1: a number (event, document, fresh file ID, position) is issued at most once for the life of the store, also when
///     the power fails: ranges are reserved durably before they are used, and an unclean start skips the reserved rest.
/// S2: what a session committed is there after the process ends in any way; a power cut may take the latest commits,
/// and
///     the event range that it took is remembered as lost.
class Store {
public:
    static Result<std::unique_ptr<Store>> open(const StoreOptions& options);
    ~Store();
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    const UUID& uuid() const { return uuid_; }
    StoreOrigin origin() const { return origin_; }
    const std::string& directory() const { return directory_; }

    /// The position reached by committed records. Any thread.
    EventID lastEventID() const { return EventID{lastEvent_.load(std::memory_order_acquire)}; }

    /// The storage root, and all below it, was compared with the disk now. Any thread; kept when the store is closed.
    void noteCompared() { compared_.store(std::time(nullptr), std::memory_order_relaxed); }
    /// When that was last, in seconds since 1970, by this process or one before; nothing if it never was.
    std::optional<std::int64_t> lastCompared() const {
        const std::int64_t when = compared_.load(std::memory_order_relaxed);
        return when != 0 ? std::optional(when) : std::nullopt;
    }

    /// Brings what was written ahead to its place, where it is much and nobody uses the store. To be called in quiet
    /// moments: it waits for the disk, and so would the commit that it spares that. Any thread.
    void tidy();
    bool isUntidy() const;

    /// Called after a commit that recorded events, outside the store's mutex, on the committing thread.
    void setCommitListener(std::function<void()> listener);

private:
    friend class Session;
    Store() = default;
    Result<void> prepare();
    void keepCompared();

    std::string directory_;
    std::optional<OwnerLock> ownerLock_;
    std::unique_ptr<Database> database_;
    std::unique_ptr<Numbers> numbers_;
    std::unique_ptr<Index> index_;
    std::unique_ptr<Journal> journal_;
    std::unique_ptr<KeptTable> kept_;
    std::unique_ptr<TakeoverTable> takeovers_;
    std::unique_ptr<Continuations> continuations_;
    std::unique_ptr<Temporaries> temporaries_;
    std::unique_ptr<TrashOrigins> trashOrigins_;
    UUID uuid_;
    StoreOrigin origin_ = StoreOrigin::created;
    std::atomic<std::uint64_t> lastEvent_{0};
    std::atomic<std::int64_t> compared_{0};  ///< seconds since 1970
    std::int64_t comparedKept_ = 0;          ///< as the database has it
    std::mutex mutex_;
    std::mutex listenerMutex_;
    std::function<void()> listener_;
};

/// Holds the store for one piece of work. Changes become visible to others, and durable, with `commit`; a session that
/// ends without it takes them back.
class Session {
public:
    explicit Session(Store& store);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    Index& index() { return *store_.index_; }
    Journal& journal() { return *store_.journal_; }
    KeptTable& kept() { return *store_.kept_; }
    TakeoverTable& takeovers() { return *store_.takeovers_; }
    Continuations& continuations() { return *store_.continuations_; }
    Temporaries& temporaries() { return *store_.temporaries_; }
    TrashOrigins& trashOrigins() { return *store_.trashOrigins_; }
    Numbers& numbers() { return *store_.numbers_; }

    /// Begins writing if it has not begun. Index and journal changes are allowed after it only.
    void write();
    /// Commits what was written and releases the store: the session is over. The first failure since it began, if any,
    /// is returned and everything undone.
    Result<void> commit();
    /// The first failure of a reading session.
    Result<void> check();

private:
    Store& store_;
    std::unique_lock<std::mutex> lock_;
    bool writing_ = false;
};

}  // namespace tarnwell::store
