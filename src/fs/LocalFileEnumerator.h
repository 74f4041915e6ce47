#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "fs/ChangeToken.h"
#include "fs/DirectoryScan.h"
#include "fs/FSChangesEnumerator.h"
#include "fs/FSChangesNotifier.h"
#include "hostframework/ProviderEnumerator.h"

namespace tarnwell::fs {

/// Lists one folder in pages of 200, or (AllDirectoriesContainer) all folders below several, tells what changed below
/// its folders since an anchor, and gives the current anchor. Listings run on the calling thread, changes are told on a
/// queue of their own; any thread may call any operation.
///
///   made --start--> live --stop, invalidate--> made: live updates, and the requests for changes that are under way end
///   without a finish; `retire` lets those go on.
class LocalFileEnumerator : public hostframework::ProviderEnumerator,
                            public std::enable_shared_from_this<LocalFileEnumerator> {
public:
    static constexpr std::uint64_t kPageSize = 200;

    /// `urls` are the folders covered; the first is the one listed. No URLs stop the process. Without a change notifier
    /// (an error line says so) there is no live update and no anchor.
    static std::shared_ptr<LocalFileEnumerator> create(const FSEnvironment& environment, std::string container,
                                                       std::vector<URL> urls);

    void enumerateItemsForObserver(const std::shared_ptr<hostframework::EnumerationObserver>& observer,
                                   const hostframework::EnumerationPage& startingAtPage) override;
    void enumerateChangesForObserver(const std::shared_ptr<hostframework::ChangeObserver>& observer,
                                     const hostframework::SyncAnchor& fromSyncAnchor) override;
    void currentSyncAnchorWithCompletionHandler(
        const std::function<void(const std::optional<hostframework::SyncAnchor>&)>& completion) override;

    /// Begin and end the live updates, soon. A started enumerator must be stopped before its last reference goes.
    void start();
    void stop();
    void invalidate() override { stop(); }
    /// Ends the live updates only: another enumerator takes this one's place, and requests that it has begun to answer
    /// are answered.
    void retire();
    /// Takes out an enumeration of changes that has finished.
    void removeEnumerator(const std::shared_ptr<FSChangesEnumerator>& enumerator);
    /// Fails when the folder that the container is has left its URL.
    Result<void> checkContainer() const;
    /// The enumerations of changes under way.
    using Enumerators = std::set<std::shared_ptr<FSChangesEnumerator>>;
    Enumerators enumerators() const;

    const std::string& container() const { return container_; }
    const URL& enumeratedItemURL() const { return urls_.front(); }
    const std::vector<URL>& urls() const { return urls_; }
    /// Null when it could not be created.
    const std::shared_ptr<FSChangesNotifier>& notifier() const { return notifier_; }
    /// True exactly for the working set.
    bool shouldUpdateFileIDInGenstore() const { return shouldUpdateFileIDInGenstore_; }

    /// The walk options for a folder named ".Trash", which is always listed flat; nothing for any other.
    static std::optional<unsigned> directoryEnumerationOptionsFor(const URL& url);

private:
    /// Where a page begins: the event ID from the start of its listing, and the entries delivered before.
    struct GatherStart {
        EventID startEventID{};
        std::uint64_t offset = 0;
    };

    LocalFileEnumerator(const FSEnvironment& environment, std::string container, std::vector<URL> urls);
    Result<UUID> volumeUUID() const;
    void startEnumeratingChanges(const std::shared_ptr<hostframework::ChangeObserver>& observer,
                                 const ChangeToken& token);
    void gather(hostframework::EnumerationObserver& observer, const std::optional<ChangeToken>& token) const;
    Result<GatherStart> beginGathering() const;
    Result<GatherStart> resumeGathering(const ChangeToken& token, const UUID& volumeUUID) const;
    Result<std::uint64_t> collect(const DirectoryScanOptions& options,
                                  std::vector<hostframework::ProviderItemPtr>& items) const;
    bool fitsOnePage() const;
    bool listsAllDirectories() const;

    const FSEnvironment& environment_;
    const std::string container_;
    const std::vector<URL> urls_;
    const std::shared_ptr<FSChangesNotifier> notifier_;
    const bool shouldUpdateFileIDInGenstore_;
    mutable std::mutex mutex_;
    Enumerators enumerators_;  ///< under mutex_; nothing inside calls out
};

}  // namespace tarnwell::fs
