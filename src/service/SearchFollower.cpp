#include "service/SearchFollower.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>

#include "host/SearchCatchUp.h"
#include "hostframework/ItemIdentifier.h"

namespace tarnwell::service {
namespace {

/// What is written in one go is taken in at once.
constexpr auto kQuiet = std::chrono::milliseconds(500);
/// After a failure, which is mostly a disk that is full.
constexpr auto kPause = std::chrono::seconds(30);
constexpr int kNiceness = 10;

}  // namespace

SearchFollower::SearchFollower(host::ProgramContext& context, session::Session& session, log::Log& log)
    : context_(context), log_(log) {
    // Where nothing can be watched each search catches up itself.
    if (auto watch = session.watch(hostframework::kWorkingSetContainer, [this] {
            const std::lock_guard lock(mutex_);
            hasChanged_ = true;
            woken_.notify_one();
        })) {
        watch_ = std::move(*watch);
    }
    thread_ = std::thread([this] { run(); });
}

SearchFollower::~SearchFollower() {
    watch_.reset();
    {
        const std::lock_guard lock(mutex_);
        isEnding_ = true;
    }
    woken_.notify_one();
    thread_.join();
}

bool SearchFollower::waitForChange() {
    std::unique_lock lock(mutex_);
    woken_.wait(lock, [&] { return hasChanged_ || isEnding_; });
    woken_.wait_for(lock, kQuiet, [&] { return isEnding_; });
    hasChanged_ = false;
    return !isEnding_;
}

void SearchFollower::run() {
    // Of this thread alone (setpriority(2) with a thread's number); whoever searches does the work at his own priority.
    (void)::setpriority(PRIO_PROCESS, static_cast<id_t>(::syscall(SYS_gettid)), kNiceness);
    while (waitForChange()) {
        const auto outcome = host::SearchCatchUp(context_.provider(), context_.searchIndex()).run();
        if (outcome) continue;
        std::unique_lock lock(mutex_);
        if (isEnding_) return;
        log_.write(log::Level::error, "[ERROR] the search index is not up to date; " + describe(outcome.error()));
        hasChanged_ = true;
        woken_.wait_for(lock, kPause, [&] { return isEnding_; });
    }
}

}  // namespace tarnwell::service
