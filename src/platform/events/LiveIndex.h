#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <unordered_map>
#include <vector>

#include "platform/base/Descriptor.h"
#include "platform/files/Comparer.h"
#include "platform/files/FolderWatch.h"
#include "platform/watch/Watcher.h"

namespace tarnwell::events {

/// Keeps the index equal to the disk by what the kernel tells: every folder below the roots is watched, and what a hint
/// names is compared.
///
///   ended --begin--> live --end--> ended; it is made ended.
///
/// L1: while live, a change whose system call returned before `catchUp` was called is in the index when it returns.
/// L2: what cannot be watched is compared by every `catchUp` (polled): folders past the watch limit, folders of file
///     systems that others change too (FUSE, networks), and files that have a name below no root; after an overflow
///     everything is.
/// L3: between hints nothing runs while nothing is polled.
class LiveIndex : public files::FolderWatch {
public:
    /// The comparer outlives it.
    LiveIndex(files::Comparer& comparer, std::unique_ptr<watch::Watcher> watcher);
    ~LiveIndex() override;
    LiveIndex(const LiveIndex&) = delete;
    LiveIndex& operator=(const LiveIndex&) = delete;

    /// Watches every folder and compares everything; blocks for it. On failure nothing is watched.
    Result<void> begin();
    /// Ends the watching. Nothing of it runs when this has returned.
    void end();
    bool isLive() const override { return live_.load(); }
    /// Brings the index up to now.
    Result<void> catchUp();

    struct Status {
        std::vector<watch::SourceStatus> sources;
        std::size_t polledFolders = 0;
        std::uint64_t overflows = 0;
        std::uint64_t events = 0;  ///< read from the kernel so far
    };
    Status status() const;

    bool isWatched(FileID folder) const override { return !rewatch_ && watcher_->isWatched(folder); }
    void watch(int handle, FileID folder) override;
    bool isComplete() const override;
    void forget(FileID folder) override;

private:
    using Pending = std::unordered_map<FileID, files::HintedFolder>;
    void run();
    void wakeUp();
    Result<void> look();
    Result<void> apply();
    bool takeHints(Pending& pending);
    void addPolled(Pending& pending);

    files::Comparer& comparer_;
    const std::unique_ptr<watch::Watcher> watcher_;
    std::atomic<bool> live_{false};
    std::atomic<bool> pollsNames_{false};  ///< some files can be changed under names that are not watched
    std::atomic<bool> rewatch_{false};     ///< after an overflow not even the watches are known to be there
    std::mutex applyMutex_;                ///< one application of hints at a time
    bool knowsNothing_ = false;            ///< under applyMutex_: hints were lost
    Pending carried_;                      ///< under applyMutex_: of folders that were not found so far
    int carriedRounds_ = 0;
    std::chrono::steady_clock::time_point lastApplied_;  ///< under applyMutex_
    mutable std::mutex mutex_;
    std::set<FileID> polled_;  ///< under mutex_
    std::atomic<std::uint64_t> overflows_{0}, events_{0};
    Descriptor wakeUp_;  ///< readable when the thread is to end, or to wait for a quiet moment
    std::thread thread_;
};

}  // namespace tarnwell::events
