#pragma once

#include <string>
#include <variant>
#include <vector>

#include "fs/FSEnvironment.h"

namespace tarnwell::fs {

/// Whether a listing in pages may go on at its offset.
struct FSEventReaderGatherPhaseResumeStatus {
    /// Something below the folders was deleted since, so that offsets no longer mean what they meant.
    struct DeletionOccurred {
        std::string path;
        friend bool operator==(const DeletionOccurred&, const DeletionOccurred&) = default;
    };
    struct CanResume {
        friend bool operator==(const CanResume&, const CanResume&) = default;
    };
    /// What happened since is not known any more.
    struct CantReplayHistoricalFSEvents {
        friend bool operator==(const CantReplayHistoricalFSEvents&, const CantReplayHistoricalFSEvents&) = default;
    };
    std::variant<DeletionOccurred, CanResume, CantReplayHistoricalFSEvents> value = CanResume{};
    friend bool operator==(const FSEventReaderGatherPhaseResumeStatus&,
                           const FSEventReaderGatherPhaseResumeStatus&) = default;
};

struct GatherPhaseResumeAnswer {
    FSEventReaderGatherPhaseResumeStatus status;
    /// The position recorded when the check began; everything later than the check is past it.
    EventID presentEventID{};
};

/// Replays the events below the folders since that position and says whether the listing that began there may go on.
/// Blocks, without a limit, until the event source has told everything up to now, a deletion, or that it cannot tell;
/// nothing of the check runs on after it has returned. Not on a reader's stream queue.
GatherPhaseResumeAnswer canResumeGatherPhase(const FSEnvironment& environment, const std::vector<URL>& urls,
                                             EventID previousEventID);

}  // namespace tarnwell::fs
