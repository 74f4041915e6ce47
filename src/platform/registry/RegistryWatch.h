#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "platform/base/Descriptor.h"
#include "platform/base/Result.h"
#include "platform/registry/WatchState.h"
#include "platform/registry/WatchedFolders.h"

namespace tarnwell::registry {

/// Tells when something changed that decides which applications there are: inotify(7) watches on folders, on a thread
/// of its own, and the kernel's word that something was mounted or unmounted, which may be in place of such a folder.
/// What belongs together is told once: after a quarter of a second in which nothing happened, or a second after it
/// began. Where a folder cannot be watched, it is told every two seconds that something may have changed.
class RegistryWatch {
public:
    using Folders = std::function<WatchedFolders()>;
    /// `folders` looks afresh at which folders count; both are called on the watch's thread, `folders` also before this
    /// returns. Fails where the kernel gives no inotify instance.
    static Result<std::unique_ptr<RegistryWatch>> create(Folders folders, std::function<void()> changed);
    /// After it returned neither is called again. Not from within one of them.
    ~RegistryWatch();
    /// What it vouches for; outlives it, and then vouches for nothing.
    std::shared_ptr<const WatchState> state() const { return state_; }
    RegistryWatch(const RegistryWatch&) = delete;
    RegistryWatch& operator=(const RegistryWatch&) = delete;

private:
    RegistryWatch(Folders folders, std::function<void()> changed, Descriptor queue);
    void run();
    bool waitForMore(std::chrono::milliseconds atMost) const;
    bool readEvents();
    bool counts(int watch, std::uint32_t mask, const char* name) const;
    void catchUp();
    bool watchWhatCounts();
    void forget(const std::string& path);

    const Folders look_;
    const std::function<void()> changed_;
    const std::shared_ptr<WatchState> state_;
    const Descriptor end_;
    const Descriptor mounts_;  ///< none where /proc cannot be read
    WatchedFolders folders_;
    /// By the kernel's number; a folder may be mounted in several places.
    std::unordered_map<int, std::vector<std::string>> paths_;
    std::map<std::string, int> numbers_;  ///< by path
    bool isComplete_ = true;
    std::thread thread_;
};

}  // namespace tarnwell::registry
