#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "host/ProgramContext.h"
#include "session/Session.h"

namespace tarnwell::service {

/// Keeps the search index equal to what the provider has, in the background: fills it at the first time, then takes in
/// what changed once it has been quiet for a moment, so that a search finds it done.
class SearchFollower {
public:
    /// Borrows all; `session` is one of its own. Begins at once, on a thread of low priority.
    SearchFollower(host::ProgramContext& context, session::Session& session, log::Log& log);
    /// Ends soon only where the context has given up before.
    ~SearchFollower();
    SearchFollower(const SearchFollower&) = delete;
    SearchFollower& operator=(const SearchFollower&) = delete;

private:
    void run();
    /// False when it shall end.
    bool waitForChange();

    host::ProgramContext& context_;
    log::Log& log_;
    std::mutex mutex_;
    std::condition_variable woken_;
    bool hasChanged_ = true;
    bool isEnding_ = false;
    std::unique_ptr<session::Watch> watch_;
    std::thread thread_;
};

}  // namespace tarnwell::service
