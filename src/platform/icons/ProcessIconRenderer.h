#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <semaphore>
#include <string>

#include "platform/icons/IconCache.h"
#include "platform/icons/IconRenderer.h"
#include "platform/log/Log.h"

namespace tarnwell::icons {

/// Draws in processes of their own, two at a time, and keeps what they drew in a cache. An icon of which no picture can
/// be made is not tried again by this object.
class ProcessIconRenderer final : public IconRenderer {
public:
    struct Options {
        std::string program;      ///< path of tarnwell-render-icon
        std::string cacheFolder;  ///< "" for no cache
        std::chrono::milliseconds patience{5000};
        IconCache::Limits cacheLimits{};
    };
    /// What cannot be drawn is said at the debug level; the log outlives the renderer.
    ProcessIconRenderer(Options options, log::Log& log)
        : options_(std::move(options)), log_(log), cache_(options_.cacheFolder, options_.cacheLimits) {}

    /// The path of tarnwell-render-icon for the running program.
    static std::string programBesideThisOne();
    /// For a program in `folder`: beside it, as in a build folder; else where installed programs keep what only they
    /// start, ../libexec/tarnwell, and last the folder that the build was told. Where none of them has it, the path
    /// beside the program, so that messages name one.
    static std::string programFor(const std::string& folder);

    Result<IconImage> createImage(const IconData& data) override;

private:
    Result<IconImage> draw(const std::string& key, const IconData& data);

    const Options options_;
    log::Log& log_;
    IconCache cache_;
    std::counting_semaphore<> slots_{2};
    std::mutex mutex_;
    std::map<std::string, Error> hopeless_;
};

}  // namespace tarnwell::icons
