#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/ProgramContext.h"

namespace tarnwell::host {

/// A root as far as its changes are concerned.
struct RootStatus {
    std::string path;  ///< real
    bool isAvailable = false;
    std::string source;  ///< how its changes are found now: "comparing", or what the kernel offers
    std::string
        liveSource;  ///< what a program that stays would use for it; "comparing" where the kernel offers nothing
};

/// What the program knows and how it comes to know of changes.
struct Status {
    std::vector<RootStatus> roots;
    std::size_t watches = 0;       ///< directories that the kernel watches for this process
    std::uint64_t queueLimit = 0;  ///< events that the kernel keeps for one reader before it drops some; 0 if unknown
    std::uint64_t overflows = 0;
    std::size_t polledFolders = 0;  ///< watched by nobody, and looked at from time to time
    std::uint64_t objects = 0;      ///< in the index
    std::uint64_t databaseBytes = 0;
    std::uint64_t journalBegin = 0, journalEnd = 0;  ///< the positions that can be asked for
    std::uint64_t departures = 0;                    ///< records of what left or went
    std::optional<SearchStatus> search;              ///< nothing while nobody has searched
    std::optional<Error> searchProblem;              ///< why nothing is known of the search index; the rest still is
    std::optional<Date> lastCompared;  ///< the storage root with all below it, by this program or one before
};

Result<Status> statusOf(ProgramContext& context);

}  // namespace tarnwell::host
