#include "host/SearchCatchUp.h"

#include <cerrno>
#include <mutex>

#include "host/Listing.h"
#include "hostframework/HostError.h"
#include "items/TrashFolder.h"

namespace tarnwell::host {
namespace {

using hostframework::ItemIdentifier;
using hostframework::SyncAnchor;

/// Items that are written in one transaction: few enough for a start soon after a kill, enough not to be slow.
constexpr std::size_t kAtOnce = 1000;
/// Fills of one run. Where anchors expire faster than that, something is wrong beside us.
constexpr int kMostFills = 3;

bool isExpired(const Error& error) { return error.is(ErrorDomain::host, hostframework::kSyncAnchorExpired); }
bool isGone(const Error& error) { return error.is(ErrorDomain::host, hostframework::kNoSuchItem); }

}  // namespace

Result<void> SearchCatchUp::run() {
    const std::lock_guard turn(index_.turn());
    auto outcome = runOnce();
    // The index has begun a new file.
    if (!outcome && isDamagedIndex(outcome.error())) outcome = runOnce();
    return outcome;
}

Result<void> SearchCatchUp::runOnce() {
    pending_.clear();
    for (int fills = 0;; ++fills) {
        auto anchor = index_.anchor();
        if (!anchor) return failure(anchor.error());
        if (!*anchor) {
            if (auto filled = fill(); !filled) return filled;
            anchor = index_.anchor();
            if (!anchor || !*anchor) return anchor ? failure(posixError(EAGAIN)) : failure(anchor.error());
        }
        auto followed = follow(**anchor);
        if (followed || !isExpired(followed.error()) || fills == kMostFills) return followed;
        follower_.reset();
        if (auto filled = fill(); !filled) return filled;
    }
}

/// Asks for changes until nothing more is coming.
Result<void> SearchCatchUp::follow(SyncAnchor anchor) {
    const auto isSettled = index_.isSettled();
    if (!isSettled) return failure(isSettled.error());
    for (;;) {
        const auto batch = changesSince(anchor);
        if (!batch) return failure(batch.error());
        if (!*isSettled) {
            // A folder that went, during the fill, from where nobody had looked to where somebody had. What it holds
            // is listed before the batch counts as done; what comes after it is told again.
            auto unknown = index_.unknownFoldersIn(*batch);
            if (!unknown) return failure(unknown.error());
            if (auto added = addBelow(std::move(*unknown)); !added) return added;
        }
        if (auto applied = index_.apply(*batch); !applied) return applied;
        anchor = batch->anchor;
        if (!batch->moreComing) return index_.settle();
    }
}

Result<ChangeBatch> SearchCatchUp::changesSince(const SyncAnchor& anchor) {
    if (!follower_) {
        auto follower = ChangeFollower::create(provider_, hostframework::kWorkingSetContainer);
        if (!follower) return failure(follower.error());
        follower_ = std::move(*follower);
    }
    return follower_->changesSince(anchor);
}

Result<SyncAnchor> SearchCatchUp::anchorOfNow() {
    auto anchor = currentSyncAnchor(provider_, hostframework::kWorkingSetContainer);
    if (!anchor) return failure(anchor.error());
    if (!*anchor) return failure(posixError(ENOTSUP, "changes cannot be told on this device"));
    return std::move(**anchor);
}

Result<void> SearchCatchUp::fill() {
    found_ = 0;
    const auto before = anchorOfNow();
    if (!before) return failure(before.error());
    if (auto begun = index_.beginFill(); !begun) return begun;

    const auto root = provider_.itemForIdentifier(hostframework::kRootContainer);
    if (!root) return failure(root.error());
    const auto top = listContainer(provider_, hostframework::kRootContainer);
    if (!top) return failure(top.error());
    std::vector<ItemIdentifier> folders;
    if (auto added = addTrashOf(**root, folders); !added) return added;
    for (const auto& listed : *top) {
        pending_.push_back(listed.item);
        if (listed.item->isFolder()) folders.push_back(listed.item->itemIdentifier());
        if (!listed.item->isContainer()) continue;
        if (auto added = addTrashOf(*listed.item, folders); !added) return added;
    }
    if (auto added = addBelow(std::move(folders)); !added) return added;
    return index_.finishFill(*before);
}

/// No listing leads to a trash folder, since it is hidden.
Result<void> SearchCatchUp::addTrashOf(const hostframework::ProviderItem& root, std::vector<ItemIdentifier>& folders) {
    const URL url = root.fileURL().appending(items::kTrashFolderName);
    const auto identifier = provider_.persistentIdentifierForItemAtURL(url);
    if (!identifier) return {};
    auto item = provider_.itemForIdentifier(*identifier);
    if (!item) return {};
    pending_.push_back(*item);
    if ((*item)->isFolder()) folders.push_back(*identifier);
    return {};
}

Result<void> SearchCatchUp::addBelow(std::vector<ItemIdentifier> folders) {
    while (!folders.empty()) {
        const ItemIdentifier folder = std::move(folders.back());
        folders.pop_back();
        const auto listed = listContainer(provider_, folder);
        if (!listed && !isGone(listed.error())) return failure(listed.error());
        // One that went since it was listed is told as gone.
        if (!listed) continue;
        for (const auto& one : *listed) {
            pending_.push_back(one.item);
            if (one.item->isFolder()) folders.push_back(one.item->itemIdentifier());
        }
        if (auto added = addPending(false); !added) return added;
    }
    return addPending(true);
}

Result<void> SearchCatchUp::addPending(bool evenFew) {
    if (pending_.empty() || (!evenFew && pending_.size() < kAtOnce)) return {};
    found_ += pending_.size();
    if (progress_) progress_(found_);
    auto added = index_.add(pending_);
    pending_.clear();
    return added;
}

}  // namespace tarnwell::host
