#include "platform/registry/RegistryWatch.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>

namespace tarnwell::registry {
namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;

constexpr milliseconds kQuiet = 250ms;
constexpr milliseconds kLongestGathering = 1000ms;
constexpr milliseconds kPollInterval = 2000ms;
/// Folders that come while others are looked for are looked for so often before they are told.
constexpr int kMostRounds = 4;

constexpr std::uint32_t kNamesChange = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;
constexpr std::uint32_t kFolderItself = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_IGNORED;

std::uint32_t maskFor(const WatchedFolders::Names& names) {
    const std::uint32_t mask = kNamesChange | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_EXCL_UNLINK;
    return names.contents ? mask | IN_CLOSE_WRITE : mask;
}

}  // namespace

Result<std::unique_ptr<RegistryWatch>> RegistryWatch::create(Folders folders, std::function<void()> changed) {
    Descriptor queue(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (!queue.valid()) return failure(posixError(errno, "no inotify instance"));
    std::unique_ptr<RegistryWatch> watch(new RegistryWatch(std::move(folders), std::move(changed), std::move(queue)));
    watch->catchUp();
    watch->state_->resume(WatchState::Outcome::changed, watch->isComplete_);
    watch->thread_ = std::thread([raw = watch.get()] { raw->run(); });
    return watch;
}

RegistryWatch::RegistryWatch(Folders folders, std::function<void()> changed, Descriptor queue)
    : look_(std::move(folders)),
      changed_(std::move(changed)),
      state_(std::make_shared<WatchState>(std::move(queue))),
      end_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      mounts_(open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC)) {}

RegistryWatch::~RegistryWatch() {
    const std::uint64_t one = 1;
    (void)!write(end_.get(), &one, sizeof one);
    if (thread_.joinable()) thread_.join();
    state_->suspend();
}

void RegistryWatch::run() {
    std::array<pollfd, 3> waited{{{state_->queue(), POLLIN, 0}, {end_.get(), POLLIN, 0}, {mounts_.get(), POLLPRI, 0}}};
    for (;;) {
        const int ready =
            poll(waited.data(), waited.size(), isComplete_ ? -1 : static_cast<int>(kPollInterval.count()));
        if (ready < 0 && errno != EINTR) return;
        if (ready > 0 && waited[1].revents != 0) return;
        const bool isPoll = ready == 0;
        const bool isMount = ready > 0 && (waited[2].revents & POLLPRI) != 0;
        state_->suspend();
        if (!readEvents() && !isPoll && !isMount) {
            state_->resume(WatchState::Outcome::nothingChanged, isComplete_);
            continue;
        }
        const auto last = std::chrono::steady_clock::now() + kLongestGathering;
        while (!isPoll && std::chrono::steady_clock::now() < last && waitForMore(kQuiet)) (void)readEvents();
        pollfd end{end_.get(), POLLIN, 0};
        if (poll(&end, 1, 0) > 0) return;
        catchUp();
        state_->resume(WatchState::Outcome::changed, isComplete_);
        changed_();
    }
}

/// False when nothing came for so long, or the end was asked for.
bool RegistryWatch::waitForMore(milliseconds atMost) const {
    std::array<pollfd, 2> waited{{{state_->queue(), POLLIN, 0}, {end_.get(), POLLIN, 0}}};
    return poll(waited.data(), waited.size(), static_cast<int>(atMost.count())) > 0 && waited[1].revents == 0;
}

/// Reads what is queued; true when something of it counts.
bool RegistryWatch::readEvents() {
    bool counted = false;
    alignas(inotify_event) std::array<char, 64 * 1024> bytes;
    for (;;) {
        const ssize_t length = read(state_->queue(), bytes.data(), bytes.size());
        if (length < 0 && errno == EINTR) continue;
        if (length <= 0) return counted;
        for (std::size_t at = 0; at + sizeof(inotify_event) <= static_cast<std::size_t>(length);) {
            inotify_event event{};
            std::memcpy(&event, bytes.data() + at, sizeof event);
            const char* name = event.len == 0 ? "" : bytes.data() + at + sizeof event;
            counted = counts(event.wd, event.mask, name) || counted;
            if ((event.mask & (IN_IGNORED | IN_MOVE_SELF)) != 0) {
                // What stands at the path now, if anything, is watched by the next look.
                if (const auto gone = paths_.find(event.wd); gone != paths_.end()) {
                    for (const std::string& path : gone->second) numbers_.erase(path);
                    paths_.erase(gone);
                }
                if ((event.mask & IN_IGNORED) == 0) inotify_rm_watch(state_->queue(), event.wd);
            }
            at += sizeof event + event.len;
        }
    }
}

bool RegistryWatch::counts(int watch, std::uint32_t mask, const char* name) const {
    if ((mask & IN_Q_OVERFLOW) != 0) return true;
    const auto paths = paths_.find(watch);
    if (paths == paths_.end()) return false;
    if ((mask & kFolderItself) != 0 || *name == '\0') return true;
    return std::ranges::any_of(paths->second, [&](const std::string& path) {
        const auto folder = folders_.folders().find(path);
        return folder != folders_.folders().end() && folder->second.hold(name);
    });
}

/// Watches the folders that count now. Those above them may have come while they were looked for, so that it looks
/// again until it finds no new ones; what comes after that is hinted at.
void RegistryWatch::catchUp() {
    for (int round = 0; round < kMostRounds; ++round) {
        folders_ = look_();
        if (!watchWhatCounts()) return;
    }
}

/// True when a folder is watched that was not before.
bool RegistryWatch::watchWhatCounts() {
    std::vector<std::string> gone;
    for (const auto& [path, number] : numbers_) {
        if (!folders_.folders().contains(path)) gone.push_back(path);
    }
    for (const std::string& path : gone) forget(path);
    bool foundNew = false;
    isComplete_ = folders_.isComplete();
    for (const auto& [path, names] : folders_.folders()) {
        // Also where the path is known: another folder may stand there by now.
        const int number = inotify_add_watch(state_->queue(), path.c_str(), maskFor(names) | IN_MASK_ADD);
        const int reason = errno;
        const auto known = numbers_.find(path);
        if (known != numbers_.end() && known->second == number) continue;
        forget(path);
        if (number < 0) {
            // One that went meanwhile, or that may not be read, is hinted at by the folder above it when that changes.
            isComplete_ = isComplete_ && (reason == ENOENT || reason == ENOTDIR || reason == EACCES);
            continue;
        }
        foundNew = true;
        numbers_.emplace(path, number);
        paths_[number].push_back(path);
    }
    return foundNew;
}

/// Watches the path no longer.
void RegistryWatch::forget(const std::string& path) {
    const auto known = numbers_.find(path);
    if (known == numbers_.end()) return;
    const auto paths = paths_.find(known->second);
    if (paths != paths_.end()) {
        std::erase(paths->second, path);
        if (paths->second.empty()) {
            inotify_rm_watch(state_->queue(), known->second);
            paths_.erase(paths);
        }
    }
    numbers_.erase(known);
}

}  // namespace tarnwell::registry
