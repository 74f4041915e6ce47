#pragma once

#include <functional>
#include <optional>

#include "host/Changes.h"
#include "host/SearchIndex.h"
#include "hostframework/ProviderExtension.h"

namespace tarnwell::host {

/// Keeps the search index equal to what the provider has, as a client of the working set like any other: the first time
/// it lists everything, folder by folder, and later it asks for what changed. Not for two threads at once, but there
/// may be several for one index, which take turns; the index may be searched meanwhile.
///
/// C1: the anchor that is kept is one up to which every change is in the index, so that whoever was cut off, by
///     whatever, goes on from there; a fill that was cut off begins again.
/// C2: while an index is filled anew, because its anchor expired, it still finds what it held.
class SearchCatchUp {
public:
    /// Told now and then how many items a fill has found so far.
    using Progress = std::function<void(std::size_t)>;

    /// Borrows both.
    SearchCatchUp(hostframework::ProviderExtension& provider, SearchIndex& index)
        : provider_(provider), index_(index) {}

    void reportTo(Progress progress) { progress_ = std::move(progress); }

    /// Every change whose system call returned before this call is in the index after it. Fails with the provider's
    /// error or the index's, and what was done by then is kept.
    Result<void> run();

private:
    Result<void> runOnce();
    Result<void> fill();
    Result<hostframework::SyncAnchor> anchorOfNow();
    /// The folders' contents and all below them.
    Result<void> addBelow(std::vector<hostframework::ItemIdentifier> folders);
    Result<void> addTrashOf(const hostframework::ProviderItem& root,
                            std::vector<hostframework::ItemIdentifier>& folders);
    Result<void> addPending(bool evenFew);
    Result<ChangeBatch> changesSince(const hostframework::SyncAnchor& anchor);
    Result<void> follow(hostframework::SyncAnchor anchor);

    hostframework::ProviderExtension& provider_;
    SearchIndex& index_;
    Progress progress_;
    std::optional<ChangeFollower> follower_;
    std::vector<hostframework::ProviderItemPtr> pending_;
    std::size_t found_ = 0;
};

}  // namespace tarnwell::host
