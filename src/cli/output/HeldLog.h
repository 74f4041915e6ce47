#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "platform/log/Log.h"

namespace tarnwell::cli {

/// Keeps the first lines of a run that are worth a person's attention until it is known whether the run failed: then
/// one sentence of the program's own says why, otherwise these lines say what went wrong beside. Any thread may call
/// it.
class HeldLog : public log::Log {
public:
    static constexpr std::size_t kMaxLines = 20;
    HeldLog() { setThreshold(log::Level::error); }
    /// Lines that hold this text are of no interest to the person from now on.
    void ignore(std::string text);
    /// The lines, and one more that counts the rest where there were too many; empty afterwards.
    std::vector<std::string> take();

protected:
    void emit(log::Level level, std::string_view text) override;

private:
    std::mutex mutex_;
    std::vector<std::string> lines_;
    std::vector<std::string> ignored_;
    std::size_t dropped_ = 0;
};

}  // namespace tarnwell::cli
