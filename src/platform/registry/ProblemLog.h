#pragma once

#include <mutex>
#include <string>
#include <unordered_map>

#include "platform/log/Log.h"

namespace tarnwell::registry {

/// Says what is wrong with a thing at the debug level, once: again only when something else is wrong with it, or when
/// it was fine in between. So that looking at the disk afresh does not fill the log. Any thread may call it.
class ProblemLog {
public:
    explicit ProblemLog(log::Log& log) : log_(log) {}
    /// `thing` is any name that tells things apart; `message` is the line's text.
    void report(const std::string& thing, const std::string& message);
    void settle(const std::string& thing);

private:
    log::Log& log_;
    std::mutex mutex_;
    std::unordered_map<std::string, std::string> reported_;
};

}  // namespace tarnwell::registry
