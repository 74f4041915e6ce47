#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/base/Ids.h"
#include "platform/base/Result.h"

namespace tarnwell::session {

/// A root as far as its changes are concerned.
struct RootStatus {
    std::string path;  ///< real; bytes
    bool isAvailable = false;
    std::string source;  ///< how its changes are found now: "comparing", or what the kernel offers
    /// What a program that stays would use for it: "comparing" where the kernel offers nothing, and "inotify, polled"
    /// where the root is also compared all the time, since others change it without the kernel telling.
    std::string liveSource;
};

/// How the store was found when the host opened it.
enum class StoreOrigin { created, reopened, recoveredAfterDamage };

struct SearchStatus {
    std::uint64_t items = 0;
    std::uint64_t databaseBytes = 0;
    std::optional<Date> caughtUp;  ///< when the last change was taken in; nothing while it is not complete
};

/// What the host knows and how it comes to know of changes.
struct Status {
    std::vector<RootStatus> roots;
    std::uint64_t watches = 0;     ///< directories that the kernel watches for the host
    std::uint64_t queued = 0;      ///< events that wait in the fullest of the kernel's queues
    std::uint64_t queueLimit = 0;  ///< events that the kernel keeps for one reader before it drops some; 0 if unknown
    std::uint64_t overflows = 0;
    std::uint64_t polledFolders = 0;  ///< watched by nobody, and looked at from time to time
    std::string storeDirectory;       ///< bytes
    std::string storeUUID;
    StoreOrigin storeOrigin = StoreOrigin::reopened;
    std::uint64_t objects = 0;  ///< in the index
    std::uint64_t databaseBytes = 0;
    std::uint64_t journalBegin = 0, journalEnd = 0;  ///< the positions that can be asked for
    std::uint64_t departures = 0;                    ///< records of what left or went
    std::optional<SearchStatus> search;              ///< nothing while nobody has searched
    std::optional<Error> searchProblem;              ///< why nothing is known of the search index; the rest still is
    std::optional<Date> lastCompared;  ///< the storage root with all below it, by this program or one before
};

}  // namespace tarnwell::session
